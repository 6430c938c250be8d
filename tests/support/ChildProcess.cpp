#include "support/ChildProcess.h"

#include "support/Installation.h"
#include "support/WaitUntil.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace zoltest
{

namespace
{

std::vector<char *> pointersTo(std::vector<std::string> &oTexts)
{
    std::vector<char *> oPointers;
    for (auto &strText : oTexts)
    {
        oPointers.push_back(strText.data());
    }
    oPointers.push_back(nullptr);
    return oPointers;
}

} // namespace

CChildProcess::CChildProcess(const std::vector<std::string> &oCommand, const Environment &oEnvironment)
{
    std::string strTemplate = (fs::temp_directory_path() / "zol-child-XXXXXX").string();
    if (mkdtemp(strTemplate.data()) == nullptr)
    {
        throw std::runtime_error("cannot make a temporary folder");
    }
    m_strFolder = strTemplate;
    // Everything that allocates is done before the fork: this process may have threads.
    auto oArguments = oCommand;
    for (const auto &[strName, strValue] : oEnvironment)
    {
        oArguments.insert(oArguments.begin(), strName + "=" + strValue);
    }
    oArguments.insert(oArguments.begin(), "/usr/bin/env");
    const auto oArgumentPointers = pointersTo(oArguments);
    const int iOut = open((m_strFolder + "/out").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int iErr = open((m_strFolder + "/err").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    m_iPid = fork();
    if (m_iPid == 0)
    {
        dup2(iOut, STDOUT_FILENO);
        dup2(iErr, STDERR_FILENO);
        execv(oArgumentPointers[0], oArgumentPointers.data());
        _exit(127);
    }
    close(iOut);
    close(iErr);
    if (m_iPid < 0)
    {
        throw std::runtime_error("cannot fork");
    }
}

CChildProcess::~CChildProcess()
{
    if (isRunning())
    {
        signal(SIGKILL);
        exitCode();
    }
    std::error_code oIgnored;
    fs::remove_all(m_strFolder, oIgnored);
}

void CChildProcess::signal(int iSignal) const
{
    if (!m_bEnded)
    {
        kill(m_iPid, iSignal);
    }
}

bool CChildProcess::isRunning()
{
    int iStatus = 0;
    if (!m_bEnded && waitpid(m_iPid, &iStatus, WNOHANG) == m_iPid)
    {
        m_bEnded = true;
        m_iExitCode = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 128 + WTERMSIG(iStatus);
    }
    return !m_bEnded;
}

int CChildProcess::exitCode(std::chrono::seconds oLimit)
{
    waitUntil([this] { return !isRunning(); }, oLimit);
    return m_bEnded ? m_iExitCode : -1;
}

std::string CChildProcess::output() const
{
    return readFile(m_strFolder + "/out");
}

std::string CChildProcess::errors() const
{
    return readFile(m_strFolder + "/err");
}

bool CChildProcess::waitForOutput(const std::string &strText, std::chrono::seconds oLimit)
{
    waitUntil([&] { return output().find(strText) != std::string::npos || !isRunning(); }, oLimit);
    return output().find(strText) != std::string::npos;
}

} // namespace zoltest
