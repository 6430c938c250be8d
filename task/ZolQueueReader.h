#ifndef ZOL_TASK_ZOLQUEUEREADER_H
#define ZOL_TASK_ZOLQUEUEREADER_H

#include "ZolMemMan.h"
#include "ZolTaskMgr.h"
#include "task/ZolPoll.h"

#include <atomic>
#include <cstdint>

/// The reading side of a task manager's queue: written for every message by the thread that reads, while senders write
/// theirs. Apart from that side by cache lines, or each would slow the other down.
///
/// Locks: the dispatch mutex; the words that others read are atomic.
struct alignas(CZolTaskMgr::CACHE_LINE) SZolQueueReader
{
    CZolMemList m_oBatch;                         // what getq hands out next
    std::atomic<std::uint64_t> m_ulTakenBytes{0}; // bytes of the batch that have been handed out
    std::atomic<unsigned int> m_uiBatchCount{0};  // messages left in the batch
    std::atomic<int> m_iFullWaiters{0};           // senders in m_oNotFull; written by them, under m_oQueueMutex
    CZolPoll m_oPoll;
};

#endif
