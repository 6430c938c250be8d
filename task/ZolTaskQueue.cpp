// The queue of a task manager, and the way into it.
//
//     senders --> m_poMsgQueue --(whole list at once)--> m_oBatch --> one message at a time to the dispatcher
//               m_oQueueMutex                          dispatch mutex
//
// The reading side takes the whole list when its batch is used up, so senders and reader meet at m_oQueueMutex once for
// many messages. The batch still counts as queued: m_ulQueuedBytes includes what it held when it was taken, and
// m_ulTakenBytes says how much of that has been handed out since. The reader alone writes m_ulTakenBytes and
// m_uiBatchCount, one message after the other, without a lock.

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTaskMgr.h"
#include "message/ZolMonotonic.h"
#include "task/ZolQueueReader.h"
#include "task/ZolTaskLog.h"

#include <ace/Guard_T.h>

namespace
{

constexpr suseconds_t FULL_WAIT_USEC = 100000; // how late a waiting sender may notice that the process is ending

} // namespace

unsigned int CZolTaskMgr::getLengthOfMsgQueue() const
{
    return g_ulQueueSize.load(std::memory_order_relaxed);
}

unsigned int CZolTaskMgr::getLengthOfBufferMsg()
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oQueueMutex);
    return m_poMsgQueue->m_ulCount + m_poReader->m_uiBatchCount.load(std::memory_order_relaxed);
}

std::uint64_t CZolTaskMgr::getBytesOfBufferMsg()
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oQueueMutex);
    return m_ulQueuedBytes - m_poReader->m_ulTakenBytes.load(std::memory_order_relaxed);
}

/// The caller holds m_oQueueMutex.
bool CZolTaskMgr::isFull() const
{
    return m_ulQueuedBytes - m_poReader->m_ulTakenBytes.load(std::memory_order_seq_cst) >=
           g_ulQueueSize.load(std::memory_order_relaxed);
}

int CZolTaskMgr::putq(CZolMemBlock *poBlock, bool bPriority)
{
    if (poBlock == nullptr)
    {
        CZolDebugInfo("CZolTaskMgr::putq").error("invalid parameter, null pointer!");
        return ZOL_ERR_FAILED;
    }
    CZolMemList oOne;
    oOne.insert(poBlock);
    append(oOne, zolTotalLength(zolPduOf(poBlock)), bPriority);
    return ZOL_OK;
}

void CZolTaskMgr::enqueueRequests(CZolMemList &oRequests)
{
    if (oRequests.m_ulCount == 0)
    {
        return;
    }
    std::uint64_t ulBytes = 0;
    CZolMemBlock *poBlock = oRequests.m_poHead;
    for (ACE_UINT32 uiLeft = oRequests.m_ulCount; uiLeft != 0; --uiLeft)
    {
        ulBytes += zolTotalLength(zolPduOf(poBlock));
        poBlock = poBlock->m_poNext;
    }
    append(oRequests, ulBytes, false);
    oRequests = CZolMemList();
}

/// All blocks of the list, of ulBytes together, in one step. The reader is woken after the release: one that runs at
/// once on this very processor would only meet the lock.
void CZolTaskMgr::append(const CZolMemList &oBlocks, std::uint64_t ulBytes, bool bPriority)
{
    bool bWake = false;
    {
        ACE_Guard<ACE_Thread_Mutex> oGuard(m_oQueueMutex);
        if (!bPriority && isFull())
        {
            waitForRoom();
        }
        m_poMsgQueue->append(oBlocks);
        m_ulQueuedBytes += ulBytes;
        m_uiQueued.store(m_poMsgQueue->m_ulCount, std::memory_order_relaxed);
        bWake = m_iEmptyWaiters > 0;
    }
    if (bWake)
    {
        m_oNotEmpty.signal();
    }
}

/// Only while the process is running: before that nobody makes room, and after that nobody must be kept waiting, since
/// the waiting thread is the one that ends the process. The caller holds m_oQueueMutex.
void CZolTaskMgr::waitForRoom()
{
    // Pairs with getq(), which stores m_ulTakenBytes before it looks here: one of the two sees the other.
    m_poReader->m_iFullWaiters.fetch_add(1, std::memory_order_seq_cst);
    while (isFull() && CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING)
    {
        const ACE_Time_Value oSlice = zolMonotonicNow() + ACE_Time_Value(0, FULL_WAIT_USEC);
        m_oNotFull.wait(&oSlice);
    }
    m_poReader->m_iFullWaiters.fetch_sub(1, std::memory_order_relaxed);
}

/// The caller holds the dispatch mutex.
int CZolTaskMgr::getq(CZolMemBlock *&poBlock)
{
    if (m_poReader->m_oBatch.m_ulCount == 0)
    {
        fillBatch();
    }
    poBlock = m_poReader->m_oBatch.popHead();
    const std::uint64_t ulBytes = zolTotalLength(zolPduOf(poBlock));
    m_poReader->m_uiBatchCount.store(m_poReader->m_oBatch.m_ulCount, std::memory_order_relaxed);
    m_poReader->m_ulTakenBytes.store(m_poReader->m_ulTakenBytes.load(std::memory_order_relaxed) + ulBytes,
                                     std::memory_order_seq_cst);
    if (m_poReader->m_iFullWaiters.load(std::memory_order_seq_cst) > 0)
    {
        {
            ACE_Guard<ACE_Thread_Mutex> oGuard(m_oQueueMutex); // not before the sender really waits
        }
        m_oNotFull.signal();
    }
    return ZOL_OK;
}

/// Waits until the queue holds something and takes all of it.
void CZolTaskMgr::fillBatch()
{
    m_poReader->m_oPoll.lookFor([this] { return m_uiQueued.load(std::memory_order_relaxed) != 0; });
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oQueueMutex);
    ++m_iEmptyWaiters;
    while (m_poMsgQueue->m_ulCount == 0)
    {
        m_oNotEmpty.wait();
    }
    --m_iEmptyWaiters;
    m_poReader->m_oBatch = *m_poMsgQueue;
    *m_poMsgQueue = CZolMemList();
    m_uiQueued.store(0, std::memory_order_relaxed);
    m_poReader->m_uiBatchCount.store(m_poReader->m_oBatch.m_ulCount, std::memory_order_relaxed);
    m_ulQueuedBytes -= m_poReader->m_ulTakenBytes.load(std::memory_order_relaxed);
    m_poReader->m_ulTakenBytes.store(0, std::memory_order_relaxed);
}

int CZolTaskMgr::enqueueMsg(CZolMemBlock *poBlock, bool bPriority)
{
    if (poBlock == nullptr || poBlock == zolBlockOf(nullptr))
    {
        CZolDebugInfo("CZolTaskMgr::enqueueMsg").error("invalid parameter, null pointer!");
        return ZOL_ERR_FAILED;
    }
    const CZolMsgPdu *poMsg = zolPduOf(poBlock);
    if (poMsg->m_ucMsgType == CZolMsgPdu::MSG_RESPONSE && poMsg->m_usDestSubModuleId != 0 && deliverResponse(poBlock))
    {
        return ZOL_OK;
    }
    putq(poBlock, bPriority);
    return ZOL_OK;
}

/// Hands a response to the task that waits for one, past the queue. False, and the block still the caller's, if that
/// task is in no call.
bool CZolTaskMgr::deliverResponse(CZolMemBlock *poBlock)
{
    // of the message nothing may be read once it is delivered
    const unsigned short usTaskID = zolPduOf(poBlock)->m_usDestSubModuleId;
    const ACE_UINT32 ulCmdID = zolPduOf(poBlock)->m_ulCmdID;
    {
        ACE_Guard<ACE_Thread_Mutex> oWaitGuard(m_oSynWaitMutex);
        const auto itFound = m_oSynWaitList.find(usTaskID);
        if (itFound == m_oSynWaitList.end())
        {
            return false;
        }
        CZolTask &oTask = *itFound->second;
        ACE_Guard<ACE_Thread_Mutex> oStatusGuard(oTask.m_oStatusMutex);
        if (!oTask.m_bSynCall)
        {
            return false; // not in the call yet, or on its way out of it
        }
        m_oSynWaitList.erase(itFound);
        oTask.buffer(zolPduOf(poBlock));
        oTask.m_bDelivered.store(true, std::memory_order_release);
        oTask.m_oSynCondition.signal();
    }
    if (CZolRunLog::isReady())
    {
        zolFormatInfo("CZolTaskMgr::enqueueMsg", "taskmgr %u task %u has been awoken, cmd:%d", m_ucTaskMgrID, usTaskID,
                      ulCmdID);
    }
    return true;
}
