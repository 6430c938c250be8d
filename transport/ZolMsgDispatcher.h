#ifndef ZOL_TRANSPORT_ZOLMSGDISPATCHER_H
#define ZOL_TRANSPORT_ZOLMSGDISPATCHER_H

#include "ZolMemMan.h"
#include "ZolMsgPdu.h"
#include "message/ZolInbox.h"
#include "transport/ZolBlockJoiner.h"
#include "transport/ZolHost.h"

/// The pipe behind a dispatcher, as far as that has to do with it.
class IZolPipeEnd
{
public:
    virtual ~IZolPipeEnd() = default;

    virtual void noteMessage(const CZolMsgPdu &oPdu) = 0; ///< a message is about to be acted upon
    virtual void noteHello() = 0;                         ///< and it was a hello
};

/// What becomes of each message of a pipe by its type: it goes to the inbox of the process, to the joiner of blocks, or
/// nowhere. Every message is taken over; what cannot be delivered is logged, counted and freed.
///
/// Threads: one at a time, which waits while the queue of a task manager is full.
/// Owner:   the receive side of one connection.
/// Locks:   none of its own.
class CZolMsgDispatcher
{
public:
    /// All three must outlive it.
    CZolMsgDispatcher(IZolPipeEnd &oPipe, IZolInbox &oInbox, IZolHost &oHost)
        : m_oPipe(oPipe), m_oInbox(oInbox), m_oHost(oHost)
    {
    }
    ~CZolMsgDispatcher() { m_oRun.deleteAll(); }
    CZolMsgDispatcher(const CZolMsgDispatcher &) = delete;
    CZolMsgDispatcher &operator=(const CZolMsgDispatcher &) = delete;

    /// Acts on a whole message in host order. Requests for one task manager may be kept until deliverRun().
    void take(CZolMsgPdu *poPdu);
    void deliverRun();

    /// Acts on a message at once.
    void dispatchMsg(CZolMsgPdu *poPdu);

    /// Queues to the task manager named by the message: ZOL_OK with the PDU gone, or a failure with it the caller's.
    int deliverMsg(CZolMsgPdu *poPdu);

    int processBigMsgBlock(CZolMsgPdu *poPdu); ///< takes a block over; 0 or a failure
    int saveBigMsgBlock(CZolMsgPdu *poPdu) { return m_oJoiner.saveBigMsgBlock(poPdu); }

    void reset() { m_oJoiner.reset(); } ///< drops the big messages being joined

private:
    bool joinsRun(CZolMsgPdu *poPdu);
    int deliverOrDrop(CZolMsgPdu *poPdu, const char *pcScope);

    IZolPipeEnd &m_oPipe;
    IZolInbox &m_oInbox;
    IZolHost &m_oHost;
    CZolBlockJoiner m_oJoiner;
    CZolMemList m_oRun; // requests that are to enter the queue of one task manager together
    unsigned char m_ucRunModule = 0;
};

#endif
