#ifndef ZOL_TASK_H
#define ZOL_TASK_H

#include "ZolErrors.h"
#include "ZolExport.h"
#include "ZolMemMan.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>
#include <atomic>

class ACE_Reactor;
class CZolTaskMgr;

enum EnumTaskState
{
    TASK_IDLE = 0,    ///< no thread runs the task; the next message starts it
    TASK_EXEC = 1,    ///< a thread runs the task
    TASK_SYNWAIT = 2, ///< the task blocks in sendSynMsg
    TASK_EXIT = 3,    ///< the task has ended and waits to be deleted
    TASK_NONZOLWAIT   ///< the task is inside recvNonZolMsg, serving events of its own
};

enum EnumTaskType
{
    TASK_DYNAMIC = 0, ///< created for a message; id 33 to 60000
    TASK_STATIC = 1,  ///< added under an id of the application's choice, 1 to 32; lives as long as its manager
    TASK_ASSIST = 2   ///< added under an assigned id, 33 to 60000
};

class CZolTask;

/// The place of a task in the table of its manager; it lies in the task itself.
struct SZolTaskNode
{
    CZolTask *m_poTask = nullptr;
    unsigned short m_usTaskID = 0;
    SZolTaskNode *m_poNextNode = nullptr;
    SZolTaskNode *m_poPrevNode = nullptr;
};

/// A small state machine to which messages are delivered. An application derives from it and overrides the handlers.
///
/// Threads:   the handlers run on one thread at a time, any thread of the task's manager, with no lock of the library
///            held, in the order in which the messages were queued. Other operations: any thread.
/// Ownership: the task is made with new. Its manager owns it from the moment it is added, or returned by createTask,
///            and deletes it on whatever thread it ends. A handler does not own its message; it copies what it keeps.
/// Errors:    codes of ZolErrors.h and a line in the run log. What a handler throws is logged and ends the task,
///            unless the task is static: that one goes on with its next message.
class ZOL_EXPORT CZolTask
{
public:
    CZolTask();
    explicit CZolTask(CZolTaskMgr *poTaskMgr);
    CZolTask(const CZolTask &) = delete;
    CZolTask &operator=(const CZolTask &) = delete;

    /// Gives up the messages that still wait for the task.
    virtual ~CZolTask();

    /// The message that created the task.
    virtual void reqMsgProcess(const CZolMsgPdu *poMsg);

    /// Every later request and response for the task.
    virtual void respMsgProcess(const CZolMsgPdu *poMsg);

    /// A timer of the task has fired.
    virtual void timerCallBack(unsigned long ulTimerID);

    /// The reactor that eventLoop() runs, which a message for the task ends; null for none. Called by the dispatcher
    /// under its locks: it returns a member and does nothing else.
    virtual ACE_Reactor *getReactor();

    /// Runs that reactor until its event loop ends. It must not reset the loop at its start: a message that came just
    /// before has ended it already, and would be missed.
    virtual void eventLoop();

    /// Sends poRequest with this task as its source and blocks until a response comes or iSeconds (at least 1) are
    /// over. The first response for this task ends the call, whatever its command. At 0 poResponse is the caller's;
    /// at -1 for a null or not added task's request, -6 and -7 it stays as it was, else it is null.
    int sendSynMsg(CZolMsgPdu *&poRequest, CZolMsgPdu *&poResponse, int iSeconds);

    /// Sends poMsg to its destination in this or another process, with the source fields as they are. May block while
    /// the list of the send thread is full.
    int sendAsynMsg(CZolMsgPdu *&poMsg);

    /// A timer that fires every ulInterval seconds, until cancelled or the task is deleted. 0 is a failure.
    unsigned long setTimer(unsigned long ulInterval);
    void cancelTimer(unsigned long ulTimerID);

    /// Subscribes this task to a command at the gateway, now and after every reconnection. Blocks up to 5 seconds.
    int registerSubscribe(unsigned int uiCmd);
    int cancelSubscribe(unsigned int uiCmd);

    /// Runs eventLoop() while staying open for messages: one that arrives ends it and waits in the task's list; the end
    /// of the process ends it too. Only for the thread that runs this task.
    int recvNonZolMsg();

    /// The oldest waiting message, which is the caller's, or null.
    CZolMsgPdu *popFrontZolMsg();

    /// Ends the task: only TASK_EXIT is accepted, and no static task. A task that a thread runs is deleted when its
    /// handler returns; an assist task that nobody drives is deleted here, and must not be touched again.
    int setTaskStatus(EnumTaskState eState);
    void exitTask();

    unsigned short getTaskID() const { return m_usTaskID; }
    EnumTaskState getTaskStatus() const { return m_eTaskStatus.load(std::memory_order_acquire); }
    EnumTaskType getTaskType() const { return m_eTaskType; }
    CZolTaskMgr *getTaskMgr() const { return m_poTaskMgr; }

private:
    friend class CZolTaskMgr;
    friend class CZolTaskTable;
    friend class CZolTaskRunner;
    friend class CZolSynWaiters;

    /// What a blocking call or an event loop of the task goes back to.
    struct SZolTaskBefore
    {
        EnumTaskState m_eState = TASK_EXEC;
        unsigned int m_uiBuffered = 0; // length of the list of messages
    };

    int checkSynRequest(const CZolMsgPdu *poRequest) const;
    SZolTaskBefore beginSynCall();
    void awaitDelivery(int iSeconds);
    int endSynCall(SZolTaskBefore oBefore, CZolMsgPdu **ppoResponse);
    int takeResponse(CZolMsgPdu *&poResponse, unsigned int &uiOlder);
    void refuseLocal(CZolMsgPdu *poMsg, const char *pcScope) const;

    void buffer(CZolMsgPdu *poMsg); // the caller holds m_oStatusMutex
    CZolMsgPdu *popMsg();           // null when there is none

    /// Has eventLoop() return. The caller holds m_oStatusMutex.
    void endEventLoop();

    /// The caller holds m_oStatusMutex.
    SZolTaskBefore before() const;

    /// Back to what was before, and, if that is an event loop which is to end by now, ends it. The caller holds
    /// m_oStatusMutex.
    void resume(const SZolTaskBefore &oBefore, bool bWithLog);

    /// Stores eState, with a line. The caller holds m_oStatusMutex.
    void setStatusWithLog(EnumTaskState eState);

    /// Back to eState, unless somebody has ended the task meanwhile. The caller holds m_oStatusMutex.
    void restoreStatus(EnumTaskState eState, bool bWithLog);

    CZolTaskMgr *m_poTaskMgr = nullptr;                  // null until the task is added, then fixed
    unsigned short m_usTaskID = 0;                       // 0 until the task is added, then fixed
    EnumTaskType m_eTaskType = TASK_DYNAMIC;             // fixed when the task is added
    std::atomic<EnumTaskState> m_eTaskStatus{TASK_IDLE}; // written under m_oStatusMutex; read without it for a look
    ACE_Thread_Mutex m_oStatusMutex;                     // after m_oTaskLock or m_oSynWaitMutex, before m_oMsgListMutex
    ACE_Condition<ACE_Thread_Mutex> m_oSynCondition;     // with m_oStatusMutex; monotonic; signalled by a delivery
    CZolMemList *m_poMsgList;                            // guarded by m_oMsgListMutex; it is m_oOwnList, so that a
                                                         // task is one piece of memory
    ACE_Thread_Mutex m_oMsgListMutex;                    // leaf
    CZolMemList m_oOwnList;                              // what m_poMsgList points to
    SZolTaskNode m_oNode;                                // guarded by m_oTaskLock of the manager
    bool m_bSynCall = false;                             // guarded by m_oStatusMutex: inside sendSynMsg
    bool m_bDeleting = false;                            // guarded by m_oStatusMutex: a thread has claimed the deletion
    std::atomic<unsigned int> m_uiBuffered{0};           // length of m_poMsgList; grows under m_oStatusMutex only
    std::atomic<bool> m_bDelivered{false};               // written under m_oStatusMutex: the awaited response is here
};

#endif
