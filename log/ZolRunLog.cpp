#include "ZolRunLog.h"

#include "log/ZolHeldLines.h"

#include <string>

std::atomic<CZolRunLog::EnumDebugLevel> CZolRunLog::sm_eLogLevel{CZolRunLog::LEVEL_INFO};

void CZolRunLog::write(EnumDebugLevel eLevel, const char *pcScope, const char *pcText)
{
    if (sm_eLogLevel.load(std::memory_order_relaxed) < eLevel)
    {
        return;
    }
    CZolLogTask *const poTask = CZolLogTask::sm_poInstance.load(std::memory_order_acquire);
    if (poTask != nullptr && !CZolHeldLines::keep(pcScope, pcText))
    {
        poTask->append(pcScope, pcText);
    }
}

void CZolRunLog::debug(const char *pcText)
{
    write(LEVEL_DEBUG, nullptr, pcText);
}

void CZolRunLog::info(const char *pcText)
{
    write(LEVEL_INFO, nullptr, pcText);
}

void CZolRunLog::warning(const char *pcText)
{
    write(LEVEL_WARNING, nullptr, pcText);
}

void CZolRunLog::error(const char *pcText)
{
    write(LEVEL_ERROR, nullptr, pcText);
}

void CZolRunLog::fatal(const char *pcText)
{
    write(LEVEL_FATAL, nullptr, pcText);
}

void CZolRunLog::startupLog(const char *pcText)
{
    CZolLogTask *const poTask = CZolLogTask::sm_poInstance.load(std::memory_order_acquire);
    if (poTask != nullptr)
    {
        poTask->startupLog(pcText);
    }
}

int CZolRunLog::logLevel()
{
    return sm_eLogLevel.load(std::memory_order_relaxed);
}

void CZolRunLog::logLevel(int iLevel)
{
    if (iLevel < LEVEL_OFF || iLevel > LEVEL_DEBUG)
    {
        const CZolDebugInfo oDebug("CZolRunLog::logLevel");
        oDebug.debug(("get a bad log level: " + std::to_string(iLevel)).c_str());
        return;
    }
    sm_eLogLevel.store(static_cast<EnumDebugLevel>(iLevel), std::memory_order_relaxed);
}

void CZolDebugInfo::write(CZolRunLog::EnumDebugLevel eLevel, const char *pcText) const
{
    if (m_pcName != nullptr)
    {
        CZolRunLog::write(eLevel, m_pcName, pcText);
    }
}

void CZolDebugInfo::debug(const char *pcText) const
{
    write(CZolRunLog::LEVEL_DEBUG, pcText);
}

void CZolDebugInfo::info(const char *pcText) const
{
    write(CZolRunLog::LEVEL_INFO, pcText);
}

void CZolDebugInfo::warning(const char *pcText) const
{
    write(CZolRunLog::LEVEL_WARNING, pcText);
}

void CZolDebugInfo::error(const char *pcText) const
{
    write(CZolRunLog::LEVEL_ERROR, pcText);
}

void CZolDebugInfo::fatal(const char *pcText) const
{
    write(CZolRunLog::LEVEL_FATAL, pcText);
}
