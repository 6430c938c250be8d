#ifndef ZOL_TASKMGR_H
#define ZOL_TASKMGR_H

#include "ZolExport.h"
#include "ZolTask.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/RW_Thread_Mutex.h>
#include <ace/Task.h>
#include <ace/Thread_Mutex.h>
#include <atomic>
#include <cstdint>
#include <string>
#include <unordered_map>

class CZolMemBlock;
class CZolMemList;
class CZolMsgPdu;
class CZolTaskIndex;

/// The tasks of one manager by id: 64 chains in the order of the dump, an index for the look-up, and the set of ids in
/// use, from which the next free one is found without walking the tasks.
///
/// Threads:   no lock of its own; CZolTaskMgr::m_oTaskLock guards it.
/// Ownership: owns its tasks; the destructor deletes those that are left.
class ZOL_EXPORT CZolTaskTable
{
public:
    CZolTaskTable();
    ~CZolTaskTable();
    CZolTaskTable(const CZolTaskTable &) = delete;
    CZolTaskTable &operator=(const CZolTaskTable &) = delete;

    CZolTask *find(unsigned short usTaskID) const;

    /// Takes the task over, which is in no table, and its id as used. False, with nothing taken, when memory is out.
    bool insert(CZolTask *poTask, unsigned short usTaskID);

    /// Hands the task back without deleting it, or null. Its id stays taken until release().
    CZolTask *unlink(unsigned short usTaskID);

    /// The id may be given out again.
    void release(unsigned short usTaskID);

    bool isTaken(unsigned short usTaskID) const;

    /// The first free id in the ring from usFrom to usLast, on from usFirst, back to usFrom; 0 if there is none.
    unsigned short findFree(unsigned short usFrom, unsigned short usFirst, unsigned short usLast) const;

    unsigned short bucketCount() const { return m_usBucketCount; }
    const SZolTaskNode *bucket(unsigned short usIndex) const { return m_ppBuckets[usIndex]; }

private:
    unsigned short bucketOf(unsigned short usTaskID) const;

    SZolTaskNode **m_ppBuckets = nullptr; // owned; heads of the chains, a new node goes to the front
    unsigned short m_usBucketCount = 64;
    unsigned short m_usHashShift = 6; // 2 to this power is the number of chains
    CZolTaskIndex *const m_poIndex;   // owned; finds ids without a walk
};

/// A thread of a manager, and the task that it runs.
struct SZolThreadEntry
{
    ACE_thread_t m_ulThreadID = 0;             ///< fixed
    std::atomic<CZolTask *> m_poTask{nullptr}; ///< or null; written by the thread itself
};

/// One addressable place in a process, named by a one-byte id: a queue of messages, threads, a table of tasks. An
/// application derives from it to say which task a new message creates.
///
/// Threads:   addStaticTask, addAssistTask, enqueueMsg and the look-ups from any thread. createTask runs on a thread of
///            the manager, with no lock of the library held, and on several at once if there are several threads.
/// Ownership: CZolAppMgr owns the manager once it is added; the manager owns its tasks and the blocks in its queue.
/// Units:     queue limits are bytes, headers included.
/// Errors:    codes of ZolErrors.h and a line in the run log; nothing is thrown.
class ZOL_EXPORT CZolTaskMgr : public ACE_Task_Base
{
public:
    /// Ids 0 to 200 are the application's. A manager with less than one thread serves nothing.
    explicit CZolTaskMgr(unsigned char ucTaskMgrID = 0, int iThreadNum = 1);
    CZolTaskMgr(const CZolTaskMgr &) = delete;
    CZolTaskMgr &operator=(const CZolTaskMgr &) = delete;

    /// The threads must have left. Deletes the tasks and gives up the queue.
    ~CZolTaskMgr() override;

    /// Starts the threads; handleEvents calls it. They serve the queue once the process is running.
    int open(void *pvArg = nullptr) override;

    /// The loop of every thread.
    int svc() override;

    /// For an application's own use; the library never calls it.
    virtual bool initTaskMgr();

    /// The task for a message that names none, or null. The message stays the library's; the task becomes the
    /// manager's. Requests go to the task's reqMsgProcess next.
    virtual CZolTask *createTask(CZolMsgPdu *poMsg);

    /// Takes the block over, which holds a whole PDU. With bPriority it enters the queue now, else it waits while the
    /// queue is full. A response to a task that blocks in sendSynMsg goes past the queue, straight to the task. -1 only
    /// for null.
    int enqueueMsg(CZolMemBlock *poBlock, bool bPriority);

    /// Takes all blocks of the list over, in their order and in one step, and leaves it empty; waits as enqueueMsg does
    /// for one. For requests only: a response may be for a task that waits for it.
    void enqueueRequests(CZolMemList &oRequests);

    /// Adds a task under an id from 1 to 32. On failure the task stays the caller's.
    int addStaticTask(CZolTask *poTask, unsigned short usTaskID);

    /// Adds a task under an assigned id. With bIdle the threads serve it as any other; without, the caller alone drives
    /// it. On failure the task stays the caller's.
    int addAssistTask(CZolTask *poTask, bool bIdle);

    /// Deletes an assist task that no thread of the manager runs; CZolTask::exitTask is the safe way to it.
    void delAssistTask(CZolTask *poTask);

    /// The pointer is not protected: the task may end at any moment.
    CZolTask *findTask(unsigned short usTaskID);

    /// The task that a thread of this manager runs; null for other threads and until all threads have started.
    CZolTask *findTaskOfThread(unsigned long ulThreadID);

    unsigned char getTaskMgrID() const { return m_ucTaskMgrID; }

    /// The limit of the queue in bytes, the same for all managers.
    unsigned int getLengthOfMsgQueue() const;

    /// The number of messages now in the queue.
    unsigned int getLengthOfBufferMsg();

    /// Their bytes.
    std::uint64_t getBytesOfBufferMsg();

    /// One line for each task.
    std::string dumpAllTask();

    /// Names in the log every handler that has run for uiLimitMs or longer at ulNowMs, once for each run. For the
    /// watchdog; one thread at a time.
    void warnOfLongHandlers(std::uint64_t ulNowMs, unsigned int uiLimitMs);

private:
    friend class CZolAppMgr;
    friend class CZolTask;

    class CZolInside; // a class for each job of the manager: task/ZolTaskMgrInside.h

    unsigned short acquireTaskID(unsigned short usTaskID); // the caller holds m_oTaskLock for writing
    int putq(CZolMemBlock *poBlock, bool bPriority);
    int getq(CZolMemBlock *&poBlock); // the caller holds the dispatch mutex
    int existTaskMsg(CZolMsgPdu *poMsg, CZolTask *&poTask, unsigned long ulThreadID);
    int unknownTaskMsg(CZolMsgPdu *poMsg, CZolTask *&poTask, unsigned long ulThreadID);
    int processTaskMsg(CZolTask *poTask, unsigned long ulThreadID, EnumTaskState &eState);
    void delTask(CZolTask *poTask, unsigned long ulThreadID);
    void setTaskOfThread(unsigned long ulThreadID, CZolTask *poTask);
    void addTaskToSynWaitList(CZolTask *poTask);
    void removeTaskFromSynWaitList(CZolTask *poTask);

    CZolInside *const m_poInside;      // owned
    const unsigned char m_ucTaskMgrID; // also the group of the threads
    const int m_iThreadNum;
    unsigned short m_usNextTaskID = 33;          // guarded by m_oTaskLock
    CZolTaskTable m_oTaskTable;                  // guarded by m_oTaskLock
    ACE_RW_Thread_Mutex m_oTaskLock;             // after the dispatch mutex, before a task's m_oStatusMutex
    SZolThreadEntry **m_ppThreadTable = nullptr; // owned; sorted by thread id; fixed once the threads have started
    CZolMemList *m_poMsgQueue;                   // owned; guarded by m_oQueueMutex
    // senders write what follows for every message; apart from what the threads of the manager write
    alignas(64) std::uint64_t m_ulQueuedBytes = 0;                 // guarded by m_oQueueMutex
    ACE_Thread_Mutex m_oQueueMutex;                                // leaf
    ACE_Condition<ACE_Thread_Mutex> m_oNotFull;                    // with m_oQueueMutex; monotonic
    ACE_Condition<ACE_Thread_Mutex> m_oNotEmpty;                   // with m_oQueueMutex
    std::unordered_map<unsigned short, CZolTask *> m_oSynWaitList; // guarded by m_oSynWaitMutex: tasks in sendSynMsg
    ACE_Thread_Mutex m_oSynWaitMutex;                              // before a task's m_oStatusMutex
};

#endif
