#include "task/ZolTaskQueue.h"

#include "ZolAppMgr.h"
#include "message/ZolMonotonic.h"

#include <ace/Guard_T.h>

namespace
{

constexpr suseconds_t FULL_WAIT_USEC = 100000; // how late a waiting sender may notice that the process is ending

} // namespace

CZolTaskQueue::CZolTaskQueue(ACE_Thread_Mutex &oMutex, Condition &oNotFull, Condition &oNotEmpty,
                             std::uint64_t &ulBytes)
    : m_oMutex(oMutex), m_oNotFull(oNotFull), m_oNotEmpty(oNotEmpty), m_ulBytes(ulBytes)
{
}

CZolTaskQueue::~CZolTaskQueue()
{
    m_oList.deleteAll();
    m_oBatch.deleteAll();
}

unsigned int CZolTaskQueue::count() const
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMutex);
    return m_oList.m_ulCount + m_uiBatchCount.load(std::memory_order_relaxed);
}

std::uint64_t CZolTaskQueue::bytes() const
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMutex);
    return m_ulBytes - m_ulTakenBytes.load(std::memory_order_relaxed);
}

bool CZolTaskQueue::isFull() const
{
    return m_ulBytes - m_ulTakenBytes.load(std::memory_order_seq_cst) >= g_ulQueueSize.load(std::memory_order_relaxed);
}

/// The reader is woken after the release: one that runs at once on this very processor would only meet the lock.
void CZolTaskQueue::append(const CZolMemList &oBlocks, std::uint64_t ulBytes, bool bPriority)
{
    bool bWake = false;
    {
        ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMutex);
        if (!bPriority && isFull())
        {
            waitForRoom();
        }
        m_oList.append(oBlocks);
        m_ulBytes += ulBytes;
        m_uiQueued.store(m_oList.m_ulCount, std::memory_order_relaxed);
        bWake = m_iEmptyWaiters > 0;
    }
    if (bWake)
    {
        m_oNotEmpty.signal();
    }
}

/// Only while the process is running: before that nobody makes room, and after that nobody must be kept waiting, since
/// the waiting thread is the one that ends the process.
void CZolTaskQueue::waitForRoom()
{
    // Pairs with take(), which stores m_ulTakenBytes before it looks here: one of the two sees the other.
    m_iFullWaiters.fetch_add(1, std::memory_order_seq_cst);
    while (isFull() && CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING)
    {
        zolWaitUntil(m_oNotFull, zolMonotonicNow() + ACE_Time_Value(0, FULL_WAIT_USEC));
    }
    m_iFullWaiters.fetch_sub(1, std::memory_order_relaxed);
}

CZolMemBlock *CZolTaskQueue::take()
{
    if (m_oBatch.m_ulCount == 0)
    {
        fillBatch();
    }
    CZolMemBlock *poBlock = m_oBatch.popHead();
    const std::uint64_t ulBytes = zolTotalLength(zolPduOf(poBlock));
    m_uiBatchCount.store(m_oBatch.m_ulCount, std::memory_order_relaxed);
    m_ulTakenBytes.store(m_ulTakenBytes.load(std::memory_order_relaxed) + ulBytes, std::memory_order_seq_cst);
    if (m_iFullWaiters.load(std::memory_order_seq_cst) > 0)
    {
        {
            ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMutex); // not before the sender really waits
        }
        m_oNotFull.signal();
    }
    return poBlock;
}

/// Waits until the list holds something and takes all of it.
void CZolTaskQueue::fillBatch()
{
    m_oPoll.lookFor([this] { return m_uiQueued.load(std::memory_order_relaxed) != 0; });
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMutex);
    ++m_iEmptyWaiters;
    while (m_oList.m_ulCount == 0)
    {
        m_oNotEmpty.wait();
    }
    --m_iEmptyWaiters;
    m_oBatch = m_oList;
    m_oList = CZolMemList();
    m_uiQueued.store(0, std::memory_order_relaxed);
    m_uiBatchCount.store(m_oBatch.m_ulCount, std::memory_order_relaxed);
    m_ulBytes -= m_ulTakenBytes.load(std::memory_order_relaxed);
    m_ulTakenBytes.store(0, std::memory_order_relaxed);
}
