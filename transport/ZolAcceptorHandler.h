#ifndef ZOL_TRANSPORT_ZOLACCEPTORHANDLER_H
#define ZOL_TRANSPORT_ZOLACCEPTORHANDLER_H

#include "transport/ZolConnection.h"

#include <ace/Event_Handler.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Stream.h>
#include <ace/Thread_Mutex.h>

/// A direct request on its way from the reactor to the built-in task. The destructor closes the connection and frees
/// the request.
struct SZolP2PRequest
{
    SZolP2PRequest(CZolConnection *poConn, CZolMsgPdu *poPdu) : m_poConn(poConn), m_poPdu(poPdu) {}
    ~SZolP2PRequest();
    SZolP2PRequest(const SZolP2PRequest &) = delete;
    SZolP2PRequest &operator=(const SZolP2PRequest &) = delete;

    CZolConnection *m_poConn; ///< accepted, in no table; one reference of it is owned
    CZolMsgPdu *m_poPdu;      ///< owned; host order
};

/// Takes a direct request out of the set of those that are under way, and tells whether it was there. The address of
/// a request travels in a message, and messages can be forged: nothing may be done with it before this says true, and
/// whoever gets true owns the request.
bool takeP2PRequest(SZolP2PRequest *poRequest);

/// The listening port of the process. What connects is told apart by its first message: a registration opens a pipe, a
/// request is a direct exchange, anything else is closed.
///
/// Threads: bindPort() from any thread; handle_input() on the thread that runs the reactor, which a stranger can hold
///          up for 5 s for each of the two reads of its first message; sendP2PResponse() from the built-in task.
class CZolAcceptorHandler : public ACE_Event_Handler
{
public:
    static CZolAcceptorHandler *instance();
    ~CZolAcceptorHandler() override;

    ACE_HANDLE get_handle() const override;
    int handle_input(ACE_HANDLE oHandle) override; ///< 0 always, so that the port stays open

    /// Opens the port on all interfaces and registers with the reactor: 0 or -1. One port per process.
    int bindPort(unsigned short usPort);

    /// Sends the response of a direct request, within 200 s or until the process is told to end. The PDU, turned to
    /// wire order, stays the caller's.
    void sendP2PResponse(ACE_SOCK_Stream &oStream, CZolMsgPdu *poResponse);

private:
    CZolAcceptorHandler() = default;

    CZolConnection *acceptConnection();
    void refuseForWantOfDescriptors();
    void readFirstMessage(CZolConnection *poConn);
    static bool readBody(CZolConnection *poConn, CZolMsgPdu *poPdu);
    static void takeRequest(CZolConnRef oConn, const CZolMsgPdu &oHeader);
    static void handOver(CZolConnRef oConn, CZolMsgPdu *poRequest);
    int registPipe(CZolMsgPdu *poPdu, CZolConnection *poConn);                              // 0 or -1
    int sendRegisterResponse(ACE_SOCK_Stream &oStream, CZolMsgPdu *poRequest, int iStatus); // 0 or -1; never waits

    ACE_Thread_Mutex m_oLock;      // one response of a direct request at a time; nothing else is sent under it
    ACE_SOCK_Acceptor m_oAcceptor; // written once by bindPort()
    int m_iReserve = -1;           // a descriptor to let go when none is left, so that accepting can go on
};

#endif
