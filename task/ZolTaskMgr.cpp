#include "ZolTaskMgr.h"

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTimer.h"
#include "message/ZolMonotonic.h"
#include "task/ZolPoll.h"
#include "task/ZolTaskLog.h"
#include "task/ZolThreadSelf.h"

#include <ace/Guard_T.h>
#include <ace/Mutex.h>
#include <ace/Thread.h>
#include <ace/Thread_Manager.h>
#include <algorithm>
#include <cstdio>
#include <sstream>

namespace
{

constexpr unsigned short LAST_STATIC_ID = 32;
constexpr unsigned short FIRST_ASSIGNED_ID = 33;
constexpr unsigned short LAST_ASSIGNED_ID = 60000;

using ReadGuard = ACE_Read_Guard<ACE_RW_Thread_Mutex>;
using WriteGuard = ACE_Write_Guard<ACE_RW_Thread_Mutex>;

} // namespace

CZolTaskMgr::CZolTaskMgr(unsigned char ucTaskMgrID, int iThreadNum)
    : ACE_Task_Base(ACE_Thread_Manager::instance()), m_ucTaskMgrID(ucTaskMgrID), m_iThreadNum(iThreadNum),
      m_poMsgQueue(new CZolMemList), m_oNotFull(m_oQueueMutex, CZolMonotonicAttributes()),
      m_oNotEmpty(m_oQueueMutex, CZolMonotonicAttributes()), m_poBatch(new CZolMemList), m_poPoll(new CZolPoll)
{
}

CZolTaskMgr::~CZolTaskMgr()
{
    for (int iIndex = 0; iIndex < m_iTableSize.load(std::memory_order_relaxed); ++iIndex)
    {
        delete m_ppThreadTable[iIndex];
    }
    delete[] m_ppThreadTable;
    m_poMsgQueue->deleteAll();
    delete m_poMsgQueue;
    m_poBatch->deleteAll();
    delete m_poBatch;
    delete m_poPoll;
}

bool CZolTaskMgr::initTaskMgr()
{
    return true;
}

CZolTask *CZolTaskMgr::createTask(CZolMsgPdu * /*poMsg*/)
{
    return nullptr;
}

// ---- Threads --------------------------------------------------------------------------------------------------------

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

// ---- Tasks ----------------------------------------------------------------------------------------------------------

unsigned short CZolTaskMgr::acquireTaskID(unsigned short usTaskID)
{
    if (usTaskID != 0)
    {
        return m_oTaskTable.isTaken(usTaskID) ? static_cast<unsigned short>(0) : usTaskID;
    }
    const unsigned short usFound = m_oTaskTable.findFree(m_usNextTaskID, FIRST_ASSIGNED_ID, LAST_ASSIGNED_ID);
    if (usFound == 0)
    {
        CZolDebugInfo("CZolTaskMgr::acquireTaskID").error("cannot find a free task id!");
        return 0;
    }
    m_usNextTaskID = usFound == LAST_ASSIGNED_ID ? FIRST_ASSIGNED_ID : static_cast<unsigned short>(usFound + 1);
    return usFound;
}

/// Makes the task one of this manager, under the id, or one of the ring for 0, and enters it in the table: the id, or 0
/// with the task unchanged. A task that has been added already is refused.
unsigned short CZolTaskMgr::addTask(CZolTask *poTask, unsigned short usTaskID, EnumTaskType eType, EnumTaskState eState)
{
    WriteGuard oGuard(m_oTaskLock);
    if (poTask->m_usTaskID != 0)
    {
        return 0;
    }
    const unsigned short usAcquired = acquireTaskID(usTaskID);
    if (usAcquired == 0 || !m_oTaskTable.insert(poTask, usAcquired))
    {
        return 0;
    }
    poTask->m_poTaskMgr = this;
    poTask->m_usTaskID = usAcquired;
    poTask->m_eTaskType = eType;
    poTask->m_eTaskStatus.store(eState, std::memory_order_relaxed);
    return usAcquired;
}

int CZolTaskMgr::addStaticTask(CZolTask *poTask, unsigned short usTaskID)
{
    CZolDebugInfo oDebug("CZolTaskMgr::addStaticTask");
    if (poTask == nullptr)
    {
        oDebug.error("invalid parameter, null pointer!");
        return ZOL_ERR_FAILED;
    }
    if (usTaskID == 0 || usTaskID > LAST_STATIC_ID)
    {
        oDebug.error("invalid parameter, invalid task id");
        return ZOL_ERR_FAILED;
    }
    if (addTask(poTask, usTaskID, TASK_STATIC, TASK_IDLE) == 0)
    {
        oDebug.error("acquire task id failed!");
        return ZOL_ERR_FAILED;
    }
    zolFormatInfo("CZolTaskMgr::addStaticTask", "taskmgr %u add static task %u", m_ucTaskMgrID, usTaskID);
    return ZOL_OK;
}

int CZolTaskMgr::addAssistTask(CZolTask *poTask, bool bIdle)
{
    CZolDebugInfo oDebug("CZolTaskMgr::addAssistTask");
    if (poTask == nullptr)
    {
        oDebug.error("invalid parameter, null pointer!");
        return ZOL_ERR_FAILED;
    }
    const unsigned short usTaskID = addTask(poTask, 0, TASK_ASSIST, bIdle ? TASK_IDLE : TASK_EXEC);
    if (usTaskID == 0)
    {
        oDebug.error("acquire task id failed!");
        return ZOL_ERR_FAILED;
    }
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::addAssistTask", "taskmgr %u add assist task %u", m_ucTaskMgrID, usTaskID);
    }
    return ZOL_OK;
}

void CZolTaskMgr::delAssistTask(CZolTask *poTask)
{
    if (poTask == nullptr)
    {
        return;
    }
    {
        ACE_Guard<ACE_Thread_Mutex> oGuard(poTask->m_oStatusMutex);
        if (poTask->m_bDeleting)
        {
            return;
        }
        poTask->m_bDeleting = true;
        poTask->m_eTaskStatus.store(TASK_EXIT, std::memory_order_release);
    }
    delClaimedTask(poTask);
}

/// The caller alone may touch the task from now on: it has set m_bDeleting.
void CZolTaskMgr::delClaimedTask(CZolTask *poTask)
{
    const unsigned short usTaskID = poTask->getTaskID();
    removeTask(poTask);
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::delAssistTask", "taskmgr %u task %u has been deleted", m_ucTaskMgrID, usTaskID);
    }
}

/// The thread has run the task until now, or has claimed its deletion.
void CZolTaskMgr::delTask(CZolTask *poTask, unsigned long ulThreadID)
{
    const unsigned short usTaskID = poTask->getTaskID();
    {
        // Before the entry of the thread is cleared, since one of the two keeps others off. And whoever ended the task
        // from outside may still stand in setTaskStatus().
        ACE_Guard<ACE_Thread_Mutex> oGuard(poTask->m_oStatusMutex);
        poTask->m_bDeleting = true;
    }
    setTaskOfThread(ulThreadID, nullptr);
    removeTask(poTask);
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::delTask", "taskmgr %u task %u has been deleted", m_ucTaskMgrID, usTaskID);
    }
}

/// Takes a task in TASK_EXIT, whose deletion the caller has claimed, out of the table and deletes it. Its timers are
/// cancelled and its destructor runs with no lock held, since either may wait for a thread that adds or ends tasks. The
/// timers come first: those that are left when the id is given out again would reach the next task.
void CZolTaskMgr::removeTask(CZolTask *poTask)
{
    const unsigned short usTaskID = poTask->getTaskID();
    CZolTimer::instance()->cancelTimer(m_ucTaskMgrID, usTaskID);
    {
        WriteGuard oGuard(m_oTaskLock);
        if (m_oTaskTable.find(usTaskID) == poTask)
        {
            m_oTaskTable.unlink(usTaskID);
            m_oTaskTable.release(usTaskID);
        }
    }
    delete poTask;
}

/// For the end of the process: a task that serves events of its own gets no message any more that would call it back.
void CZolTaskMgr::endEventLoops()
{
    ReadGuard oGuard(m_oTaskLock);
    for (unsigned short usIndex = 0; usIndex < m_oTaskTable.bucketCount(); ++usIndex)
    {
        for (const SZolTaskNode *poNode = m_oTaskTable.bucket(usIndex); poNode != nullptr;
             poNode = poNode->m_poNextNode)
        {
            CZolTask &oTask = *poNode->m_poTask;
            ACE_Guard<ACE_Thread_Mutex> oStatusGuard(oTask.m_oStatusMutex);
            if (oTask.getTaskStatus() == TASK_NONZOLWAIT)
            {
                oTask.endEventLoop();
            }
        }
    }
}

CZolTask *CZolTaskMgr::findTask(unsigned short usTaskID)
{
    ReadGuard oGuard(m_oTaskLock);
    return m_oTaskTable.find(usTaskID);
}

std::string CZolTaskMgr::dumpAllTask()
{
    std::ostringstream oText;
    oText << "CZolTaskMgr: " << static_cast<unsigned int>(m_ucTaskMgrID) << "\n";
    ReadGuard oGuard(m_oTaskLock);
    for (unsigned short usIndex = 0; usIndex < m_oTaskTable.bucketCount(); ++usIndex)
    {
        for (const SZolTaskNode *poNode = m_oTaskTable.bucket(usIndex); poNode != nullptr;
             poNode = poNode->m_poNextNode)
        {
            oText << "    taskid = " << poNode->m_usTaskID
                  << ", status = " << static_cast<int>(poNode->m_poTask->getTaskStatus())
                  << ", type = " << static_cast<int>(poNode->m_poTask->getTaskType()) << "\n";
        }
    }
    return oText.str();
}

// ---- Tasks in blocking calls ----------------------------------------------------------------------------------------

void CZolTaskMgr::addTaskToSynWaitList(CZolTask *poTask)
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oSynWaitMutex);
    m_oSynWaitList.emplace(poTask->getTaskID(), poTask);
}

void CZolTaskMgr::removeTaskFromSynWaitList(CZolTask *poTask)
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oSynWaitMutex);
    const auto itFound = m_oSynWaitList.find(poTask->getTaskID());
    if (itFound != m_oSynWaitList.end() && itFound->second == poTask)
    {
        m_oSynWaitList.erase(itFound);
    }
}
