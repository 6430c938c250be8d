#ifndef ZOL_TESTS_SUPPORT_INSTALLATION_H
#define ZOL_TESTS_SUPPORT_INSTALLATION_H

#include <string>
#include <vector>

namespace zoltest
{

/// An installation root of its own under the temporary folder, with conf/zol.cfg and conf/log/: what a process of the
/// library needs to start. Sets ZOLROOT to it; the destructor removes the folder and leaves ZOLROOT alone.
class CInstallation
{
public:
    /// strConfig is the text of zol.cfg.
    explicit CInstallation(const std::string &strConfig = "");
    ~CInstallation();
    CInstallation(const CInstallation &) = delete;
    CInstallation &operator=(const CInstallation &) = delete;

    const std::string &root() const { return m_strRoot; }
    std::string logFolder() const { return m_strRoot + "/conf/log"; }

    /// Replaces the text of zol.cfg.
    void writeConfig(const std::string &strConfig) const;

    /// The text of all log files, in the order of their names.
    std::string logText() const;

private:
    std::string m_strRoot;
};

/// A port of the loopback interface that was free a moment ago.
unsigned short freePort();

/// The whole file, or the empty string.
std::string readFile(const std::string &strPath);

/// How often strPart stands in strText.
unsigned int countOf(const std::string &strText, const std::string &strPart);

} // namespace zoltest

#endif
