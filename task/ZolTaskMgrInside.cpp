#include "task/ZolTaskMgrInside.h"

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTimer.h"
#include "config/ZolCounters.h"
#include "log/ZolHeldLines.h"
#include "task/ZolTaskLog.h"

#include <ace/Guard_T.h>
#include <ace/Mutex.h>
#include <ace/Thread_Manager.h>

namespace
{

using ReadGuard = ACE_Read_Guard<ACE_RW_Thread_Mutex>;
using WriteGuard = ACE_Write_Guard<ACE_RW_Thread_Mutex>;

/// Holds the dispatch mutex, unless the manager has one thread alone: that one has nobody to keep out.
class CDispatchGuard
{
public:
    CDispatchGuard(ACE_Mutex &oMutex, int iThreads) : m_poMutex(iThreads > 1 ? &oMutex : nullptr)
    {
        if (m_poMutex != nullptr)
        {
            m_poMutex->acquire();
        }
    }
    ~CDispatchGuard() { release(); }
    CDispatchGuard(const CDispatchGuard &) = delete;
    CDispatchGuard &operator=(const CDispatchGuard &) = delete;

    void release()
    {
        if (m_poMutex != nullptr)
        {
            m_poMutex->release();
            m_poMutex = nullptr;
        }
    }

private:
    ACE_Mutex *m_poMutex;
};

} // namespace

// Of the locks and lists that lie in the manager only the addresses are taken here: they are made after this object.
CZolTaskMgr::CZolInside::CZolInside(CZolTaskMgr &oTaskMgr, unsigned char ucTaskMgrID)
    : m_oTaskMgr(oTaskMgr), m_oWaiters(oTaskMgr.m_oSynWaitList, oTaskMgr.m_oSynWaitMutex),
      m_oThreads(oTaskMgr.m_ppThreadTable), m_oRunner(ucTaskMgrID, m_oThreads),
      m_oQueue(oTaskMgr.m_oQueueMutex, oTaskMgr.m_oNotFull, oTaskMgr.m_oNotEmpty, oTaskMgr.m_ulQueuedBytes)
{
}

unsigned short CZolTaskMgr::CZolInside::addTask(CZolTask &oTask, unsigned short usTaskID, EnumTaskType eType,
                                                EnumTaskState eState)
{
    const CZolHeldLines oLines;
    WriteGuard oGuard(m_oTaskMgr.m_oTaskLock);
    if (oTask.m_usTaskID != 0)
    {
        return 0;
    }
    const unsigned short usAcquired = m_oTaskMgr.acquireTaskID(usTaskID);
    if (usAcquired == 0 || !m_oTaskMgr.m_oTaskTable.insert(&oTask, usAcquired))
    {
        return 0;
    }
    oTask.m_poTaskMgr = &m_oTaskMgr;
    oTask.m_usTaskID = usAcquired;
    oTask.m_eTaskType = eType;
    oTask.m_eTaskStatus.store(eState, std::memory_order_relaxed);
    return usAcquired;
}

void CZolTaskMgr::CZolInside::deleteClaimed(CZolTask *poTask)
{
    const unsigned short usTaskID = poTask->getTaskID();
    removeTask(poTask);
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::delAssistTask", "taskmgr %u task %u has been deleted", m_oTaskMgr.m_ucTaskMgrID,
                      usTaskID);
    }
}

/// The task's timers are cancelled and its destructor runs with no lock held, since either may wait for a thread that
/// adds or ends tasks. The timers come first: those that are left when the id is given out again would reach the next
/// task.
void CZolTaskMgr::CZolInside::removeTask(CZolTask *poTask)
{
    const unsigned short usTaskID = poTask->getTaskID();
    CZolTimer::instance()->cancelTimer(m_oTaskMgr.m_ucTaskMgrID, usTaskID);
    {
        WriteGuard oGuard(m_oTaskMgr.m_oTaskLock);
        if (m_oTaskMgr.m_oTaskTable.find(usTaskID) == poTask)
        {
            m_oTaskMgr.m_oTaskTable.unlink(usTaskID);
            m_oTaskMgr.m_oTaskTable.release(usTaskID);
        }
    }
    zolCount(zolCounters().m_ulTaskEnded, poTask->m_uiBuffered.load(std::memory_order_relaxed));
    delete poTask;
}

bool CZolTaskMgr::CZolInside::deliverResponse(CZolMemBlock *poBlock)
{
    // of the message nothing may be read once it is delivered
    const unsigned short usTaskID = zolPduOf(poBlock)->m_usDestSubModuleId;
    const ACE_UINT32 ulCmdID = zolPduOf(poBlock)->m_ulCmdID;
    if (!m_oWaiters.deliver(poBlock))
    {
        return false;
    }
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::enqueueMsg", "taskmgr %u task %u has been awoken, cmd:%d", m_oTaskMgr.m_ucTaskMgrID,
                      usTaskID, ulCmdID);
    }
    return true;
}

void CZolTaskMgr::CZolInside::endEventLoops()
{
    const CZolHeldLines oLines; // of a getReactor() that is called
    ReadGuard oGuard(m_oTaskMgr.m_oTaskLock);
    for (unsigned short usIndex = 0; usIndex < m_oTaskMgr.m_oTaskTable.bucketCount(); ++usIndex)
    {
        for (const SZolTaskNode *poNode = m_oTaskMgr.m_oTaskTable.bucket(usIndex); poNode != nullptr;
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

bool CZolTaskMgr::CZolInside::serveOneMsg(unsigned long ulThreadID)
{
    CZolTask *poTask = nullptr;
    int iDispatch = CZolTaskRunner::DISPATCH_NONE;
    bool bNewTask = false;
    CZolMsgPdu *poMsg = nullptr;
    {
        const CZolHeldLines oLines; // of the dispatcher, and of a getReactor() that it calls
        CDispatchGuard oGuard(*m_poDispatchMutex, m_oTaskMgr.m_iThreadNum);
        CZolMemBlock *poBlock = nullptr;
        m_oTaskMgr.getq(poBlock);
        if (CZolAppMgr::instance()->getStatus() == APPMGR_EXIT)
        {
            oGuard.release();
            m_oTaskMgr.putq(poBlock, true); // for the next thread, which leaves in the same way
            return false;
        }
        poMsg = zolPduOf(poBlock);
        bNewTask = poMsg->m_usDestSubModuleId == 0;
        if (!bNewTask)
        {
            iDispatch = m_oTaskMgr.existTaskMsg(poMsg, poTask, ulThreadID);
        }
    }
    if (bNewTask)
    {
        iDispatch = m_oTaskMgr.unknownTaskMsg(poMsg, poTask, ulThreadID);
    }
    EnumTaskState eState = TASK_EXIT;
    switch (iDispatch)
    {
    case CZolTaskRunner::DISPATCH_FIRST:
        eState = m_oRunner.serveFirst(*poTask, poMsg);
        break;
    case CZolTaskRunner::DISPATCH_RUN:
        eState = poTask->getTaskStatus();
        break;
    case CZolTaskRunner::DISPATCH_DELETE:
        break;
    default:
        return true;
    }
    if (eState != TASK_EXIT)
    {
        m_oTaskMgr.processTaskMsg(poTask, ulThreadID, eState);
    }
    if (eState == TASK_EXIT)
    {
        m_oTaskMgr.delTask(poTask, ulThreadID);
    }
    return true;
}

int CZolTaskMgr::CZolInside::joinThreads()
{
    int iResult = ACE_Thread_Manager::instance()->wait_task(&m_oTaskMgr);
    for (int iLeft = m_oTaskMgr.m_iThreadNum / 2; iLeft > 0 && iResult == 0; iLeft /= 2)
    {
        iResult = ACE_Thread_Manager::instance()->wait_task(&m_oTaskMgr);
    }
    return iResult;
}

void CZolTaskMgr::CZolInside::endPartialOpen()
{
    m_oThreads.sendAway();
    joinThreads();
    m_oThreads.callBack();
    // ACE has taken off all threads that it was asked for, and each that left once more
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oTaskMgr.lock_);
    m_oTaskMgr.thr_count_ = 0;
}
