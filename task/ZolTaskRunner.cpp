#include "task/ZolTaskRunner.h"

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTaskMgr.h"
#include "config/ZolCounters.h"
#include "task/ZolTaskLog.h"
#include "task/ZolTaskThreads.h"
#include "task/ZolThreadSelf.h"

#include <ace/Guard_T.h>
#include <cstring>
#include <cxxabi.h>
#include <exception>

namespace
{

/// Marks the time that a handler runs in the thread's record, for the watchdog: odd while it runs.
class CZolRunMark
{
public:
    CZolRunMark(unsigned short usTaskID, std::uint32_t ulCmdID) : m_poRecord(zolThreadSelf().m_poRecord)
    {
        if (m_poRecord != nullptr)
        {
            m_poRecord->m_usRunTask.store(usTaskID, std::memory_order_relaxed);
            m_poRecord->m_ulRunCmd.store(ulCmdID, std::memory_order_relaxed);
            step();
        }
    }
    ~CZolRunMark()
    {
        if (m_poRecord != nullptr)
        {
            step();
        }
    }
    CZolRunMark(const CZolRunMark &) = delete;
    CZolRunMark &operator=(const CZolRunMark &) = delete;

private:
    void step()
    {
        // only this thread writes
        m_poRecord->m_uiRun.store(m_poRecord->m_uiRun.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

    SZolThreadRecord *m_poRecord;
};

} // namespace

// ---- What becomes of a message --------------------------------------------------------------------------------------

CZolTaskRunner::EnumDispatch CZolTaskRunner::decide(CZolMsgPdu *poMsg, CZolTask &oTask, unsigned long ulThreadID)
{
    PduHolder oHolder(poMsg);
    ACE_Guard<ACE_Thread_Mutex> oGuard(oTask.m_oStatusMutex);
    switch (oTask.m_eTaskStatus.load(std::memory_order_relaxed))
    {
    case TASK_IDLE:
        return start(oHolder, oTask, ulThreadID);
    case TASK_EXEC:
    case TASK_SYNWAIT:
        oTask.buffer(oHolder.release());
        return DISPATCH_NONE;
    case TASK_EXIT:
        if (poMsg->m_ucMsgType != CZolMsgPdu::MSG_TASK_EXIT)
        {
            zolCount(zolCounters().m_ulNoTask);
            return DISPATCH_NONE;
        }
        if (oTask.m_bDeleting || oTask.m_bSynCall || m_oThreads.isRun(oTask))
        {
            return DISPATCH_NONE; // whoever has it deletes it
        }
        oTask.m_bDeleting = true;
        return DISPATCH_DELETE;
    case TASK_NONZOLWAIT:
        oTask.buffer(oHolder.release());
        oTask.endEventLoop();
        return DISPATCH_NONE;
    }
    zolCount(zolCounters().m_ulNoTask);
    zolFormatError("CZolTaskMgr::existTaskMsg",
                   "invalid task status when process message, src: %u,%u,%u,%u, dst:%u,%u, cmd: %d",
                   poMsg->m_usSrcProcID, poMsg->m_usSrcProcHandle, poMsg->m_ucSrcModule, poMsg->m_usSrcSubModuleId,
                   poMsg->m_ucDestModule, poMsg->m_usDestSubModuleId, poMsg->m_ulCmdID);
    return DISPATCH_NONE;
}

/// The caller holds the task's m_oStatusMutex, and the task is idle.
CZolTaskRunner::EnumDispatch CZolTaskRunner::start(PduHolder &oHolder, CZolTask &oTask, unsigned long ulThreadID)
{
    const CZolMsgPdu &oMsg = *oHolder;
    EnumDispatch eDispatch = DISPATCH_NONE;
    CZolMsgPdu *poKept = nullptr; // the task's, or, for DISPATCH_FIRST, the caller's
    switch (oMsg.m_ucMsgType)
    {
    case CZolMsgPdu::MSG_REQUEST:
    case CZolMsgPdu::MSG_RESPONSE:
    case CZolMsgPdu::MSG_TIMER:
        // the list only grows under m_oStatusMutex: when it is empty, this message is the next one and needs no list
        eDispatch = oTask.m_uiBuffered.load(std::memory_order_relaxed) == 0 ? DISPATCH_FIRST : DISPATCH_RUN;
        poKept = oHolder.release();
        if (eDispatch == DISPATCH_RUN)
        {
            oTask.buffer(poKept);
        }
        oTask.m_eTaskStatus.store(TASK_EXEC, std::memory_order_release);
        m_oThreads.setTask(ulThreadID, &oTask);
        if (CZolRunLog::isReady())
        {
            zolFormatInfo("CZolTaskMgr::existTaskMsg", "taskmgr %u task %u become TASK_EXEC", m_ucTaskMgrID,
                          oTask.getTaskID());
        }
        return eDispatch;
    default:
        zolCount(zolCounters().m_ulInvalidType);
        zolFormatError("CZolTaskMgr::existTaskMsg",
                       "invalid message type, src: %u,%u,%u,%u, dst:%u,%u, type: %d, cmd: %d", oMsg.m_usSrcProcID,
                       oMsg.m_usSrcProcHandle, oMsg.m_ucSrcModule, oMsg.m_usSrcSubModuleId, oMsg.m_ucDestModule,
                       oMsg.m_usDestSubModuleId, oMsg.m_ucMsgType, oMsg.m_ulCmdID);
        return DISPATCH_NONE;
    }
}

// ---- A new task -----------------------------------------------------------------------------------------------------

CZolTask *CZolTaskRunner::create(CZolTaskMgr &oTaskMgr, CZolMsgPdu *poMsg) const
{
    try
    {
        CZolTask *poTask = oTaskMgr.createTask(poMsg);
        if (poTask == nullptr)
        {
            zolFormatError("CZolTaskMgr::unknownTaskMsg",
                           "createTask() return NULL when process message, src: %u,%u,%u,%u, dst:%u,%u, cmd:%u",
                           poMsg->m_usSrcProcID, poMsg->m_usSrcProcHandle, poMsg->m_ucSrcModule,
                           poMsg->m_usSrcSubModuleId, poMsg->m_ucDestModule, poMsg->m_usDestSubModuleId,
                           poMsg->m_ulCmdID);
        }
        return poTask;
    }
    catch (abi::__forced_unwind &)
    {
        throw; // the thread is being cancelled
    }
    catch (const std::exception &oThrown)
    {
        logThrown(0, poMsg->m_ulCmdID, oThrown.what());
    }
    catch (...)
    {
        logThrown(0, poMsg->m_ulCmdID, "not a std::exception");
    }
    return nullptr;
}

void CZolTaskRunner::begin(CZolTask &oTask, const CZolMsgPdu &oMsg) const
{
    serveRequest(oTask, oMsg, &CZolTask::reqMsgProcess, "CZolTaskMgr::unknownTaskMsg");
}

// ---- Messages, one after the other ----------------------------------------------------------------------------------

EnumTaskState CZolTaskRunner::serveFirst(CZolTask &oTask, CZolMsgPdu *poMsg) const
{
    PduHolder oFirst(poMsg);
    if (CZolAppMgr::instance()->getStatus() != APPMGR_RUNNING)
    {
        ACE_Guard<ACE_Thread_Mutex> oGuard(oTask.m_oStatusMutex);
        oTask.buffer(oFirst.release()); // stays there with all that is not served any more
    }
    else if (oTask.getTaskStatus() != TASK_EXIT)
    {
        serve(oTask, oFirst.release());
    }
    else
    {
        zolCount(zolCounters().m_ulTaskEnded); // somebody else has ended the task since the message was its next
    }
    return oTask.getTaskStatus();
}

void CZolTaskRunner::drain(CZolTask &oTask, unsigned long ulThreadID, EnumTaskState &eState) const
{
    while (CZolMsgPdu *poMsg = nextMsgOf(oTask, ulThreadID, eState))
    {
        serve(oTask, poMsg);
        if (oTask.getTaskStatus() == TASK_EXIT)
        {
            eState = TASK_EXIT;
            return;
        }
    }
}

/// Calls a handler. What it throws ends here: one fatal line, and a task that can end ends.
template <typename Handler>
void CZolTaskRunner::callHandler(CZolTask &oTask, std::uint32_t ulCmdID, Handler fnHandler) const
{
    try
    {
        const CZolRunMark oMark(oTask.getTaskID(), ulCmdID);
        fnHandler();
        return;
    }
    catch (abi::__forced_unwind &)
    {
        throw; // the thread is being cancelled
    }
    catch (const std::exception &oThrown)
    {
        logThrown(oTask.getTaskID(), ulCmdID, oThrown.what());
    }
    catch (...)
    {
        logThrown(oTask.getTaskID(), ulCmdID, "not a std::exception");
    }
    if (oTask.getTaskType() != TASK_STATIC)
    {
        oTask.exitTask(); // this thread runs it, and deletes it next
    }
}

void CZolTaskRunner::logThrown(unsigned short usTaskID, std::uint32_t ulCmdID, const char *pcWhat) const
{
    zolFormatFatal("CZolTaskMgr::callHandler", "taskmgr %u task %u has thrown, cmd:%u, what: %s", m_ucTaskMgrID,
                   usTaskID, ulCmdID, pcWhat);
}

/// The next message of the list; or null, and the run has ended: the task is idle then and may be started by another
/// thread at once, or it is in TASK_EXIT and this thread's to delete. That is decided under m_oStatusMutex, as in
/// decide(): either this thread sees a message on the list, or the dispatcher sees an idle task.
CZolMsgPdu *CZolTaskRunner::nextMsgOf(CZolTask &oTask, unsigned long ulThreadID, EnumTaskState &eState) const
{
    const unsigned short usTaskID = oTask.getTaskID();
    bool bDone = false;
    {
        ACE_Guard<ACE_Thread_Mutex> oStatusGuard(oTask.m_oStatusMutex);
        bDone = oTask.m_uiBuffered.load(std::memory_order_relaxed) == 0;
        if (!bDone && CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING)
        {
            if (CZolMsgPdu *poMsg = oTask.popMsg())
            {
                return poMsg;
            }
            bDone = true; // somebody has taken the last one with popFrontZolMsg()
        }
        oTask.restoreStatus(TASK_IDLE, false);
        eState = oTask.m_eTaskStatus.load(std::memory_order_relaxed);
        if (eState != TASK_EXIT) // else this thread keeps it, until it deletes it
        {
            m_oThreads.setTask(ulThreadID, nullptr);
        }
    }
    if (bDone && eState == TASK_IDLE && CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::processTaskMsg", "taskmgr %u task %u become TASK_IDLE", m_ucTaskMgrID, usTaskID);
    }
    return nullptr;
}

void CZolTaskRunner::serve(CZolTask &oTask, CZolMsgPdu *poMsg) const
{
    PduHolder oHolder(poMsg);
    switch (poMsg->m_ucMsgType)
    {
    case CZolMsgPdu::MSG_REQUEST:
    case CZolMsgPdu::MSG_RESPONSE:
        serveRequest(oTask, *poMsg, &CZolTask::respMsgProcess, "CZolTaskMgr::processTaskMsg");
        break;
    case CZolMsgPdu::MSG_TIMER:
        serveTimer(oTask, oHolder);
        break;
    default:
        zolCount(zolCounters().m_ulInvalidType);
        break;
    }
}

/// Calls a handler of the task with the message; pcScope names the lines about it.
void CZolTaskRunner::serveRequest(CZolTask &oTask, const CZolMsgPdu &oMsg, MsgHandler pfnHandler,
                                  const char *pcScope) const
{
    const ACE_UINT32 ulCmdID = oMsg.m_ulCmdID;
    if (CZolRunLog::isReady())
    {
        zolFormatInfo(pcScope, "taskmgr %u task %u process msg begin, cmd:%d", m_ucTaskMgrID, oTask.getTaskID(),
                      ulCmdID);
    }
    callHandler(oTask, ulCmdID, [&] { (oTask.*pfnHandler)(&oMsg); });
    if (CZolRunLog::isReady())
    {
        zolFormatInfo(pcScope, "taskmgr %u task %u process msg end, cmd:%d", m_ucTaskMgrID, oTask.getTaskID(), ulCmdID);
    }
}

void CZolTaskRunner::serveTimer(CZolTask &oTask, PduHolder &oHolder) const
{
    const CZolMsgPdu &oMsg = *oHolder;
    ACE_UINT32 ulTimerID = 0;
    if (oMsg.m_ulDataLength < sizeof ulTimerID)
    {
        zolCount(zolCounters().m_ulInvalidType);
        return;
    }
    memcpy(&ulTimerID, zolPayload(&oMsg), sizeof ulTimerID);
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::processTaskMsg", "taskmgr %u task %u process timer %u begin", m_ucTaskMgrID,
                      oTask.getTaskID(), ulTimerID);
    }
    callHandler(oTask, oMsg.m_ulCmdID, [&] { oTask.timerCallBack(ulTimerID); });
    oHolder.reset();
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::processTaskMsg", "taskmgr %u task %u process timer %u end", m_ucTaskMgrID,
                      oTask.getTaskID(), ulTimerID);
    }
}
