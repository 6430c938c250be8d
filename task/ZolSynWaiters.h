#ifndef ZOL_TASK_ZOLSYNWAITERS_H
#define ZOL_TASK_ZOLSYNWAITERS_H

#include <ace/Thread_Mutex.h>
#include <unordered_map>

class CZolMemBlock;
class CZolTask;

/// The tasks of a manager that block in sendSynMsg, by id. A response to one of them goes straight to it, past the
/// queue.
///
/// Threads:   add() and remove() from the thread that makes the call, deliver() from any.
/// Locks:     the mutex guards the list; a task's m_oStatusMutex and m_oMsgListMutex are taken under it.
/// Ownership: of nothing; a task is in the list for as long as its call. List and mutex lie in the manager.
class CZolSynWaiters
{
public:
    using WaitList = std::unordered_map<unsigned short, CZolTask *>;

    CZolSynWaiters(WaitList &oList, ACE_Thread_Mutex &oMutex) : m_oList(oList), m_oMutex(oMutex) {}
    CZolSynWaiters(const CZolSynWaiters &) = delete;
    CZolSynWaiters &operator=(const CZolSynWaiters &) = delete;

    void add(CZolTask &oTask);
    void remove(CZolTask &oTask); ///< nothing happens if a delivery has taken the task off

    /// Hands a response to the task that waits for it, and wakes that. Nothing of the message may be read afterwards.
    /// False, and the block still the caller's, if that task is in no call.
    bool deliver(CZolMemBlock *poBlock);

private:
    WaitList &m_oList;          // guarded by m_oMutex
    ACE_Thread_Mutex &m_oMutex; // before a task's m_oStatusMutex
};

#endif
