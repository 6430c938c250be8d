// Running a task: its messages, one after the other, and the calls of its handlers.

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTaskMgr.h"
#include "config/ZolCounters.h"
#include "task/ZolTaskLog.h"
#include "task/ZolThreadSelf.h"

#include <ace/Guard_T.h>
#include <cstring>
#include <cxxabi.h>
#include <exception>

namespace
{

/// Marks the time that a handler runs in the thread's entry, for the watchdog: odd while it runs.
class CZolRunMark
{
public:
    CZolRunMark(unsigned short usTaskID, std::uint32_t ulCmdID) : m_poEntry(zolThreadSelf().m_poEntry)
    {
        if (m_poEntry != nullptr)
        {
            m_poEntry->m_usRunTask.store(usTaskID, std::memory_order_relaxed);
            m_poEntry->m_ulRunCmd.store(ulCmdID, std::memory_order_relaxed);
            step();
        }
    }
    ~CZolRunMark()
    {
        if (m_poEntry != nullptr)
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
        m_poEntry->m_uiRun.store(m_poEntry->m_uiRun.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

    SZolThreadEntry *m_poEntry;
};

} // namespace

/// Calls a handler. What it throws ends here: one fatal line, and a task that can end ends.
template <typename Handler>
void CZolTaskMgr::callHandler(CZolTask &oTask, std::uint32_t ulCmdID, Handler fnHandler)
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

void CZolTaskMgr::logThrown(unsigned short usTaskID, std::uint32_t ulCmdID, const char *pcWhat) const
{
    zolFormatFatal("CZolTaskMgr::callHandler", "taskmgr %u task %u has thrown, cmd:%u, what: %s", m_ucTaskMgrID,
                   usTaskID, ulCmdID, pcWhat);
}

/// poFirst, if there is one, goes ahead of the task's list.
void CZolTaskMgr::runTask(CZolTask *poTask, unsigned long ulThreadID, CZolMsgPdu *poFirst)
{
    PduHolder oFirst(poFirst);
    if (oFirst && CZolAppMgr::instance()->getStatus() != APPMGR_RUNNING)
    {
        ACE_Guard<ACE_Thread_Mutex> oGuard(poTask->m_oStatusMutex);
        poTask->buffer(oFirst.release()); // stays there with all that is not served any more
    }
    EnumTaskState eState = poTask->getTaskStatus();
    if (oFirst && eState != TASK_EXIT)
    {
        processOneMsg(*poTask, oFirst.release());
        eState = poTask->getTaskStatus();
    }
    if (eState != TASK_EXIT)
    {
        processTaskMsg(poTask, ulThreadID, eState);
    }
    if (eState == TASK_EXIT)
    {
        delTask(poTask, ulThreadID);
    }
}

int CZolTaskMgr::processTaskMsg(CZolTask *poTask, unsigned long ulThreadID, EnumTaskState &eState)
{
    while (CZolMsgPdu *poMsg = nextMsgOf(*poTask, ulThreadID, eState))
    {
        processOneMsg(*poTask, poMsg);
        if (poTask->getTaskStatus() == TASK_EXIT)
        {
            eState = TASK_EXIT; // what is left on the list goes with the task
            return 0;
        }
    }
    return 0;
}

/// The next message of the list; or null, and the run has ended: the task is idle then and may be started by another
/// thread at once, or it is in TASK_EXIT and this thread's to delete. That is decided under m_oStatusMutex, as in
/// decideTaskMsg(): either this thread sees a message on the list, or the dispatcher sees an idle task.
CZolMsgPdu *CZolTaskMgr::nextMsgOf(CZolTask &oTask, unsigned long ulThreadID, EnumTaskState &eState)
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
            setTaskOfThread(ulThreadID, nullptr);
        }
    }
    if (bDone && eState == TASK_IDLE && CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::processTaskMsg", "taskmgr %u task %u become TASK_IDLE", m_ucTaskMgrID, usTaskID);
    }
    return nullptr;
}

void CZolTaskMgr::processOneMsg(CZolTask &oTask, CZolMsgPdu *poMsg)
{
    PduHolder oHolder(poMsg);
    switch (poMsg->m_ucMsgType)
    {
    case CZolMsgPdu::MSG_REQUEST:
    case CZolMsgPdu::MSG_RESPONSE:
        processRequest(oTask, *poMsg, &CZolTask::respMsgProcess, "CZolTaskMgr::processTaskMsg");
        break;
    case CZolMsgPdu::MSG_TIMER:
        processTimer(oTask, oHolder);
        break;
    default:
        zolCount(zolCounters().m_ulInvalidType);
        break;
    }
}

/// Calls a handler of the task with the message; pcScope names the lines about it.
void CZolTaskMgr::processRequest(CZolTask &oTask, const CZolMsgPdu &oMsg, MsgHandler pfnHandler, const char *pcScope)
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

void CZolTaskMgr::processTimer(CZolTask &oTask, PduHolder &oHolder)
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
