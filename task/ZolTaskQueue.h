#ifndef ZOL_TASK_ZOLTASKQUEUE_H
#define ZOL_TASK_ZOLTASKQUEUE_H

#include "ZolMemMan.h"
#include "task/ZolPoll.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>
#include <atomic>
#include <cstdint>

/// The queue of a task manager.
///
///     senders --> m_oList --(whole list at once)--> m_oBatch --> one message at a time to the dispatcher
///                 m_oMutex                           reader
///
/// The reader takes the whole list when its batch is used up, so senders and reader meet at the mutex once for many
/// messages. The batch still counts as queued: m_ulBytes includes what it held when it was taken, and m_ulTakenBytes
/// says how much of that has been handed out since.
///
/// Threads:   append(), count() and bytes() from any thread; take() from one at a time: the one that holds the dispatch
///            mutex, or the only one of its manager.
/// Locks:     the mutex guards list, sum and both conditions, and is a leaf. The reader alone writes m_ulTakenBytes and
///            m_uiBatchCount, one message after the other, without a lock. Mutex, conditions and sum lie in the
///            manager.
/// Ownership: of the blocks, from append() until take() hands them out; the destructor gives up the rest.
/// Units:     bytes are those of whole messages, headers included.
class CZolTaskQueue
{
public:
    using Condition = ACE_Condition<ACE_Thread_Mutex>;

    CZolTaskQueue(ACE_Thread_Mutex &oMutex, Condition &oNotFull, Condition &oNotEmpty, std::uint64_t &ulBytes);
    ~CZolTaskQueue();
    CZolTaskQueue(const CZolTaskQueue &) = delete;
    CZolTaskQueue &operator=(const CZolTaskQueue &) = delete;

    /// Takes all blocks of the list over, of ulBytes together, in one step. Without bPriority it waits while the queue
    /// holds g_ulQueueSize bytes or more and the process is running.
    void append(const CZolMemList &oBlocks, std::uint64_t ulBytes, bool bPriority);

    /// The oldest block, which is the caller's. Waits while there is none.
    CZolMemBlock *take();

    unsigned int count() const;  ///< messages now in the queue
    std::uint64_t bytes() const; ///< their bytes

    /// The list of the senders; see m_poMsgQueue of the manager.
    CZolMemList &list() { return m_oList; }

private:
    static constexpr unsigned int CACHE_LINE = 64; // bytes that processors hand to each other as a whole

    bool isFull() const; // the caller holds m_oMutex
    void waitForRoom();  // the caller holds m_oMutex
    void fillBatch();

    ACE_Thread_Mutex &m_oMutex;
    Condition &m_oNotFull;    // with m_oMutex
    Condition &m_oNotEmpty;   // with m_oMutex
    std::uint64_t &m_ulBytes; // guarded by m_oMutex: list and batch, when that was taken

    // what senders write stands apart, by cache lines, from what the reader writes, or each would slow the other down
    alignas(CACHE_LINE) CZolMemList m_oList; // guarded by m_oMutex
    std::atomic<unsigned int> m_uiQueued{0}; // written under m_oMutex: length of the list
    int m_iEmptyWaiters = 0;                 // guarded by m_oMutex: threads in m_oNotEmpty

    alignas(CACHE_LINE) CZolMemList m_oBatch;     // the reader's: what take() hands out next
    std::atomic<std::uint64_t> m_ulTakenBytes{0}; // bytes of the batch that have been handed out
    std::atomic<unsigned int> m_uiBatchCount{0};  // messages left in the batch
    std::atomic<int> m_iFullWaiters{0};           // senders in m_oNotFull; written by them, under m_oMutex
    CZolPoll m_oPoll;                             // the reader's
};

#endif
