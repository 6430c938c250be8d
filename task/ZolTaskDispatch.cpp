// From the queue of a task manager to the handlers of its tasks.
//
// Under the dispatch mutex the step from the head of the queue to the list of a task is one step, so two threads never
// reorder two messages of a task. Handlers run outside of it, with no lock held. A thread that is told to run a task
// owns that run until it has set the state back: nobody else runs or deletes the task meanwhile.

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTaskMgr.h"
#include "config/ZolCounters.h"
#include "log/ZolHeldLines.h"
#include "task/ZolTaskLog.h"

#include <ace/Guard_T.h>
#include <ace/Mutex.h>
#include <cxxabi.h>
#include <exception>
#include <memory>

namespace
{

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

/// One turn of svc(). False when the process is ending.
bool CZolTaskMgr::serveOneMsg(unsigned long ulThreadID)
{
    CZolTask *poTask = nullptr;
    int iDispatch = DISPATCH_NONE;
    bool bNewTask = false;
    CZolMsgPdu *poMsg = nullptr;
    {
        const CZolHeldLines oLines; // of the dispatcher, and of a getReactor() that it calls
        CDispatchGuard oGuard(*m_poDispatchMutex, m_iThreadNum);
        CZolMemBlock *poBlock = nullptr;
        getq(poBlock);
        if (CZolAppMgr::instance()->getStatus() == APPMGR_EXIT)
        {
            oGuard.release();
            putq(poBlock, true); // for the next thread, which leaves in the same way
            return false;
        }
        poMsg = zolPduOf(poBlock);
        bNewTask = poMsg->m_usDestSubModuleId == 0;
        if (!bNewTask)
        {
            iDispatch = existTaskMsg(poMsg, poTask, ulThreadID);
        }
    }
    if (bNewTask)
    {
        iDispatch = unknownTaskMsg(poMsg, poTask, ulThreadID);
    }
    switch (iDispatch)
    {
    case DISPATCH_RUN:
        runTask(poTask, ulThreadID, nullptr);
        break;
    case DISPATCH_FIRST:
        runTask(poTask, ulThreadID, poMsg);
        break;
    case DISPATCH_DELETE:
        delTask(poTask, ulThreadID);
        break;
    default:
        break;
    }
    return true;
}

// ---- Messages that name a task --------------------------------------------------------------------------------------

int CZolTaskMgr::existTaskMsg(CZolMsgPdu *poMsg, CZolTask *&poTask, unsigned long ulThreadID)
{
    if (poMsg == nullptr)
    {
        CZolDebugInfo("CZolTaskMgr::existTaskMsg").error("invalid parameter, null pointer!");
        return DISPATCH_NONE;
    }
    ACE_Read_Guard<ACE_RW_Thread_Mutex> oGuard(m_oTaskLock);
    poTask = m_oTaskTable.find(poMsg->m_usDestSubModuleId);
    if (poTask != nullptr)
    {
        return decideTaskMsg(poMsg, *poTask, ulThreadID);
    }
    const bool bResponse = poMsg->m_ucMsgType == CZolMsgPdu::MSG_RESPONSE;
    zolCount(bResponse ? zolCounters().m_ulLateResponses : zolCounters().m_ulNoTask);
    zolFormatError("CZolTaskMgr::existTaskMsg",
                   "task id not found when process message, src: %u,%u,%u,%u, dst:%u,%u, cmd:%u", poMsg->m_usSrcProcID,
                   poMsg->m_usSrcProcHandle, poMsg->m_ucSrcModule, poMsg->m_usSrcSubModuleId, poMsg->m_ucDestModule,
                   poMsg->m_usDestSubModuleId, poMsg->m_ulCmdID);
    delete poMsg;
    return DISPATCH_NONE;
}

/// The fate of a message by the state of its task. The caller holds m_oTaskLock, so the task stays.
int CZolTaskMgr::decideTaskMsg(CZolMsgPdu *poMsg, CZolTask &oTask, unsigned long ulThreadID)
{
    PduHolder oHolder(poMsg);
    ACE_Guard<ACE_Thread_Mutex> oGuard(oTask.m_oStatusMutex);
    switch (oTask.m_eTaskStatus.load(std::memory_order_relaxed))
    {
    case TASK_IDLE:
        return startTask(oHolder, oTask, ulThreadID);
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
        if (oTask.m_bDeleting || oTask.m_bSynCall || isRunByThread(&oTask))
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
int CZolTaskMgr::startTask(PduHolder &oHolder, CZolTask &oTask, unsigned long ulThreadID)
{
    const CZolMsgPdu &oMsg = *oHolder;
    int iDispatch = DISPATCH_NONE;
    CZolMsgPdu *poKept = nullptr; // the task's, or, for DISPATCH_FIRST, the caller's
    switch (oMsg.m_ucMsgType)
    {
    case CZolMsgPdu::MSG_REQUEST:
    case CZolMsgPdu::MSG_RESPONSE:
    case CZolMsgPdu::MSG_TIMER:
        // the list only grows under m_oStatusMutex: when it is empty, this message is the next one and needs no list
        iDispatch = oTask.m_uiBuffered.load(std::memory_order_relaxed) == 0 ? DISPATCH_FIRST : DISPATCH_RUN;
        poKept = oHolder.release();
        if (iDispatch == DISPATCH_RUN)
        {
            oTask.buffer(poKept);
        }
        oTask.m_eTaskStatus.store(TASK_EXEC, std::memory_order_release);
        setTaskOfThread(ulThreadID, &oTask);
        if (CZolRunLog::isReady())
        {
            zolFormatInfo("CZolTaskMgr::existTaskMsg", "taskmgr %u task %u become TASK_EXEC", m_ucTaskMgrID,
                          oTask.getTaskID());
        }
        return iDispatch;
    default:
        zolCount(zolCounters().m_ulInvalidType);
        zolFormatError("CZolTaskMgr::existTaskMsg",
                       "invalid message type, src: %u,%u,%u,%u, dst:%u,%u, type: %d, cmd: %d", oMsg.m_usSrcProcID,
                       oMsg.m_usSrcProcHandle, oMsg.m_ucSrcModule, oMsg.m_usSrcSubModuleId, oMsg.m_ucDestModule,
                       oMsg.m_usDestSubModuleId, oMsg.m_ucMsgType, oMsg.m_ulCmdID);
        return DISPATCH_NONE;
    }
}

// ---- Messages that create a task ------------------------------------------------------------------------------------

int CZolTaskMgr::unknownTaskMsg(CZolMsgPdu *poMsg, CZolTask *&poTask, unsigned long ulThreadID)
{
    poTask = nullptr;
    if (poMsg == nullptr)
    {
        CZolDebugInfo("CZolTaskMgr::unknownTaskMsg").error("invalid parameter, null pointer!");
        return DISPATCH_NONE;
    }
    const PduHolder oHolder(poMsg);
    CZolTask *poNew = callCreateTask(poMsg);
    if (poNew == nullptr)
    {
        zolCount(zolCounters().m_ulNoTask);
        return DISPATCH_NONE;
    }
    setTaskOfThread(ulThreadID, poNew); // before anybody can find the task, and take it for one that nobody runs
    const unsigned short usTaskID = addTask(poNew, 0, TASK_DYNAMIC, TASK_EXEC);
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
        return DISPATCH_NONE;
    }
    poTask = poNew;
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::unknownTaskMsg", "taskmgr %u create task %u, task %u become TASK_EXEC",
                      m_ucTaskMgrID, usTaskID, usTaskID);
    }
    processRequest(*poTask, *poMsg, &CZolTask::reqMsgProcess, "CZolTaskMgr::unknownTaskMsg");
    return DISPATCH_RUN;
}

/// createTask(), or null with a line.
CZolTask *CZolTaskMgr::callCreateTask(CZolMsgPdu *poMsg)
{
    try
    {
        CZolTask *poTask = createTask(poMsg);
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
