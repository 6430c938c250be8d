#include "ZolTaskMgr.h"

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "config/ZolCounters.h"
#include "message/ZolMonotonic.h"
#include "task/ZolTaskLog.h"
#include "task/ZolTaskMgrInside.h"

#include <ace/Guard_T.h>
#include <ace/Thread.h>
#include <ace/Thread_Manager.h>
#include <cstdio>
#include <memory>
#include <sstream>

namespace
{

constexpr unsigned short LAST_STATIC_ID = 32;
constexpr unsigned short FIRST_ASSIGNED_ID = 33;
constexpr unsigned short LAST_ASSIGNED_ID = 60000;

using ReadGuard = ACE_Read_Guard<ACE_RW_Thread_Mutex>;

} // namespace

CZolTaskMgr::CZolTaskMgr(unsigned char ucTaskMgrID, int iThreadNum)
    : ACE_Task_Base(ACE_Thread_Manager::instance()), m_poInside(new CZolInside(*this, ucTaskMgrID)),
      m_ucTaskMgrID(ucTaskMgrID), m_iThreadNum(iThreadNum), m_poMsgQueue(&m_poInside->m_oQueue.list()),
      m_oNotFull(m_oQueueMutex, CZolMonotonicAttributes()), m_oNotEmpty(m_oQueueMutex, CZolMonotonicAttributes())
{
}

CZolTaskMgr::~CZolTaskMgr()
{
    delete m_poInside;
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
    if (m_poInside->m_poDispatchMutex == nullptr)
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
        m_poInside->endPartialOpen();
        return ZOL_ERR_FAILED;
    }
    m_poInside->m_oThreads.publish(arrThreadIDs.get(), m_iThreadNum);
    return ZOL_OK;
}

int CZolTaskMgr::svc()
{
    const unsigned long ulSelf = ACE_Thread::self();
    if (!m_poInside->m_oThreads.enter(*this, ulSelf))
    {
        return 0; // left over from an open() that did not get all of its threads
    }
    const CZolAppMgr *poAppMgr = CZolAppMgr::instance();
    while (poAppMgr->getStatus() == APPMGR_INITIAL)
    {
        CZolAppMgr::instance()->napUntilRunning();
    }
    while (poAppMgr->getStatus() != APPMGR_EXIT && m_poInside->serveOneMsg(ulSelf))
    {
    }
    CZolTaskThreads::leave();
    std::printf("CZolTaskMgr %u, thread %d, svc() exit.\n", m_ucTaskMgrID, static_cast<int>(ulSelf));
    return 0;
}

void CZolTaskMgr::setTaskOfThread(unsigned long ulThreadID, CZolTask *poTask)
{
    m_poInside->m_oThreads.setTask(ulThreadID, poTask);
}

CZolTask *CZolTaskMgr::findTaskOfThread(unsigned long ulThreadID)
{
    CZolTask *poTask = m_poInside->m_oThreads.findTask(ulThreadID);
    return poTask != nullptr && static_cast<int>(thr_count()) == m_iThreadNum ? poTask : nullptr;
}

void CZolTaskMgr::warnOfLongHandlers(std::uint64_t ulNowMs, unsigned int uiLimitMs)
{
    m_poInside->m_oThreads.warnOfLongHandlers(m_ucTaskMgrID, ulNowMs, uiLimitMs);
}

// ---- The queue ------------------------------------------------------------------------------------------------------

unsigned int CZolTaskMgr::getLengthOfMsgQueue() const
{
    return g_ulQueueSize.load(std::memory_order_relaxed);
}

unsigned int CZolTaskMgr::getLengthOfBufferMsg()
{
    return m_poInside->m_oQueue.count();
}

std::uint64_t CZolTaskMgr::getBytesOfBufferMsg()
{
    return m_poInside->m_oQueue.bytes();
}

int CZolTaskMgr::putq(CZolMemBlock *poBlock, bool bPriority)
{
    if (poBlock == nullptr)
    {
        CZolDebugInfo("CZolTaskMgr::putq").error("invalid parameter, null pointer!");
        return ZOL_ERR_FAILED;
    }
    CZolMemList oOne;
    oOne.insert(poBlock);
    m_poInside->m_oQueue.append(oOne, zolTotalLength(zolPduOf(poBlock)), bPriority);
    return ZOL_OK;
}

void CZolTaskMgr::enqueueRequests(CZolMemList &oRequests)
{
    if (oRequests.m_ulCount == 0)
    {
        return;
    }
    std::uint64_t ulBytes = 0;
    CZolMemBlock *poBlock = oRequests.m_poHead;
    for (ACE_UINT32 uiLeft = oRequests.m_ulCount; uiLeft != 0; --uiLeft)
    {
        ulBytes += zolTotalLength(zolPduOf(poBlock));
        poBlock = poBlock->m_poNext;
    }
    m_poInside->m_oQueue.append(oRequests, ulBytes, false);
    oRequests = CZolMemList();
}

int CZolTaskMgr::getq(CZolMemBlock *&poBlock)
{
    poBlock = m_poInside->m_oQueue.take();
    return ZOL_OK;
}

int CZolTaskMgr::enqueueMsg(CZolMemBlock *poBlock, bool bPriority)
{
    if (poBlock == nullptr || poBlock == zolBlockOf(nullptr))
    {
        CZolDebugInfo("CZolTaskMgr::enqueueMsg").error("invalid parameter, null pointer!");
        return ZOL_ERR_FAILED;
    }
    const CZolMsgPdu *poMsg = zolPduOf(poBlock);
    if (poMsg->m_ucMsgType == CZolMsgPdu::MSG_RESPONSE && poMsg->m_usDestSubModuleId != 0 &&
        m_poInside->deliverResponse(poBlock))
    {
        return ZOL_OK;
    }
    putq(poBlock, bPriority);
    return ZOL_OK;
}

void CZolTaskMgr::addTaskToSynWaitList(CZolTask *poTask)
{
    m_poInside->m_oWaiters.add(*poTask);
}

void CZolTaskMgr::removeTaskFromSynWaitList(CZolTask *poTask)
{
    m_poInside->m_oWaiters.remove(*poTask);
}

// ---- Messages -------------------------------------------------------------------------------------------------------

int CZolTaskMgr::existTaskMsg(CZolMsgPdu *poMsg, CZolTask *&poTask, unsigned long ulThreadID)
{
    if (poMsg == nullptr)
    {
        CZolDebugInfo("CZolTaskMgr::existTaskMsg").error("invalid parameter, null pointer!");
        return CZolTaskRunner::DISPATCH_NONE;
    }
    ACE_Read_Guard<ACE_RW_Thread_Mutex> oGuard(m_oTaskLock);
    poTask = m_oTaskTable.find(poMsg->m_usDestSubModuleId);
    if (poTask != nullptr)
    {
        return m_poInside->m_oRunner.decide(poMsg, *poTask, ulThreadID);
    }
    const bool bResponse = poMsg->m_ucMsgType == CZolMsgPdu::MSG_RESPONSE;
    zolCount(bResponse ? zolCounters().m_ulLateResponses : zolCounters().m_ulNoTask);
    zolFormatError("CZolTaskMgr::existTaskMsg",
                   "task id not found when process message, src: %u,%u,%u,%u, dst:%u,%u, cmd:%u", poMsg->m_usSrcProcID,
                   poMsg->m_usSrcProcHandle, poMsg->m_ucSrcModule, poMsg->m_usSrcSubModuleId, poMsg->m_ucDestModule,
                   poMsg->m_usDestSubModuleId, poMsg->m_ulCmdID);
    delete poMsg;
    return CZolTaskRunner::DISPATCH_NONE;
}

int CZolTaskMgr::unknownTaskMsg(CZolMsgPdu *poMsg, CZolTask *&poTask, unsigned long ulThreadID)
{
    poTask = nullptr;
    if (poMsg == nullptr)
    {
        CZolDebugInfo("CZolTaskMgr::unknownTaskMsg").error("invalid parameter, null pointer!");
        return CZolTaskRunner::DISPATCH_NONE;
    }
    const std::unique_ptr<CZolMsgPdu> oHolder(poMsg);
    CZolTask *poNew = m_poInside->m_oRunner.create(*this, poMsg);
    if (poNew == nullptr)
    {
        zolCount(zolCounters().m_ulNoTask);
        return CZolTaskRunner::DISPATCH_NONE;
    }
    setTaskOfThread(ulThreadID, poNew); // before anybody can find the task, and take it for one that nobody runs
    const unsigned short usTaskID = m_poInside->addTask(*poNew, 0, TASK_DYNAMIC, TASK_EXEC);
    if (usTaskID == 0)
    {
        setTaskOfThread(ulThreadID, nullptr);
        zolCount(zolCounters().m_ulNoTask);
        zolFormatError("CZolTaskMgr::unknownTaskMsg",
                       "acquire task id failed when process message, src: %u,%u,%u,%u, dst:%u,%u, cmd:%u",
                       poMsg->m_usSrcProcID, poMsg->m_usSrcProcHandle, poMsg->m_ucSrcModule, poMsg->m_usSrcSubModuleId,
                       poMsg->m_ucDestModule, poMsg->m_usDestSubModuleId, poMsg->m_ulCmdID);
        if (poNew->getTaskID() == 0) // else createTask() gave a task that lives already
        {
            delete poNew;
        }
        return CZolTaskRunner::DISPATCH_NONE;
    }
    poTask = poNew;
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::unknownTaskMsg", "taskmgr %u create task %u, task %u become TASK_EXEC",
                      m_ucTaskMgrID, usTaskID, usTaskID);
    }
    m_poInside->m_oRunner.begin(*poTask, *poMsg);
    return CZolTaskRunner::DISPATCH_RUN;
}

int CZolTaskMgr::processTaskMsg(CZolTask *poTask, unsigned long ulThreadID, EnumTaskState &eState)
{
    m_poInside->m_oRunner.drain(*poTask, ulThreadID, eState);
    return 0;
}

// ---- The table of tasks ---------------------------------------------------------------------------------------------

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
    if (m_poInside->addTask(*poTask, usTaskID, TASK_STATIC, TASK_IDLE) == 0)
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
    const unsigned short usTaskID = m_poInside->addTask(*poTask, 0, TASK_ASSIST, bIdle ? TASK_IDLE : TASK_EXEC);
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
    m_poInside->deleteClaimed(poTask);
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
    m_poInside->removeTask(poTask);
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::delTask", "taskmgr %u task %u has been deleted", m_ucTaskMgrID, usTaskID);
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
