#ifndef ZOL_TESTS_SUPPORT_CHILDPROCESS_H
#define ZOL_TESTS_SUPPORT_CHILDPROCESS_H

#include <chrono>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace zoltest
{

/// A real process that a test started. Its standard output and error go to two files; the destructor kills it if it
/// still runs.
class CChildProcess
{
public:
    using Environment = std::vector<std::pair<std::string, std::string>>;

    /// Runs oCommand (a path and its arguments) with the test's environment and oEnvironment on top.
    explicit CChildProcess(const std::vector<std::string> &oCommand, const Environment &oEnvironment = {});
    ~CChildProcess();
    CChildProcess(const CChildProcess &) = delete;
    CChildProcess &operator=(const CChildProcess &) = delete;

    pid_t pid() const { return m_iPid; }
    void signal(int iSignal) const;

    /// False if it has ended, which exitCode() then tells.
    bool isRunning();

    /// Waits for the end: the exit code, 128 + n after signal n, or -1 if it still runs when the limit is over.
    int exitCode(std::chrono::seconds oLimit = std::chrono::seconds(60));

    std::string output() const; ///< what it has written to its standard output so far
    std::string errors() const; ///< the same for its standard error

    /// Waits until strText stands in output(); false if the process ends first or the limit is over.
    bool waitForOutput(const std::string &strText, std::chrono::seconds oLimit = std::chrono::seconds(60));

private:
    std::string m_strFolder;
    pid_t m_iPid = -1;
    int m_iExitCode = -1; // set when the end has been seen
    bool m_bEnded = false;
};

} // namespace zoltest

#endif
