#ifndef ZOL_TESTS_LOG_MANUALLOG_H
#define ZOL_TESTS_LOG_MANUALLOG_H

#include "ZolApi.h"
#include "ZolLogTask.h"
#include "support/Installation.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>

/// A log without its thread, so that a test decides when it is flushed.
class CManualLog : public CZolLogTask
{
public:
    CManualLog() : CZolLogTask(MAX_FILE_SIZE, DEFAULT_FILE_NUMBER, false) {}
    int open(void * /*pvArgs*/) override { return 0; }
};

/// An installation, and one log after the other in it, as a process that is started again.
class CLogTestBase : public testing::Test
{
protected:
    CLogTestBase() { zol::initResMgr(); }

    /// Starts a new log with the prefix "p"; the one before is gone.
    CZolLogTask &start()
    {
        m_poLog = std::make_unique<CManualLog>();
        EXPECT_EQ(0, m_poLog->init(1, 0, "p", nullptr));
        return *m_poLog;
    }

    /// Empties the folder and the settings.
    void startAnew() const
    {
        std::filesystem::remove_all(m_oInstallation.logFolder());
        std::filesystem::create_directory(m_oInstallation.logFolder());
        zol::initResMgr();
    }

    std::string path(int iSeq) const { return m_oInstallation.logFolder() + "/p_" + std::to_string(iSeq) + ".log"; }
    std::string text(int iSeq) const { return zoltest::readFile(path(iSeq)); }

    zoltest::CInstallation m_oInstallation;
    std::unique_ptr<CZolLogTask> m_poLog;
};

/// The lines of a text without their time stamps.
inline std::string withoutStamps(const std::string &strText)
{
    std::string strResult;
    std::istringstream oText(strText);
    for (std::string strLine; std::getline(oText, strLine);)
    {
        strResult += (strLine.size() < 24 ? "?" + strLine : strLine.substr(24)) + "\n";
    }
    return strResult;
}

#endif
