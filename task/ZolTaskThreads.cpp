#include "task/ZolTaskThreads.h"

#include "task/ZolTaskLog.h"
#include "task/ZolThreadSelf.h"

#include <algorithm>

CZolTaskThreads::~CZolTaskThreads()
{
    delete[] m_ppTable;
}

void CZolTaskThreads::publish(ACE_thread_t *pulThreadIDs, int iThreads)
{
    std::sort(pulThreadIDs, pulThreadIDs + iThreads);
    m_poRecords.reset(new SZolThreadRecord[iThreads]);
    m_ppTable = new SZolThreadEntry *[iThreads];
    for (int iIndex = 0; iIndex < iThreads; ++iIndex)
    {
        m_poRecords[iIndex].m_ulThreadID = pulThreadIDs[iIndex];
        m_ppTable[iIndex] = &m_poRecords[iIndex];
    }
    m_iSize.store(iThreads, std::memory_order_release);
    m_oReady.signal();
}

bool CZolTaskThreads::enter(CZolTaskMgr &oTaskMgr, unsigned long ulThreadID)
{
    m_oReady.wait();
    SZolThreadRecord *poRecord = find(ulThreadID);
    if (poRecord != nullptr)
    {
        zolThreadSelf() = {&oTaskMgr, this, poRecord};
    }
    return poRecord != nullptr;
}

void CZolTaskThreads::leave()
{
    zolThreadSelf() = {};
}

/// Null as long as the table is not published.
SZolThreadRecord *CZolTaskThreads::find(unsigned long ulThreadID) const
{
    const SZolThreadSelf &oSelf = zolThreadSelf();
    if (oSelf.m_poThreads == this && oSelf.m_poRecord->m_ulThreadID == ulThreadID)
    {
        return oSelf.m_poRecord;
    }
    const int iSize = m_iSize.load(std::memory_order_acquire); // before the pointers, which it publishes
    if (iSize == 0)
    {
        return nullptr;
    }
    SZolThreadRecord *const poEnd = m_poRecords.get() + iSize;
    SZolThreadRecord *const poFound = std::lower_bound(m_poRecords.get(), poEnd, ulThreadID,
                                                       [](const SZolThreadRecord &oRecord, unsigned long ulID)
                                                       { return oRecord.m_ulThreadID < ulID; });
    return poFound != poEnd && poFound->m_ulThreadID == ulThreadID ? poFound : nullptr;
}

void CZolTaskThreads::setTask(unsigned long ulThreadID, CZolTask *poTask)
{
    SZolThreadRecord *poRecord = find(ulThreadID);
    if (poRecord != nullptr)
    {
        poRecord->m_poTask.store(poTask, std::memory_order_release);
    }
}

CZolTask *CZolTaskThreads::findTask(unsigned long ulThreadID) const
{
    const SZolThreadRecord *poRecord = find(ulThreadID);
    return poRecord != nullptr ? poRecord->m_poTask.load(std::memory_order_acquire) : nullptr;
}

bool CZolTaskThreads::isRun(const CZolTask &oTask) const
{
    const int iSize = m_iSize.load(std::memory_order_acquire); // before the pointer, which it publishes
    if (iSize == 0)
    {
        return false;
    }
    return std::any_of(m_poRecords.get(), m_poRecords.get() + iSize,
                       [&oTask](const SZolThreadRecord &oRecord)
                       { return oRecord.m_poTask.load(std::memory_order_acquire) == &oTask; });
}

void CZolTaskThreads::warnOfLongHandlers(unsigned char ucTaskMgrID, std::uint64_t ulNowMs, unsigned int uiLimitMs)
{
    const int iSize = m_iSize.load(std::memory_order_acquire);
    for (int iIndex = 0; iIndex < iSize; ++iIndex)
    {
        SZolThreadRecord &oRecord = m_poRecords[iIndex];
        const std::uint32_t uiRun = oRecord.m_uiRun.load(std::memory_order_acquire);
        if (uiRun != oRecord.m_uiWatchedRun)
        {
            oRecord.m_uiWatchedRun = uiRun;
            oRecord.m_ulWatchedSinceMs = ulNowMs;
            oRecord.m_bNamed = false;
        }
        else if (uiRun % 2 == 1 && !oRecord.m_bNamed && ulNowMs - oRecord.m_ulWatchedSinceMs >= uiLimitMs)
        {
            oRecord.m_bNamed = true;
            zolFormatWarning("CZolTaskMgr::warnOfLongHandlers",
                             "taskmgr %u task %u handler runs for more than %u ms, cmd:%d", ucTaskMgrID,
                             oRecord.m_usRunTask.load(std::memory_order_relaxed), uiLimitMs,
                             oRecord.m_ulRunCmd.load(std::memory_order_relaxed));
        }
    }
}
