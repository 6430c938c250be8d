// The threads of a task manager, and the table that says which task each of them runs.

#include "ZolAppMgr.h"
#include "ZolRunLog.h"
#include "ZolTaskMgr.h"
#include "task/ZolTaskLog.h"
#include "task/ZolThreadSelf.h"

#include <ace/Thread.h>
#include <ace/Thread_Manager.h>
#include <algorithm>
#include <cstdio>
#include <memory>

/// The threads run as soon as they are created, before their ids are known here: each waits in svc() for the table.
int CZolTaskMgr::open(void * /*pvArg*/)
{
    if (m_iThreadNum < 1)
    {
        return ZOL_OK;
    }
    if (m_poDispatchMutex == nullptr)
    {
        CZolRunLog::startupLog("CZolTaskMgr::open the task manager has not been added.");
        return ZOL_ERR_FAILED;
    }
    const std::unique_ptr<ACE_thread_t[]> arrThreadIDs(new ACE_thread_t[m_iThreadNum]());
    const int iResult = activate(THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED | THR_SUSPENDED, m_iThreadNum, 0, 0,
                                 m_ucTaskMgrID, nullptr, nullptr, nullptr, nullptr, arrThreadIDs.get());
    if (iResult == 1)
    {
        return ZOL_OK; // an earlier open() has started them
    }
    if (iResult != 0)
    {
        return ZOL_ERR_FAILED;
    }
    std::sort(arrThreadIDs.get(), arrThreadIDs.get() + m_iThreadNum);
    m_ppThreadTable = new SZolThreadEntry *[m_iThreadNum];
    for (int iIndex = 0; iIndex < m_iThreadNum; ++iIndex)
    {
        m_ppThreadTable[iIndex] = new SZolThreadEntry;
        m_ppThreadTable[iIndex]->m_ulThreadID = arrThreadIDs[iIndex];
    }
    m_iTableSize.store(m_iThreadNum, std::memory_order_release);
    m_oTableReady.signal();
    return ZOL_OK;
}

int CZolTaskMgr::svc()
{
    m_oTableReady.wait();
    const unsigned long ulSelf = ACE_Thread::self();
    SZolThreadEntry *poEntry = findThread(ulSelf);
    if (poEntry == nullptr)
    {
        return 0; // left over from an open() that did not get all of its threads
    }
    zolThreadSelf() = {this, poEntry};

    const CZolAppMgr *poAppMgr = CZolAppMgr::instance();
    while (poAppMgr->getStatus() == APPMGR_INITIAL)
    {
        CZolAppMgr::instance()->napUntilRunning();
    }
    while (poAppMgr->getStatus() != APPMGR_EXIT && serveOneMsg(ulSelf))
    {
    }
    zolThreadSelf() = {};
    std::printf("CZolTaskMgr %u, thread %d, svc() exit.\n", m_ucTaskMgrID, static_cast<int>(ulSelf));
    return 0;
}

/// Null as long as the table is not published; its shape never changes after that, so no lock is needed.
SZolThreadEntry *CZolTaskMgr::findThread(unsigned long ulThreadID) const
{
    const SZolThreadSelf &oSelf = zolThreadSelf();
    if (oSelf.m_poTaskMgr == this && oSelf.m_poEntry->m_ulThreadID == ulThreadID)
    {
        return oSelf.m_poEntry;
    }
    const int iSize = m_iTableSize.load(std::memory_order_acquire); // before the pointer, which it publishes
    if (iSize == 0)
    {
        return nullptr;
    }
    SZolThreadEntry **ppEnd = m_ppThreadTable + iSize;
    SZolThreadEntry **ppFound = std::lower_bound(m_ppThreadTable, ppEnd, ulThreadID,
                                                 [](const SZolThreadEntry *poEntry, unsigned long ulID)
                                                 { return poEntry->m_ulThreadID < ulID; });
    return ppFound != ppEnd && (*ppFound)->m_ulThreadID == ulThreadID ? *ppFound : nullptr;
}

void CZolTaskMgr::setTaskOfThread(unsigned long ulThreadID, CZolTask *poTask)
{
    SZolThreadEntry *poEntry = findThread(ulThreadID);
    if (poEntry != nullptr)
    {
        poEntry->m_poTask.store(poTask, std::memory_order_release);
    }
}

CZolTask *CZolTaskMgr::findTaskOfThread(unsigned long ulThreadID)
{
    const SZolThreadEntry *poEntry = findThread(ulThreadID);
    if (poEntry == nullptr || static_cast<int>(thr_count()) != m_iThreadNum)
    {
        return nullptr;
    }
    return poEntry->m_poTask.load(std::memory_order_acquire);
}

/// Whether any thread of this manager, alive or leaving, runs the task. The caller holds the task's m_oStatusMutex,
/// under which a run begins and ends.
bool CZolTaskMgr::isRunByThread(const CZolTask *poTask) const
{
    const int iSize = m_iTableSize.load(std::memory_order_acquire);
    return std::any_of(m_ppThreadTable, m_ppThreadTable + iSize,
                       [poTask](const SZolThreadEntry *poEntry)
                       { return poEntry->m_poTask.load(std::memory_order_acquire) == poTask; });
}

void CZolTaskMgr::warnOfLongHandlers(std::uint64_t ulNowMs, unsigned int uiLimitMs)
{
    const int iSize = m_iTableSize.load(std::memory_order_acquire);
    for (int iIndex = 0; iIndex < iSize; ++iIndex)
    {
        SZolThreadEntry &oEntry = *m_ppThreadTable[iIndex];
        const std::uint32_t uiRun = oEntry.m_uiRun.load(std::memory_order_acquire);
        if (uiRun != oEntry.m_uiWatchedRun)
        {
            oEntry.m_uiWatchedRun = uiRun;
            oEntry.m_ulWatchedSinceMs = ulNowMs;
            oEntry.m_bNamed = false;
        }
        else if (uiRun % 2 == 1 && !oEntry.m_bNamed && ulNowMs - oEntry.m_ulWatchedSinceMs >= uiLimitMs)
        {
            oEntry.m_bNamed = true;
            zolFormatWarning("CZolTaskMgr::warnOfLongHandlers",
                             "taskmgr %u task %u handler runs for more than %u ms, cmd:%d", m_ucTaskMgrID,
                             oEntry.m_usRunTask.load(std::memory_order_relaxed), uiLimitMs,
                             oEntry.m_ulRunCmd.load(std::memory_order_relaxed));
        }
    }
}
