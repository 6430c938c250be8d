#include "ZolTask.h"

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTaskMgr.h"
#include "ZolTimer.h"
#include "message/ZolCounters.h"
#include "message/ZolMonotonic.h"
#include "task/ZolPoll.h"
#include "task/ZolTaskLog.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolSendMsgTask.h"

#include <ace/Guard_T.h>
#include <ace/Reactor.h>
#include <ace/Thread.h>
#include <cxxabi.h>
#include <limits>

namespace
{

const char *nameOf(EnumTaskState eState)
{
    switch (eState)
    {
    case TASK_IDLE:
        return "TASK_IDLE";
    case TASK_EXEC:
        return "TASK_EXEC";
    case TASK_SYNWAIT:
        return "TASK_SYNWAIT";
    case TASK_EXIT:
        return "TASK_EXIT";
    case TASK_NONZOLWAIT:
        return "TASK_NONZOLWAIT";
    }
    return "unknown";
}

bool isForThisProcess(const CZolMsgPdu &oMsg)
{
    const CZolAppMgr *poAppMgr = CZolAppMgr::instance();
    return oMsg.m_usDestProcID == poAppMgr->getProcID() && oMsg.m_usDestProcHandle == poAppMgr->getProcHandle();
}

} // namespace

CZolTask::CZolTask() : CZolTask(nullptr) {}

CZolTask::CZolTask(CZolTaskMgr *poTaskMgr)
    : m_poTaskMgr(poTaskMgr), m_oSynCondition(m_oStatusMutex, CZolMonotonicAttributes()), m_poMsgList(&m_oOwnList)
{
}

CZolTask::~CZolTask()
{
    m_poMsgList->deleteAll();
}

void CZolTask::reqMsgProcess(const CZolMsgPdu * /*poMsg*/) {}

void CZolTask::respMsgProcess(const CZolMsgPdu * /*poMsg*/) {}

void CZolTask::timerCallBack(unsigned long /*ulTimerID*/) {}

ACE_Reactor *CZolTask::getReactor()
{
    return nullptr;
}

void CZolTask::eventLoop() {}

// ---- Blocking calls -------------------------------------------------------------------------------------------------
//
// The task enters the wait list of its manager and becomes TASK_SYNWAIT before the request leaves, so a response that
// comes at once is delivered to it; nobody has to hold m_oStatusMutex while the request is sent, which may take long.
// CZolTaskMgr::enqueueMsg delivers under m_oStatusMutex and sets m_bDelivered, and that flag alone ends the wait early:
// it is set for responses that came past the queue, and it makes a spurious wake-up harmless.

int CZolTask::sendSynMsg(CZolMsgPdu *&poRequest, CZolMsgPdu *&poResponse, int iSeconds)
{
    CZolMsgPdu *poMsg = poRequest;
    poRequest = nullptr;
    const int iRefusal = checkSynRequest(poMsg);
    if (iRefusal != ZOL_OK)
    {
        delete poMsg;
        return iRefusal;
    }
    poMsg->m_ucSrcModule = m_poTaskMgr->getTaskMgrID();
    poMsg->m_usSrcSubModuleId = m_usTaskID;

    CZolTaskMgr *poLocalMgr = nullptr;
    if (isForThisProcess(*poMsg))
    {
        poLocalMgr = findLocalDest(*poMsg, "CZolTask::sendSynMsg");
        if (poLocalMgr == nullptr)
        {
            delete poMsg;
            return ZOL_ERR_NO_DEST;
        }
    }
    else if (!CZolConnMgr::instance()->isConnected(poMsg->m_usDestProcID, poMsg->m_usDestProcHandle))
    {
        poResponse = nullptr;
        zolCount(zolCounters().m_ulNoConnection);
        delete poMsg;
        return ZOL_ERR_INTERRUPTED;
    }

    const EnumTaskState eBefore = beginSynCall();
    CZolMemBlock *poBlock = zolBlockOf(poMsg);
    const int iResult =
        poLocalMgr != nullptr ? poLocalMgr->enqueueMsg(poBlock, true) : CZolSendMsgTask::instance()->sendMsg(poBlock);
    if (iResult == ZOL_OK)
    {
        awaitDelivery(iSeconds);
    }
    endSynCall(eBefore);
    if (iResult != ZOL_OK)
    {
        poResponse = nullptr;
        delete poMsg;
        return iResult;
    }
    return takeResponse(poResponse);
}

int CZolTask::checkSynRequest(const CZolMsgPdu *poRequest) const
{
    CZolDebugInfo oDebug("CZolTask::sendSynMsg");
    if (poRequest == nullptr)
    {
        oDebug.error("invalid parameter: null pointer!");
        return ZOL_ERR_FAILED;
    }
    if (m_poTaskMgr == nullptr)
    {
        oDebug.error("please add task to taskmgr.");
        return ZOL_ERR_FAILED;
    }
    switch (poRequest->m_ucMsgType)
    {
    case CZolMsgPdu::MSG_REQUEST:
    case CZolMsgPdu::MSG_SUBSCRIBE:
    case CZolMsgPdu::MSG_SUBSCRIBE_CANCEL:
    case CZolMsgPdu::MSG_GET_ADDRESS:
        return ZOL_OK;
    default:
        oDebug.error("The type of message must be CZolMsgPdu::MSG_REQUEST!");
        return ZOL_ERR_MSG_TYPE;
    }
}

EnumTaskState CZolTask::beginSynCall()
{
    m_poTaskMgr->addTaskToSynWaitList(this);
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oStatusMutex);
    const EnumTaskState eBefore = m_eTaskStatus.load(std::memory_order_relaxed);
    m_bSynCall = true;
    m_bDelivered.store(false, std::memory_order_relaxed);
    setStatusWithLog(TASK_SYNWAIT);
    return eBefore;
}

void CZolTask::awaitDelivery(int iSeconds)
{
    static thread_local CZolPoll s_oPoll;
    const ACE_Time_Value oDeadline = zolMonotonicNow() + ACE_Time_Value(iSeconds < 1 ? 1 : iSeconds);
    s_oPoll.lookFor([this] { return m_bDelivered.load(std::memory_order_acquire); });
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oStatusMutex);
    while (!m_bDelivered.load(std::memory_order_relaxed))
    {
        if (m_oSynCondition.wait(&oDeadline) == -1)
        {
            return; // the time is over; a response that has come another way may still stand on the list
        }
    }
}

void CZolTask::endSynCall(EnumTaskState eBefore)
{
    {
        ACE_Guard<ACE_Thread_Mutex> oGuard(m_oStatusMutex);
        m_bSynCall = false;
        restoreStatus(eBefore, true);
    }
    m_poTaskMgr->removeTaskFromSynWaitList(this);
}

/// Takes the first response off the list, from wherever it stands; the messages around it keep their order.
int CZolTask::takeResponse(CZolMsgPdu *&poResponse)
{
    poResponse = nullptr;
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMsgListMutex);
    if (m_poMsgList->m_ulCount == 0)
    {
        return ZOL_ERR_TIMEOUT;
    }
    CZolMemBlock *poBefore = nullptr;
    CZolMemBlock *poBlock = m_poMsgList->m_poHead;
    for (ACE_UINT32 ulLeft = m_poMsgList->m_ulCount; ulLeft != 0; --ulLeft)
    {
        if (zolPduOf(poBlock)->m_ucMsgType != CZolMsgPdu::MSG_RESPONSE)
        {
            poBefore = poBlock;
            poBlock = poBlock->m_poNext;
            continue;
        }
        if (poBefore == nullptr)
        {
            m_poMsgList->popHead();
        }
        else
        {
            poBefore->m_poNext = poBlock->m_poNext;
            if (m_poMsgList->m_poTail == poBlock)
            {
                m_poMsgList->m_poTail = poBefore;
            }
            --m_poMsgList->m_ulCount;
        }
        m_uiBuffered.store(m_poMsgList->m_ulCount, std::memory_order_relaxed);
        poResponse = zolPduOf(poBlock);
        return ZOL_OK;
    }
    return ZOL_ERR_FAILED;
}

int CZolTask::recvNonZolMsg()
{
    CZolDebugInfo oDebug("CZolTask::recvNonZolMsg");
    if (m_poTaskMgr == nullptr)
    {
        oDebug.error("please add task to taskmgr.");
        return ZOL_ERR_FAILED;
    }
    if (m_poTaskMgr->findTaskOfThread(ACE_Thread::self()) != this)
    {
        oDebug.error("Current task is not being scheduled.");
        return ZOL_ERR_FAILED;
    }

    // leaves the state also when eventLoop() throws
    struct CLeave
    {
        explicit CLeave(CZolTask &oTask) : m_oTask(oTask)
        {
            ACE_Guard<ACE_Thread_Mutex> oGuard(m_oTask.m_oStatusMutex);
            if (m_oTask.getTaskStatus() == TASK_EXIT)
            {
                m_eAfter = TASK_EXIT;
            }
            m_oTask.m_eTaskStatus.store(TASK_NONZOLWAIT, std::memory_order_release);
            if (CZolAppMgr::instance()->getStatus() == APPMGR_EXIT)
            {
                m_oTask.endEventLoop(); // CZolTaskMgr::endEventLoops() may have passed already
            }
        }
        ~CLeave()
        {
            ACE_Guard<ACE_Thread_Mutex> oGuard(m_oTask.m_oStatusMutex);
            m_oTask.restoreStatus(m_eAfter, false);
        }
        CZolTask &m_oTask;
        EnumTaskState m_eAfter = TASK_EXEC;
    };
    const CLeave oLeave(*this);
    eventLoop();
    return ZOL_OK;
}

CZolMsgPdu *CZolTask::popFrontZolMsg()
{
    return popMsg();
}

CZolMsgPdu *CZolTask::popMsg()
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMsgListMutex);
    CZolMemBlock *poBlock = m_poMsgList->popHead();
    m_uiBuffered.store(m_poMsgList->m_ulCount, std::memory_order_relaxed);
    return poBlock != nullptr ? zolPduOf(poBlock) : nullptr;
}

/// Appends a message to the list, which owns it from here on.
void CZolTask::buffer(CZolMsgPdu *poMsg)
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMsgListMutex);
    m_poMsgList->insert(zolBlockOf(poMsg));
    m_uiBuffered.store(m_poMsgList->m_ulCount, std::memory_order_relaxed);
}

// ---- Services -------------------------------------------------------------------------------------------------------

int CZolTask::sendAsynMsg(CZolMsgPdu *&poMsg)
{
    CZolDebugInfo oDebug("CZolTask::sendAsynMsg");
    CZolMsgPdu *poTaken = poMsg;
    poMsg = nullptr;
    if (poTaken == nullptr)
    {
        oDebug.error("invalid parameter: null pointer!");
        return ZOL_ERR_FAILED;
    }
    if (m_poTaskMgr == nullptr)
    {
        oDebug.error("please add task to taskmgr.");
        delete poTaken;
        return ZOL_ERR_FAILED;
    }
    CZolMemBlock *poBlock = zolBlockOf(poTaken);
    if (!isForThisProcess(*poTaken))
    {
        if (CZolConnMgr::instance()->isConnected(poTaken->m_usDestProcID, poTaken->m_usDestProcHandle))
        {
            return CZolSendMsgTask::instance()->sendMsg(poBlock);
        }
        zolCount(zolCounters().m_ulNoConnection);
        delete poTaken;
        return ZOL_ERR_INTERRUPTED;
    }
    CZolTaskMgr *poTaskMgr = findLocalDest(*poTaken, "CZolTask::sendAsynMsg");
    if (poTaskMgr == nullptr)
    {
        delete poTaken;
        return ZOL_ERR_NO_DEST;
    }
    const int iResult = poTaskMgr->enqueueMsg(poBlock, true);
    if (iResult != ZOL_OK)
    {
        delete poTaken;
    }
    return iResult;
}

CZolTaskMgr *CZolTask::findLocalDest(const CZolMsgPdu &oMsg, const char *pcScope) const
{
    CZolTaskMgr *poTaskMgr = CZolAppMgr::instance()->findTaskMgr(oMsg.m_ucDestModule);
    if (poTaskMgr == nullptr)
    {
        zolCount(zolCounters().m_ulNoManager);
        zolFormatError(pcScope,
                       "taskmgr %u task %u send message to local process failed, task not found, Dest: Mod=%u, "
                       "SubMod=%u, cmd=%d",
                       m_poTaskMgr->getTaskMgrID(), m_usTaskID, oMsg.m_ucDestModule, oMsg.m_usDestSubModuleId,
                       oMsg.m_ulCmdID);
    }
    return poTaskMgr;
}

unsigned long CZolTask::setTimer(unsigned long ulInterval)
{
    if (m_usTaskID == 0 || m_poTaskMgr == nullptr)
    {
        CZolDebugInfo("CZolTask::setTimer").warning("m_usTaskID==0, add task to taskmgr first.");
        return 0;
    }
    const unsigned int uiMgr = m_poTaskMgr->getTaskMgrID();
    unsigned long ulTimerID = 0;
    if (ulInterval <= std::numeric_limits<unsigned int>::max()) // the timer service counts in 32 bits
    {
        ulTimerID = CZolTimer::instance()->setCycleInterval(static_cast<unsigned int>(ulInterval),
                                                            m_poTaskMgr->getTaskMgrID(), 0, m_usTaskID);
    }
    if (ulTimerID != 0)
    {
        zolFormatInfo("CZolTask::setTimer", "taskmgr %u task %u set timer %u(interval=%u) successful.", uiMgr,
                      m_usTaskID, static_cast<unsigned int>(ulTimerID), static_cast<unsigned int>(ulInterval));
        return ulTimerID;
    }
    zolFormatError("CZolTask::setTimer", "taskmgr %u task %u set timer(interval=%u) failed.", uiMgr, m_usTaskID,
                   static_cast<unsigned int>(ulInterval));
    return 0;
}

void CZolTask::cancelTimer(unsigned long ulTimerID)
{
    if (CZolTimer::instance()->cancelTimer(ulTimerID) != ZOL_OK)
    {
        zolFormatError("CZolTask::cancelTimer", "task %u cancel timer %d failed!", m_usTaskID,
                       static_cast<int>(ulTimerID));
        return;
    }
    zolFormatInfo("CZolTask::cancelTimer", "task %u cancel timer %d successful", m_usTaskID,
                  static_cast<int>(ulTimerID));
}

int CZolTask::registerSubscribe(unsigned int uiCmd)
{
    if (m_poTaskMgr == nullptr)
    {
        CZolDebugInfo("CZolTask::subscribe").error("Fail to register subscribe, the task is not initialized.");
        return ZOL_ERR_FAILED;
    }
    return CZolAppMgr::instance()->registerSubscribe(uiCmd, m_poTaskMgr->getTaskMgrID(), m_usTaskID);
}

int CZolTask::cancelSubscribe(unsigned int uiCmd)
{
    if (m_poTaskMgr == nullptr)
    {
        CZolDebugInfo("CZolTask::cancelSubscribe").error("Fail to cancel subscribe, the task is not initialized.");
        return ZOL_ERR_FAILED;
    }
    return CZolAppMgr::instance()->cancelSubscribe(uiCmd, m_poTaskMgr->getTaskMgrID(), m_usTaskID);
}

// ---- State ----------------------------------------------------------------------------------------------------------

/// Whoever ends a task decides, in one hold of m_oStatusMutex, who deletes it: the thread that runs it, whoever drives
/// it through a blocking call, or, for an assist task that nobody drives, the caller itself.
int CZolTask::setTaskStatus(EnumTaskState eState)
{
    CZolDebugInfo oDebug("CZolTask::setTaskStatus");
    if (m_poTaskMgr == nullptr)
    {
        oDebug.error("please add task to taskmgr.");
        return ZOL_ERR_FAILED;
    }
    if (eState != TASK_EXIT)
    {
        oDebug.warning("the status of task can only be set to exit!");
        return ZOL_ERR_FAILED;
    }
    if (m_eTaskType == TASK_STATIC)
    {
        oDebug.warning("static task cannot be set to exit!");
        return ZOL_ERR_FAILED;
    }
    CZolTaskMgr *poTaskMgr = m_poTaskMgr;
    bool bDelete = false;
    {
        ACE_Guard<ACE_Thread_Mutex> oGuard(m_oStatusMutex);
        const EnumTaskState eBefore = m_eTaskStatus.exchange(TASK_EXIT);
        if (eBefore == TASK_NONZOLWAIT)
        {
            endEventLoop(); // no message will do it any more
        }
        bDelete = m_eTaskType == TASK_ASSIST && !m_bDeleting && !m_bSynCall && !poTaskMgr->isRunByThread(this);
        m_bDeleting = m_bDeleting || bDelete;
    }
    if (bDelete)
    {
        poTaskMgr->delClaimedTask(this);
    }
    return ZOL_OK;
}

void CZolTask::exitTask()
{
    setTaskStatus(TASK_EXIT);
}

void CZolTask::endEventLoop()
{
    try
    {
        ACE_Reactor *poReactor = getReactor();
        if (poReactor != nullptr)
        {
            poReactor->end_reactor_event_loop();
        }
    }
    catch (abi::__forced_unwind &)
    {
        throw; // the thread is being cancelled
    }
    catch (...)
    {
        zolFormatFatal("CZolTask::getReactor", "taskmgr %u task %u has thrown in getReactor()",
                       m_poTaskMgr->getTaskMgrID(), m_usTaskID);
    }
}

void CZolTask::setStatusWithLog(EnumTaskState eState)
{
    if (m_poTaskMgr == nullptr)
    {
        CZolDebugInfo("CZolTask::setStatusWithLog").error("please add task to taskmgr.");
        return;
    }
    m_eTaskStatus.store(eState, std::memory_order_release);
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTask::setStatusWithLog", "taskmgr %u task %u become %s", m_poTaskMgr->getTaskMgrID(),
                      m_usTaskID, nameOf(eState));
    }
}

void CZolTask::restoreStatus(EnumTaskState eState, bool bWithLog)
{
    if (m_eTaskStatus.load(std::memory_order_relaxed) == TASK_EXIT)
    {
        return; // somebody has ended the task meanwhile
    }
    if (bWithLog)
    {
        setStatusWithLog(eState);
    }
    else
    {
        m_eTaskStatus.store(eState, std::memory_order_release);
    }
}
