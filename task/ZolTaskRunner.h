#ifndef ZOL_TASK_ZOLTASKRUNNER_H
#define ZOL_TASK_ZOLTASKRUNNER_H

#include "ZolMsgPdu.h"
#include "ZolTask.h"

#include <cstdint>
#include <memory>

class CZolTaskThreads;

/// Which thread runs a task, with which message, and the calls of its handlers.
///
/// A thread that is told to run a task owns that run until it has set the state back: nobody else runs or deletes the
/// task meanwhile. That is decided under the task's m_oStatusMutex on both sides: either the thread that runs the task
/// sees a message on the list, or the dispatcher sees an idle task.
///
/// Threads:   those of the manager; decide() under the lock that keeps the task in its table.
/// Locks:     none of its own; a task's m_oStatusMutex and m_oMsgListMutex for a few lines. Handlers run with none.
/// Ownership: a message that is passed belongs to the runner, but for DISPATCH_FIRST.
class CZolTaskRunner
{
public:
    enum EnumDispatch
    {
        DISPATCH_NONE = 0,  // the message has found its place, or its end
        DISPATCH_RUN = 1,   // the calling thread is to run the task, whose list holds the message
        DISPATCH_FIRST = 3, // the same, and the message, which stays the caller's, goes ahead of the list
        DISPATCH_DELETE = 2 // the calling thread is to delete the task, which nobody else touches any more
    };

    CZolTaskRunner(unsigned char ucTaskMgrID, CZolTaskThreads &oThreads)
        : m_ucTaskMgrID(ucTaskMgrID), m_oThreads(oThreads)
    {
    }
    CZolTaskRunner(const CZolTaskRunner &) = delete;
    CZolTaskRunner &operator=(const CZolTaskRunner &) = delete;

    /// The fate of a message by the state of its task. The caller keeps the task in its table.
    EnumDispatch decide(CZolMsgPdu *poMsg, CZolTask &oTask, unsigned long ulThreadID);

    /// createTask() of the manager, or null with a line.
    CZolTask *create(CZolTaskMgr &oTaskMgr, CZolMsgPdu *poMsg) const;

    /// Hands a new task the message that has created it.
    void begin(CZolTask &oTask, const CZolMsgPdu &oMsg) const;

    /// Serves the message of DISPATCH_FIRST; the state of the task afterwards.
    EnumTaskState serveFirst(CZolTask &oTask, CZolMsgPdu *poMsg) const;

    /// Serves the task's list until it is empty, and lets the task go; or until the task has ended, which eState says:
    /// then it is the calling thread's to delete. What is left on the list goes with it.
    void drain(CZolTask &oTask, unsigned long ulThreadID, EnumTaskState &eState) const;

private:
    using MsgHandler = void (CZolTask::*)(const CZolMsgPdu *);
    using PduHolder = std::unique_ptr<CZolMsgPdu>; // gives the message up also when the thread is cancelled

    EnumDispatch start(PduHolder &oHolder, CZolTask &oTask, unsigned long ulThreadID);
    CZolMsgPdu *nextMsgOf(CZolTask &oTask, unsigned long ulThreadID, EnumTaskState &eState) const;
    void serve(CZolTask &oTask, CZolMsgPdu *poMsg) const;
    void serveRequest(CZolTask &oTask, const CZolMsgPdu &oMsg, MsgHandler pfnHandler, const char *pcScope) const;
    void serveTimer(CZolTask &oTask, PduHolder &oHolder) const;
    template <typename Handler>
    void callHandler(CZolTask &oTask, std::uint32_t ulCmdID, Handler fnHandler) const;
    void logThrown(unsigned short usTaskID, std::uint32_t ulCmdID, const char *pcWhat) const;

    const unsigned char m_ucTaskMgrID;
    CZolTaskThreads &m_oThreads;
};

#endif
