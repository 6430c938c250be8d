#ifndef ZOL_TRANSPORT_ZOLSENDMSGTASK_H
#define ZOL_TRANSPORT_ZOLSENDMSGTASK_H

#include "ZolMemMan.h"
#include "log/ZolThreadStart.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Task.h>
#include <ace/Thread_Mutex.h>
#include <cstdint>
#include <string>

/// Outgoing messages of the process, oldest first, and the one thread that writes to pipes.
///
/// Threads:   sendMsg() and dumpMsgList() from any thread.
/// Ownership: the list owns a block from an accepted sendMsg() on.
/// Units:     the limit g_ulQueueSize is in bytes, headers included; it is tested before a message is added, so one
///            message of any size may carry the list beyond it.
class CZolSendMsgTask : public ACE_Task_Base
{
public:
    static CZolSendMsgTask *instance();
    ~CZolSendMsgTask() override;

    int open(void *pvArg = nullptr) override; ///< starts the thread; 0
    int svc() override;                       ///< never returns

    /// Takes the block over: 0, or -1 for null. Waits while the list is full, as long as the process is not at its
    /// exit stage. bWait false is for the hellos of the thread that runs the reactor, which must not wait for a peer:
    /// appended at once, or dropped with -1 if the list holds twice its limit.
    int sendMsg(CZolMemBlock *poBlock, bool bWait = true);

    std::string dumpMsgList();

    std::uint64_t bytesWaiting(); ///< sum over the list

private:
    CZolSendMsgTask();

    bool isFull() const; // caller: m_oMsgLock

    CZolThreadStart m_oStart;
    ACE_Thread_Mutex m_oMsgLock;            // leaf
    ACE_Condition_Thread_Mutex m_oNotFull;  // with m_oMsgLock; signalled when the list has been taken away
    ACE_Condition_Thread_Mutex m_oNotEmpty; // with m_oMsgLock; signalled when svc() waits
    CZolMemList m_oMsgList;                 // guarded by m_oMsgLock
    std::uint64_t m_ulMsgBytes = 0;         // guarded by m_oMsgLock; sum over m_oMsgList
    unsigned int m_uiWaitingSenders = 0;    // guarded by m_oMsgLock
    bool m_bIdle = false;                   // guarded by m_oMsgLock; svc() waits
};

#endif
