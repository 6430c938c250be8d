// Blocking calls of a task.
//
// The task enters the wait list of its manager and becomes TASK_SYNWAIT before the request leaves, so a response that
// comes at once is delivered to it; nobody has to hold m_oStatusMutex while the request is sent, which may take long.
// CZolTaskMgr::enqueueMsg delivers under m_oStatusMutex and sets m_bDelivered, and that flag alone ends the wait early:
// it is set for responses that came past the queue, and it makes a spurious wake-up harmless.
//
// A task may call from inside its own event loop, and its state hides that loop for so long. Whatever would have ended
// the loop meanwhile (the end of the task or of the process, a message for the task) ends it when the call returns.

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

    const SZolTaskBefore oBefore = beginSynCall();
    const int iResult = oRoute.send(poMsg);
    if (iResult == ZOL_OK)
    {
        awaitDelivery(iSeconds);
    }
    else
    {
        delete poMsg;
    }
    poResponse = nullptr;
    const int iTaken = endSynCall(oBefore, iResult == ZOL_OK ? &poResponse : nullptr);
    return iResult == ZOL_OK ? iTaken : iResult;
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

CZolTask::SZolTaskBefore CZolTask::beginSynCall()
{
    m_poTaskMgr->addTaskToSynWaitList(this);
    const CZolHeldLines oLines;
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oStatusMutex);
    const SZolTaskBefore oBefore = before();
    m_bSynCall = true;
    m_bDelivered.store(false, std::memory_order_relaxed);
    setStatusWithLog(TASK_SYNWAIT);
    return oBefore;
}

void CZolTask::awaitDelivery(int iSeconds)
{
    static thread_local CZolPoll s_oPoll;
    const ACE_Time_Value oDeadline = zolMonotonicNow() + ACE_Time_Value(iSeconds < 1 ? 1 : iSeconds);
    s_oPoll.lookFor([this] { return m_bDelivered.load(std::memory_order_acquire); });
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oStatusMutex);
    while (!m_bDelivered.load(std::memory_order_relaxed))
    {
        if (zolWaitUntil(m_oSynCondition, oDeadline) == -1)
        {
            return; // the time is over; a response that has come another way may still stand on the list
        }
    }
}

/// Leaves the call, with the response if one is asked for: until then it is the call's, and no message for the loop.
int CZolTask::endSynCall(SZolTaskBefore oBefore, CZolMsgPdu **ppoResponse)
{
    int iResult = ZOL_OK;
    {
        const CZolHeldLines oLines;
        ACE_Guard<ACE_Thread_Mutex> oGuard(m_oStatusMutex);
        if (ppoResponse != nullptr)
        {
            iResult = takeResponse(*ppoResponse, oBefore.m_uiBuffered);
        }
        m_bSynCall = false;
        resume(oBefore, true);
    }
    m_poTaskMgr->removeTaskFromSynWaitList(this);
    return iResult;
}

/// Takes the first response off the list, from wherever it stands; the messages around it keep their order. uiOlder is
/// how many of them stood there before the call, and is kept right.
int CZolTask::takeResponse(CZolMsgPdu *&poResponse, unsigned int &uiOlder)
{
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
        uiOlder -= m_poMsgList->m_ulCount + 1 - ulLeft < uiOlder ? 1 : 0;
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
            m_oBefore = m_oTask.before();
            m_oTask.m_eTaskStatus.store(TASK_NONZOLWAIT, std::memory_order_release);
            if (m_oBefore.m_eState == TASK_EXIT || CZolAppMgr::instance()->getStatus() == APPMGR_EXIT)
            {
                m_oTask.endEventLoop(); // whoever ended the task or the process has found no loop to end
            }
        }
        ~CLeave()
        {
            ACE_Guard<ACE_Thread_Mutex> oGuard(m_oTask.m_oStatusMutex);
            m_oTask.resume(m_oBefore, false);
        }
        CZolTask &m_oTask;
        SZolTaskBefore m_oBefore;
    };
    const CLeave oLeave(*this);
    eventLoop();
    return ZOL_OK;
}
