#ifndef ZOL_MESSAGE_ZOLINBOX_H
#define ZOL_MESSAGE_ZOLINBOX_H

class CZolMemBlock;
class CZolMemList;

/// Where timers and pipes leave messages for this process. The task managers stand behind it; in a test, a list.
///
/// Threads: every operation from any thread.
class IZolInbox
{
public:
    virtual ~IZolInbox() = default;

    virtual bool hasTaskMgr(unsigned char ucTaskMgrID) const = 0;

    /// Takes over a block that holds a whole PDU: with bPriority at once, else after a wait while the queue of that
    /// manager is full. ZOL_ERR_NO_DEST without such a manager, and any other refusal, leave it the caller's.
    virtual int deliver(CZolMemBlock *poBlock, unsigned char ucTaskMgrID, bool bPriority) = 0;

    /// The same for requests for one manager, in their order and in one step, without bPriority. The list is empty
    /// afterwards; without such a manager it stays as it is.
    virtual int deliverRequests(CZolMemList &oRequests, unsigned char ucTaskMgrID) = 0;
};

/// The inbox of the process. Until there is one it knows no manager and refuses everything.
IZolInbox &zolInbox();

/// Called once, at the start; oInbox must stay for as long as the process.
void zolSetInbox(IZolInbox &oInbox);

#endif
