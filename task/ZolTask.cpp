#include "ZolTask.h"

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTaskMgr.h"
#include "log/ZolHeldLines.h"
#include "message/ZolMonotonic.h"
#include "task/ZolTaskLog.h"
#include "task/ZolTaskMgrInside.h"

#include <ace/Guard_T.h>
#include <ace/Reactor.h>
#include <cxxabi.h>

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

// ---- The list of messages that wait for the task
// ----------------------------------------------------------------------

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
        const CZolHeldLines oLines; // of a getReactor() that is called
        ACE_Guard<ACE_Thread_Mutex> oGuard(m_oStatusMutex);
        const EnumTaskState eBefore = m_eTaskStatus.exchange(TASK_EXIT);
        if (eBefore == TASK_NONZOLWAIT)
        {
            endEventLoop(); // no message will do it any more
        }
        bDelete = m_eTaskType == TASK_ASSIST && !m_bDeleting && !m_bSynCall &&
                  !poTaskMgr->m_poInside->m_oThreads.isRun(*this);
        m_bDeleting = m_bDeleting || bDelete;
    }
    if (bDelete)
    {
        poTaskMgr->m_poInside->deleteClaimed(this);
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

CZolTask::SZolTaskBefore CZolTask::before() const
{
    return {m_eTaskStatus.load(std::memory_order_relaxed), m_uiBuffered.load(std::memory_order_relaxed)};
}

void CZolTask::resume(const SZolTaskBefore &oBefore, bool bWithLog)
{
    restoreStatus(oBefore.m_eState, bWithLog);
    if (oBefore.m_eState == TASK_NONZOLWAIT &&
        (m_eTaskStatus.load(std::memory_order_relaxed) == TASK_EXIT ||
         m_uiBuffered.load(std::memory_order_relaxed) > oBefore.m_uiBuffered ||
         CZolAppMgr::instance()->getStatus() == APPMGR_EXIT)) // else CZolTaskMgr::endEventLoops() finds the loop
    {
        endEventLoop();
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
