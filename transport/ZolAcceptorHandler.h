#ifndef ZOL_TRANSPORT_ZOLACCEPTORHANDLER_H
#define ZOL_TRANSPORT_ZOLACCEPTORHANDLER_H

#include "transport/ZolConnection.h"
#include "transport/ZolP2PRequest.h"

#include <ace/Event_Handler.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Stream.h>
#include <ace/Thread_Mutex.h>
#include <memory>

/// The listening port of the process. What connects is told apart by its first message: a registration opens a pipe, a
/// request is a direct exchange, anything else is closed.
///
/// Threads: bindPort() from any thread; handle_input() on the thread that runs the reactor, which a new peer can hold
///          up for 5 s for each of the two reads of its first message; sendP2PResponse() from the built-in task;
///          wakeForUnread() from any.
class CZolAcceptorHandler : public ACE_Event_Handler
{
public:
    static CZolAcceptorHandler *instance();
    ~CZolAcceptorHandler() override;

    ACE_HANDLE get_handle() const override;
    int handle_input(ACE_HANDLE oHandle) override; ///< 0 always, so that the port stays open
    int handle_timeout(const ACE_Time_Value &oNow, const void *pvArg) override; ///< the end of a rest
    int handle_exception(ACE_HANDLE oHandle) override; ///< the reactor's answer to wakeForUnread(); 0

    /// Opens the port on all interfaces and registers with the reactor: 0 or -1. One port per process.
    int bindPort(unsigned short usPort);

    /// Reads the first message of a connected socket, which it takes over, and acts on it. On the reactor's thread.
    void takeConnection(ACE_HANDLE oSocket);

    /// Sends the response of a direct request: within 200 s, until the process is told to end, or until the peer has
    /// taken no byte for 5 s while something else waits for the built-in task. The PDU, turned to wire order, stays the
    /// caller's.
    void sendP2PResponse(ACE_SOCK_Stream &oStream, CZolMsgPdu *poResponse);

    /// Has the reactor read the next direct request that waits for room, if there is room now.
    static void wakeForUnread();

private:
    CZolAcceptorHandler() = default;

    int acceptSocket();
    bool refuseForWantOfDescriptors();
    void rest();
    static bool readBody(CZolConnection *poConn, CZolMsgPdu *poPdu);
    static void takeRequest(CZolConnRef oConn, const CZolMsgPdu &oHeader);
    static void readRequest(CZolConnRef oConn, const CZolMsgPdu &oHeader);
    static void handOver(std::unique_ptr<SZolP2PRequest> poP2P);
    static bool somethingWaits();
    int registPipe(CZolMsgPdu *poPdu, CZolConnection *poConn);                              // 0 or -1
    int sendRegisterResponse(ACE_SOCK_Stream &oStream, CZolMsgPdu *poRequest, int iStatus); // 0 or -1; never waits

    ACE_Thread_Mutex m_oLock;      // one response of a direct request at a time; nothing else is sent under it
    ACE_SOCK_Acceptor m_oAcceptor; // written once by bindPort()
    int m_iReserve = -1;           // a descriptor to let go when none is left, so that accepting can go on
};

#endif
