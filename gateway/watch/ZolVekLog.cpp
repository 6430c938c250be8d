#include "gateway/watch/ZolVekLog.h"

#include "ZolApi.h"
#include "ZolLogTask.h"
#include "ZolRunLog.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

bool s_bRunLog = false; // set before the first line, by open()

/// Why the run log could not write its file, now or when its ring comes to it; empty if it can.
std::string whyNotWritable(const std::string &strFile)
{
    const int iFile = open(strFile.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); // as the log, but makes none
    if (iFile >= 0)
    {
        close(iFile);
        return std::string();
    }
    const int iError = errno;
    struct stat oLink = {};
    if (iError == ENOENT && lstat(strFile.c_str(), &oLink) != 0)
    {
        return std::string(); // the folder lets it be made
    }
    return strFile + ": " + strerrordesc_np(iError);
}

/// The same of all its files.
std::string whyNoRunLog(const SZolVekSettings &oSettings)
{
    if (access(oSettings.m_strLogPath.c_str(), W_OK | X_OK) != 0)
    {
        const int iError = errno;
        return oSettings.m_strLogPath + ": " + strerrordesc_np(iError);
    }
    for (unsigned int uiFile = 0; uiFile < oSettings.m_uiMaxLogNumber; ++uiFile)
    {
        std::string strWhy = whyNotWritable(oSettings.m_strLogPath + "/vek_" + std::to_string(uiFile) + ".log");
        if (!strWhy.empty())
        {
            return strWhy;
        }
    }
    return std::string();
}

void toRunLog(int iLevel, const char *pcScope, const char *pcText)
{
    CZolDebugInfo oDebug(pcScope);
    switch (iLevel)
    {
    case CZolRunLog::LEVEL_FATAL:
        oDebug.fatal(pcText);
        break;
    case CZolRunLog::LEVEL_ERROR:
        oDebug.error(pcText);
        break;
    case CZolRunLog::LEVEL_WARNING:
        oDebug.warning(pcText);
        break;
    case CZolRunLog::LEVEL_INFO:
        oDebug.info(pcText);
        break;
    default:
        oDebug.debug(pcText);
        break;
    }
}

} // namespace

void CZolVekLog::open(const SZolVekSettings &oSettings)
{
    CZolRunLog::logLevel(static_cast<int>(oSettings.m_uiLogLevel));
    if (oSettings.m_strLogPath.empty())
    {
        return;
    }
    const std::string strWhyNot = whyNoRunLog(oSettings);
    if (!strWhyNot.empty())
    {
        line(CZolRunLog::LEVEL_ERROR, "CZolVekLog::open", "%s; the log goes to standard error", strWhyNot.c_str());
        return;
    }
    zol::saveResWithKey("MaxLogNumber", std::to_string(oSettings.m_uiMaxLogNumber));
    zol::saveResWithKey("MaxLogSize", std::to_string(oSettings.m_uiMaxLogSize));
    s_bRunLog = CZolLogTask::instance()->init(0, 0, "vek", oSettings.m_strLogPath.c_str()) == 0;
}

void CZolVekLog::flush()
{
    if (s_bRunLog)
    {
        CZolLogTask::instance()->writeLog();
    }
}

void CZolVekLog::line(int iLevel, const char *pcScope, const char *pcFormat, ...)
{
    if (CZolRunLog::logLevel() < iLevel || (s_bRunLog && !CZolRunLog::isReady()))
    {
        return;
    }
    char acText[512];
    va_list oArguments;
    va_start(oArguments, pcFormat);
    vsnprintf(acText, sizeof acText, pcFormat, oArguments);
    va_end(oArguments);
    if (iLevel <= CZolRunLog::LEVEL_INFO)
    {
        CZolVekEvents::add(iLevel, acText);
    }
    if (s_bRunLog)
    {
        toRunLog(iLevel, pcScope, acText);
        return;
    }
    // a reader of standard error that has stopped must not stop the routing: a line that would wait is lost
    pollfd oStandardError{STDERR_FILENO, POLLOUT, 0};
    if (poll(&oStandardError, 1, 0) == 1 && (oStandardError.revents & POLLOUT) != 0)
    {
        char acTime[32];
        zol::getCurrFormatTime(acTime);
        fprintf(stderr, "%s %s %s\n", acTime, pcScope, acText);
    }
}

std::array<SZolVekEvent, CZolVekEvents::MOST> CZolVekEvents::s_aoLines;
std::uint64_t CZolVekEvents::s_ulLast = 0;

void CZolVekEvents::add(int iLevel, const char *pcText)
{
    timespec oNow{};
    clock_gettime(CLOCK_REALTIME, &oNow);
    ++s_ulLast;
    s_aoLines[s_ulLast % MOST] = {s_ulLast, static_cast<std::int64_t>(oNow.tv_sec) * 1000 + oNow.tv_nsec / 1000000,
                                  iLevel, pcText};
}

bool CZolVekRateLimit::pass(std::uint64_t ulSubject, std::uint64_t ulNowMs, std::uint64_t &ulHeldBack)
{
    ulHeldBack = 0;
    std::size_t ulInThisSecond = 0;
    for (std::size_t ulAt = 0; ulAt < std::min(m_ulWritten, LINES); ++ulAt)
    {
        if (ulNowMs - m_aoLines[ulAt].m_ulWrittenMs < 1000)
        {
            ulInThisSecond += m_aoLines[ulAt].m_ulSubject == ulSubject ? LINES : 1;
        }
    }
    if (ulInThisSecond >= LINES)
    {
        ++m_ulHeldBack;
        return false;
    }
    m_aoLines[m_ulWritten++ % LINES] = {ulSubject, ulNowMs}; // the oldest one goes
    std::swap(ulHeldBack, m_ulHeldBack);
    return true;
}
