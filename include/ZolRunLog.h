#ifndef ZOL_RUN_LOG_H
#define ZOL_RUN_LOG_H

#include "ZolExport.h"
#include "ZolLogTask.h"

#include <atomic>

/// The run log of the process: five levels, one filter for all threads. The level decides only whether a line is
/// written and leaves no mark in it.
///
/// A line whose text must be formatted is formatted only if isReady() says that the log can take one:
///
///     if (CZolRunLog::isReady())
///     {
///         snprintf(acText, sizeof acText, "... %u", uiValue);
///         oDebug.info(acText);
///     }
///
/// Threads:   any. Before CZolAppMgr::initAppMgr has made the log, nothing is written.
/// Errors:    none; a null text or a line that cannot be taken is dropped.
class ZOL_EXPORT CZolRunLog
{
public:
    enum EnumDebugLevel
    {
        LEVEL_OFF = 0,
        LEVEL_FATAL = 1,
        LEVEL_ERROR = 2,
        LEVEL_WARNING = 3,
        LEVEL_INFO = 4, ///< a process starts with this one
        LEVEL_DEBUG = 5
    };

    static void debug(const char *pcText);
    static void info(const char *pcText);
    static void warning(const char *pcText);
    static void error(const char *pcText);
    static void fatal(const char *pcText); ///< a line like the others: the process goes on

    /// A line of the start, written at every level and at once.
    static void startupLog(const char *pcText);

    /// Whether formatting a line is worth while: the level is not LEVEL_OFF, and the log exists and is not dropping
    /// lines. Three loads; the level of the line to come is not looked at.
    static bool isReady()
    {
        const CZolLogTask *poTask = CZolLogTask::sm_poInstance.load(std::memory_order_acquire);
        return sm_eLogLevel.load(std::memory_order_relaxed) != LEVEL_OFF && poTask != nullptr &&
               !poTask->m_bOverflow.load(std::memory_order_relaxed);
    }

    static int logLevel();
    static void logLevel(int iLevel); ///< a number that is no level changes nothing

private:
    friend class CZolDebugInfo;

    static void write(EnumDebugLevel eLevel, const char *pcScope, const char *pcText); // pcScope may be null

    static std::atomic<EnumDebugLevel> sm_eLogLevel;
};

/// Puts the name of a function in front of its lines. Made on the stack of the function:
///
///     CZolDebugInfo oDebug("CZolTimer::schedule");
///     oDebug.error("Fail to register timer in reactor.");
///
/// pcName is kept as a pointer and must outlive the object. Without a name nothing is written.
class ZOL_EXPORT CZolDebugInfo
{
public:
    explicit CZolDebugInfo(const char *pcName) : m_pcName(pcName) {}

    void debug(const char *pcText) const;
    void info(const char *pcText) const;
    void warning(const char *pcText) const;
    void error(const char *pcText) const;
    void fatal(const char *pcText) const;

private:
    void write(CZolRunLog::EnumDebugLevel eLevel, const char *pcText) const;

    const char *m_pcName;
};

#endif
