#include "ZolTaskMgr.h"

#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTimer.h"
#include "log/ZolHeldLines.h"
#include "message/ZolMonotonic.h"
#include "task/ZolQueueReader.h"
#include "task/ZolTaskLog.h"

#include <ace/Guard_T.h>
#include <ace/Thread_Manager.h>
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
      m_poMsgQueue(&m_oOwnQueue), m_oNotFull(m_oQueueMutex, CZolMonotonicAttributes()),
      m_oNotEmpty(m_oQueueMutex, CZolMonotonicAttributes()), m_poReader(new SZolQueueReader)
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
    m_poReader->m_oBatch.deleteAll();
    delete m_poReader;
}

bool CZolTaskMgr::initTaskMgr()
{
    return true;
}

CZolTask *CZolTaskMgr::createTask(CZolMsgPdu * /*poMsg*/)
{
    return nullptr;
}

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
    const CZolHeldLines oLines;
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
    const CZolHeldLines oLines; // of a getReactor() that is called
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
