// The sending half of the application manager: asynchronous and synchronous sends.

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTaskMgr.h"
#include "config/ZolCounters.h"
#include "message/ZolMonotonic.h"
#include "task/ZolInlineTask.h"
#include "task/ZolRoute.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolSendMsgTask.h"

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>
#include <ace/Thread.h>
#include <cstdio>
#include <new>

namespace
{

// Where a response of the initial stage is addressed to, as no task exists then.
constexpr unsigned char INITIAL_MODULE = 255;
constexpr unsigned short INITIAL_TASK = 65535;

/// Ends the loop of a reactor at a moment. A timer of the reactor itself, since a wait that a signal interrupts begins
/// anew with its whole time, and only timers are looked at again.
class CLoopEnd : public ACE_Event_Handler
{
public:
    CLoopEnd(ACE_Reactor &oReactor, const ACE_Time_Value &oDelay) : ACE_Event_Handler(&oReactor)
    {
        if (oDelay > ACE_Time_Value::zero)
        {
            m_lTimer = oReactor.schedule_timer(this, nullptr, oDelay);
        }
    }
    ~CLoopEnd() override
    {
        if (m_lTimer != -1)
        {
            reactor()->cancel_timer(m_lTimer);
        }
    }
    CLoopEnd(const CLoopEnd &) = delete;
    CLoopEnd &operator=(const CLoopEnd &) = delete;

    int handle_timeout(const ACE_Time_Value & /*oNow*/, const void * /*pvArg*/) override
    {
        reactor()->end_reactor_event_loop();
        return 0;
    }

private:
    long m_lTimer = -1;
};

} // namespace

// ---- Asynchronous ---------------------------------------------------------------------------------------------------

int CZolAppMgr::sendLocalAsynMsg(CZolMsgPdu *&poMsg, unsigned char ucTaskMgrID)
{
    CZolMsgPdu *poTaken = poMsg;
    poMsg = nullptr;
    switch (getStatus())
    {
    case APPMGR_RUNNING:
        break;
    case APPMGR_UNINITIALIZED:
        delete poTaken;
        std::printf("CZolAppMgr not initialized!");
        return ZOL_ERR_STAGE;
    case APPMGR_INITIAL:
        delete poTaken;
        CZolDebugInfo("CZolAppMgr::sendLocalAsynMsg").error("cannot call sendLocalAsynMsg() at initial stage!");
        return ZOL_ERR_STAGE;
    default:
        delete poTaken;
        std::printf("cannot send message at exit stage!");
        return ZOL_ERR_FAILED;
    }
    if (poTaken == nullptr)
    {
        CZolDebugInfo("CZolAppMgr::sendLocalAsynMsg").error("invalid parameter, null pointer!");
        return ZOL_ERR_FAILED;
    }
    CZolTaskMgr *poTaskMgr = findTaskMgr(ucTaskMgrID);
    if (poTaskMgr == nullptr)
    {
        CZolDebugInfo("CZolAppMgr::sendLocalAsynMsg").error("cannot find destination");
        zolCount(zolCounters().m_ulNoManager);
        delete poTaken;
        return ZOL_ERR_NO_DEST;
    }
    const int iResult = poTaskMgr->enqueueMsg(zolBlockOf(poTaken), true);
    if (iResult != ZOL_OK)
    {
        delete poTaken;
    }
    return iResult;
}

int CZolAppMgr::sendAsynMsg(CZolMsgPdu *&poMsg)
{
    CZolDebugInfo oDebug("CZolAppMgr::sendAsynMsg");
    CZolMsgPdu *poTaken = poMsg;
    poMsg = nullptr;
    const EnumAppMgrStatus eStatus = getStatus();
    if (eStatus == APPMGR_UNINITIALIZED)
    {
        std::printf("CZolAppMgr not initialized!\n");
        delete poTaken;
        return ZOL_ERR_STAGE;
    }
    if (eStatus == APPMGR_EXIT)
    {
        std::printf("cannot send message at exit stage!\n");
        delete poTaken;
        return ZOL_ERR_FAILED;
    }
    if (poTaken == nullptr)
    {
        oDebug.error("invalid parameter, null pointer!");
        return ZOL_ERR_FAILED;
    }
    const SZolRoute oRoute = zolRoute(*poTaken);
    const unsigned char ucTaskMgrID = poTaken->m_ucDestModule;
    switch (oRoute.m_eWay)
    {
    case WAY_LOCAL:
    case WAY_NO_TASKMGR:
        return sendLocalAsynMsg(poTaken, ucTaskMgrID); // which has refusals of its own
    case WAY_PIPE:
        return oRoute.send(poTaken);
    case WAY_NO_PIPE:
        break;
    }
    oDebug.error("the connection to vEK is interrupted !");
    zolCount(zolCounters().m_ulNoConnection);
    delete poTaken;
    return ZOL_ERR_INTERRUPTED;
}

// ---- Synchronous ----------------------------------------------------------------------------------------------------

int CZolAppMgr::sendSynMsg(CZolMsgPdu *&poRequest, CZolMsgPdu *&poResponse, int iSeconds)
{
    CZolMsgPdu *poTaken = poRequest;
    poRequest = nullptr;
    if (poTaken == nullptr)
    {
        CZolDebugInfo("CZolAppMgr::sendSynMsg").error("invalid parameter, null pointer!");
        return ZOL_ERR_FAILED;
    }
    int iResult = ZOL_ERR_FAILED;
    switch (getStatus())
    {
    case APPMGR_RUNNING:
        return sendSynMsgByAssistTask(poTaken, poResponse, iSeconds);
    case APPMGR_INITIAL:
        return sendSynMsgAtInitialStage(poTaken, poResponse, iSeconds);
    case APPMGR_UNINITIALIZED:
        std::printf("CZolAppMgr not initialized!\n");
        iResult = ZOL_ERR_STAGE;
        break;
    default:
        std::printf("cannot send message at exit stage!\n");
        break;
    }
    delete poTaken;
    poResponse = nullptr;
    return iResult;
}

/// Each call has a task of its own, driven by the calling thread alone, so that any number of threads can be in a call
/// and a task that calls from one of its handlers takes no part in it.
int CZolAppMgr::sendSynMsgByAssistTask(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse, int iSeconds)
{
    CZolDebugInfo oDebug("CZolAppMgr::sendSynMsg");
    CZolTaskMgr *poTaskMgr = findTaskMgr(CZolInlineTaskMgr::TASK_MGR_ID);
    if (poTaskMgr == nullptr)
    {
        oDebug.error("cannot find InlineTaskMgr!");
        delete poRequest;
        poResponse = nullptr;
        return ZOL_ERR_FAILED;
    }
    CZolTask *poTask = new (std::nothrow) CZolTask;
    if (poTaskMgr->addAssistTask(poTask, false) != ZOL_OK)
    {
        oDebug.error("add assist task to InlineTaskMgr failed!");
        delete poRequest;
        poResponse = nullptr;
        delete poTask;
        return ZOL_ERR_FAILED;
    }
    const int iResult = poTask->sendSynMsg(poRequest, poResponse, iSeconds);
    poTask->exitTask(); // deletes it
    return iResult;
}

/// No thread serves anything yet: the caller runs the reactor itself, and the receive path ends its loop when the
/// response is there.
int CZolAppMgr::sendSynMsgAtInitialStage(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse, int iSeconds)
{
    CZolDebugInfo oDebug("CZolAppMgr::sendSynMsg");
    poResponse = nullptr;
    if (!CZolConnMgr::instance()->isConnected(poRequest->m_usDestProcID, poRequest->m_usDestProcHandle))
    {
        oDebug.error("the connection to vEK is interrupted !");
        zolCount(zolCounters().m_ulNoConnection);
        delete poRequest;
        return ZOL_ERR_INTERRUPTED;
    }
    if (ACE_Thread::self() != m_ulInitThread.load(std::memory_order_relaxed))
    {
        oDebug.error("at initial stage, cannot call sendSynMsg() in multithread environment!");
        delete poRequest;
        return ZOL_ERR_FAILED;
    }
    poRequest->m_ucSrcModule = INITIAL_MODULE;
    poRequest->m_usSrcSubModuleId = INITIAL_TASK;
    if (CZolSendMsgTask::instance()->sendMsg(zolBlockOf(poRequest)) == ZOL_ERR_FAILED)
    {
        oDebug.error("send message failed!");
        delete poRequest;
        return ZOL_ERR_FAILED;
    }
    holdResponse(nullptr); // one that came too late for an earlier call goes
    if (!runReactorForResponse(iSeconds))
    {
        oDebug.error("run event loop failed!");
        return ZOL_ERR_FAILED;
    }
    if (m_poSynRespMsg == nullptr)
    {
        oDebug.warning("receive message timeout.");
        return ZOL_ERR_TIMEOUT;
    }
    poResponse = m_poSynRespMsg;
    m_poSynRespMsg = nullptr;
    return ZOL_OK;
}

/// Runs the reactor until the response is there or the time is over; false if it cannot be run. The loop may end early,
/// by a wake-up that is left from before: it goes on for the time that remains.
bool CZolAppMgr::runReactorForResponse(int iSeconds)
{
    const ACE_Time_Value oDeadline = zolMonotonicNow() + ACE_Time_Value(iSeconds);
    const CLoopEnd oLoopEnd(*m_poReactor, ACE_Time_Value(iSeconds));
    ACE_Time_Value oRemaining;
    do
    {
        oRemaining = oDeadline - zolMonotonicNow();
        if (oRemaining < ACE_Time_Value::zero)
        {
            oRemaining = ACE_Time_Value::zero;
        }
        m_poReactor->owner(ACE_Thread::self());
        m_poReactor->reset_reactor_event_loop();
        ACE_Time_Value oWait = oRemaining; // the call writes to its argument
        if (m_poReactor->run_reactor_event_loop(oWait) == -1)
        {
            return false;
        }
    } while (m_poSynRespMsg == nullptr && oRemaining > ACE_Time_Value::zero);
    return true;
}

void CZolAppMgr::enqueueMsg(CZolMsgPdu *poMsg)
{
    if (getStatus() == APPMGR_INITIAL)
    {
        holdResponse(poMsg);
    }
}

/// Of two responses at the initial stage the later one stays, and the other has no caller.
void CZolAppMgr::holdResponse(CZolMsgPdu *poMsg)
{
    if (m_poSynRespMsg != nullptr)
    {
        zolCount(zolCounters().m_ulLateResponses);
        delete m_poSynRespMsg;
    }
    m_poSynRespMsg = poMsg;
}
