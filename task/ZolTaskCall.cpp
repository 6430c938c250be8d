// Blocking calls of a task.
//
// The task enters the wait list of its manager and becomes TASK_SYNWAIT before the request leaves, so a response that
// comes at once is delivered to it; nobody has to hold m_oStatusMutex while the request is sent, which may take long.
// CZolTaskMgr::enqueueMsg delivers under m_oStatusMutex and sets m_bDelivered, and that flag alone ends the wait early:
// it is set for responses that came past the queue, and it makes a spurious wake-up harmless.

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTask.h"
#include "ZolTaskMgr.h"
#include "config/ZolCounters.h"
#include "log/ZolHeldLines.h"
#include "message/ZolMonotonic.h"
#include "task/ZolPoll.h"
#include "task/ZolRoute.h"

#include <ace/Guard_T.h>
#include <ace/Thread.h>

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

    const SZolRoute oRoute = zolRoute(*poMsg);
    if (oRoute.m_eWay == WAY_NO_TASKMGR)
    {
        refuseLocal(poMsg, "CZolTask::sendSynMsg");
        return ZOL_ERR_NO_DEST;
    }
    if (oRoute.m_eWay == WAY_NO_PIPE)
    {
        poResponse = nullptr;
        zolCount(zolCounters().m_ulNoConnection);
        delete poMsg;
        return ZOL_ERR_INTERRUPTED;
    }

    const EnumTaskState eBefore = beginSynCall();
    const int iResult = oRoute.send(poMsg);
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
    const CZolHeldLines oLines;
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
        const CZolHeldLines oLines;
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
            const CZolHeldLines oLines; // of a getReactor() that is called
            ACE_Guard<ACE_Thread_Mutex> oGuard(m_oTask.m_oStatusMutex);
            if (m_oTask.getTaskStatus() == TASK_EXIT)
            {
                m_eAfter = TASK_EXIT;
            }
            m_oTask.m_eTaskStatus.store(TASK_NONZOLWAIT, std::memory_order_release);
            if (CZolAppMgr::instance()->getStatus() == APPMGR_EXIT)
            {
                m_oTask.endEventLoop(); // the end of the process may have passed already
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
