#include "transport/ZolAcceptorHandler.h"

#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "message/ZolIdentity.h"
#include "message/ZolPduLog.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolConnection.h"
#include "transport/ZolHost.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolSocket.h"
#include "transport/ZolText.h"

#include <ace/Guard_T.h>
#include <ace/Reactor.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr suseconds_t REST_USEC = 100000; // before callers that could be neither taken nor sent away are tried again

// A descriptor for later, of a kind that costs nothing.
int openReserve()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

std::string sourceOf(const CZolMsgPdu &oPdu)
{
    return zoltext(" procID: ", oPdu.m_usSrcProcID, ", procHandle: ", oPdu.m_usSrcProcHandle);
}

// Why a first message cannot be taken; null if it can.
const char *refusalOf(const CZolMsgPdu &oPdu)
{
    switch (oPdu.m_ucMsgType)
    {
    case CZolMsgPdu::MSG_REGISTER:
        return oPdu.m_ulDataLength == zolpipe::REGISTER_BODY_LENGTH ? nullptr
                                                                    : "the size of register message is not correct.";
    case CZolMsgPdu::MSG_REQUEST:
        return oPdu.m_ulDataLength <= zolpipe::MAX_DIRECT_DATA ? nullptr : "the size of request message is too big.";
    default:
        return "the message type is not correct.";
    }
}

// Reads with one limit for the whole, however slowly a peer sends.
bool readWithin(CZolConnection *poConn, void *pvTo, std::size_t uiLength)
{
    const auto oDeadline = zolsocket::in(std::chrono::seconds(zolpipe::ACCEPT_READ_SECONDS));
    return zolsocket::recvAll(poConn->getHandle(), pvTo, uiLength, oDeadline) == 0;
}

} // namespace

CZolAcceptorHandler *CZolAcceptorHandler::instance()
{
    static CZolAcceptorHandler *const poInstance = new CZolAcceptorHandler; // NOLINT: threads may outlive main
    return poInstance;
}

CZolAcceptorHandler::~CZolAcceptorHandler()
{
    m_oAcceptor.close();
    if (m_iReserve >= 0)
    {
        ::close(m_iReserve);
    }
}

ACE_HANDLE CZolAcceptorHandler::get_handle() const
{
    return m_oAcceptor.get_handle();
}

int CZolAcceptorHandler::bindPort(unsigned short usPort)
{
    const ACE_INET_Addr oAddr(usPort, static_cast<ACE_UINT32>(INADDR_ANY));
    // The address may be used again: after a restart, connections of the last run still hold it for a minute. A second
    // live listener fails all the same.
    if (get_handle() != ACE_INVALID_HANDLE || m_oAcceptor.open(oAddr, 1, AF_INET, 0x7FFFFFFF) != 0)
    {
        CZolRunLog::startupLog(zoltext("CZolAcceptorHandler::bindPort fail to bind port: ", usPort).c_str());
        return -1;
    }
    fcntl(get_handle(), F_SETFD, FD_CLOEXEC);
    // a caller that is gone again before it is accepted must not make the reactor wait for the next one
    fcntl(get_handle(), F_SETFL, fcntl(get_handle(), F_GETFL) | O_NONBLOCK);
    m_iReserve = openReserve();
    CZolRunLog::startupLog(zoltext("CZolAcceptorHandler::bindPort successful bind port: ", usPort).c_str());
    if (zolHost().getReactor()->register_handler(this, ACE_Event_Handler::ACCEPT_MASK) != 0)
    {
        CZolRunLog::startupLog("CZolAcceptorHandler::bindPort register handler of accept failed!");
        m_oAcceptor.close();
        return -1;
    }
    return 0;
}

int CZolAcceptorHandler::handle_input(ACE_HANDLE /*oHandle*/)
{
    const int iSocket = acceptSocket();
    if (iSocket >= 0)
    {
        takeConnection(iSocket);
    }
    return 0;
}

int CZolAcceptorHandler::acceptSocket()
{
    const int iSocket = ::accept4(get_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (iSocket < 0)
    {
        const int iError = errno;
        if (iError == EAGAIN || iError == EWOULDBLOCK)
        {
            return -1;
        }
        const bool bOutOfDescriptors = iError == EMFILE || iError == ENFILE;
        if ((bOutOfDescriptors && !refuseForWantOfDescriptors()) || iError == ENOBUFS || iError == ENOMEM)
        {
            rest();
        }
        CZolDebugInfo("CZolAcceptorHandler::handle_input").error("accept connection request failed.");
        return -1;
    }
    return iSocket;
}

// A caller that waits in the backlog keeps the listening socket readable, and the reactor would come back here at once
// and for ever. So it is taken with the descriptor in reserve, and sent away. False: it is still there.
bool CZolAcceptorHandler::refuseForWantOfDescriptors()
{
    int iSocket = -1;
    if (m_iReserve >= 0)
    {
        ::close(m_iReserve);
        iSocket = ::accept4(get_handle(), nullptr, nullptr, SOCK_CLOEXEC);
        if (iSocket >= 0)
        {
            ::close(iSocket);
        }
    }
    m_iReserve = openReserve();
    return iSocket >= 0;
}

// What nothing can be done about now is left alone for a moment, in which the pipes have the reactor to themselves.
void CZolAcceptorHandler::rest()
{
    ACE_Reactor *poReactor = zolHost().getReactor();
    if (poReactor->schedule_timer(this, nullptr, ACE_Time_Value(0, REST_USEC)) >= 0)
    {
        poReactor->remove_handler(this, ACE_Event_Handler::ACCEPT_MASK | ACE_Event_Handler::DONT_CALL);
    }
}

int CZolAcceptorHandler::handle_timeout(const ACE_Time_Value & /*oNow*/, const void * /*pvArg*/)
{
    zolHost().getReactor()->register_handler(this, ACE_Event_Handler::ACCEPT_MASK);
    return 0;
}

void CZolAcceptorHandler::takeConnection(ACE_HANDLE oSocket)
{
    CZolDebugInfo oDebug("CZolAcceptorHandler::handle_input");
    zolsocket::prepare(oSocket);
    auto *poConn = new CZolConnection(CZolConnection::CONN_PASSIVE);
    CZolConnRef oConn = CZolConnRef::adopt(poConn);
    poConn->getStream().set_handle(oSocket);
    alignas(CZolMsgPdu) char acLocal[zolpipe::REGISTER_LENGTH];
    if (!readWithin(poConn, acLocal, zolpipe::HEADER_LENGTH))
    {
        oDebug.error("receive pdu header failed.");
        return;
    }
    ntohPdu(acLocal);
    auto *poHeader = reinterpret_cast<CZolMsgPdu *>(acLocal);
    if (const char *pcReason = refusalOf(*poHeader))
    {
        oDebug.error(zoltext("the message is error, ", pcReason, sourceOf(*poHeader)).c_str());
        return;
    }
    if (poHeader->m_ucMsgType == CZolMsgPdu::MSG_REQUEST)
    {
        takeRequest(std::move(oConn), *poHeader);
    }
    else if (readBody(poConn, poHeader)) // the local buffer has room for it
    {
        registPipe(poHeader, poConn);
    }
}

// Reads the payload behind a header of 28 bytes in host order.
bool CZolAcceptorHandler::readBody(CZolConnection *poConn, CZolMsgPdu *poPdu)
{
    CZolDebugInfo oDebug("CZolAcceptorHandler::handle_input");
    char *pcBody = reinterpret_cast<char *>(poPdu) + zolpipe::HEADER_LENGTH;
    if (poPdu->m_ulDataLength != 0 && !readWithin(poConn, pcBody, poPdu->m_ulDataLength))
    {
        oDebug.error(zoltext("receive pdu body failed, procID: ", poPdu->m_usSrcProcID,
                             ", procHandle: ", poPdu->m_usSrcProcHandle)
                         .c_str());
        return false;
    }
    if (CZolRunLog::isReady())
    {
        oDebug.info("receive a pipe message successfully.");
        zolLogHeader(*poPdu);
    }
    return true;
}

void CZolAcceptorHandler::takeRequest(CZolConnRef oConn, const CZolMsgPdu &oHeader)
{
    switch (CZolP2PDesk::instance().admit(oConn, oHeader))
    {
    case CZolP2PDesk::ADMITTED:
        readRequest(std::move(oConn), oHeader);
        break;
    case CZolP2PDesk::WAITING:
        wakeForUnread(); // the room may have come in between
        break;
    case CZolP2PDesk::REFUSED:
        CZolDebugInfo("CZolAcceptorHandler::handle_input")
            .error(zoltext("the message is error, too many requests are waiting.", sourceOf(oHeader)).c_str());
        break;
    }
}

void CZolAcceptorHandler::readRequest(CZolConnRef oConn, const CZolMsgPdu &oHeader)
{
    auto poP2P = std::make_unique<SZolP2PRequest>(oConn, oHeader);
    if (poP2P->m_poPdu != nullptr && readBody(oConn.get(), poP2P->m_poPdu))
    {
        oConn = CZolConnRef(); // from here on the end of the request closes the connection
        handOver(std::move(poP2P));
    }
}

void CZolAcceptorHandler::wakeForUnread()
{
    CZolP2PDesk &oDesk = CZolP2PDesk::instance();
    if (oDesk.hasToWake() && zolHost().getReactor()->notify(instance()) != 0)
    {
        oDesk.wakeFailed();
    }
}

// One at a time, so that the pipes have their turn in between.
int CZolAcceptorHandler::handle_exception(ACE_HANDLE /*oHandle*/)
{
    CZolConnRef oConn;
    CZolMsgPdu oHeader;
    if (CZolP2PDesk::instance().next(oConn, oHeader))
    {
        readRequest(std::move(oConn), oHeader);
        wakeForUnread();
    }
    return 0;
}

void CZolAcceptorHandler::handOver(std::unique_ptr<SZolP2PRequest> poP2P)
{
    const CZolIdentity &oSelf = CZolIdentity::own();
    constexpr unsigned int ADDRESS_LENGTH = sizeof(void *);
    CZolMsgPdu *poMsg = new (zolpipe::HEADER_LENGTH + ADDRESS_LENGTH) CZolMsgPdu;
    if (poMsg == nullptr)
    {
        return;
    }
    SZolP2PRequest *poHanded = poP2P.release();
    poMsg->init();
    poMsg->m_ucMsgType = CZolMsgPdu::MSG_REQUEST;
    poMsg->m_ulCmdID = MSG_DIRECT_REQUEST_CMDID;
    poMsg->m_usSrcProcID = poMsg->m_usDestProcID = oSelf.getProcID();
    poMsg->m_usSrcProcHandle = poMsg->m_usDestProcHandle = oSelf.getProcHandle();
    poMsg->m_ucDestModule = zolpipe::BUILT_IN_MODULE;
    poMsg->m_ulDataLength = ADDRESS_LENGTH;
    std::memcpy(zolPayload(poMsg), &poHanded, ADDRESS_LENGTH);
    CZolP2PDesk::instance().hand(poHanded);
    // To the manager itself and not by identity: that may change meanwhile, and an address must not leave the process.
    if (zolHost().sendLocal(poMsg, zolpipe::BUILT_IN_MODULE) != 0 && CZolP2PDesk::instance().take(poHanded))
    {
        delete poHanded;
    }
}

int CZolAcceptorHandler::registPipe(CZolMsgPdu *poPdu, CZolConnection *poConn)
{
    CZolDebugInfo oDebug("CZolAcceptorHandler::registPipe");
    CZolConnMgr *poMgr = CZolConnMgr::instance();
    const unsigned short usProcID = poPdu->m_usSrcProcID;
    const unsigned short usProcHandle = poPdu->m_usSrcProcHandle;
    if (poMgr->isProcRegistered(usProcID, usProcHandle))
    {
        sendRegisterResponse(poConn->getStream(), poPdu, zolpipe::STATUS_REGISTERED);
        oDebug.error(
            zoltext("the process is register already, procID: ", usProcID, ", procHandle: ", usProcHandle).c_str());
        return -1;
    }
    // Answer and entry in one step: whoever has seen the answer finds the pipe in the table. The answer does not wait
    // for anything, 32 bytes to a fresh socket.
    if (poMgr->pipes().addAnswered(CZolConnRef(poConn), usProcID, usProcHandle,
                                   [&] { return sendRegisterResponse(poConn->getStream(), poPdu, 0); }) != 0)
    {
        oDebug.error(
            zoltext("send register response failed. ProcID: ", usProcID, " ProcHandle: ", usProcHandle).c_str());
        return -1;
    }
    poConn->registerEvent(); // input waits until here, so it never comes before the entry
    oDebug.info(zoltext("client register sucessfull ProcID: ", usProcID, " ProcHandle: ", usProcHandle).c_str());
    return 0;
}

int CZolAcceptorHandler::sendRegisterResponse(ACE_SOCK_Stream &oStream, CZolMsgPdu *poRequest, int iStatus)
{
    const CZolIdentity &oSelf = CZolIdentity::own();
    const std::unique_ptr<CZolMsgPdu> poResponse(
        zolpipe::newRegisterResponse(*poRequest, oSelf.getProcID(), oSelf.getProcHandle(), iStatus));
    std::size_t uiSent = 0;
    if (poResponse)
    {
        htonPdu(poResponse.get());
    }
    if (!poResponse || zolsocket::sendAll(oStream.get_handle(), poResponse.get(), zolpipe::REGISTER_LENGTH,
                                          zolsocket::Clock::now(), uiSent) != 0)
    {
        CZolDebugInfo("CZolAcceptorHandler::sendRegisterResponse").error("send response msg failed.");
        return -1;
    }
    return 0;
}

// A message for the built-in task, or a direct request that is not even read yet.
bool CZolAcceptorHandler::somethingWaits()
{
    return CZolP2PDesk::instance().countWaiting() != 0 || zolHost().hasQueued(zolpipe::BUILT_IN_MODULE);
}

void CZolAcceptorHandler::sendP2PResponse(ACE_SOCK_Stream &oStream, CZolMsgPdu *poResponse)
{
    const char *pcData = reinterpret_cast<const char *>(poResponse);
    const std::size_t uiLength = std::size_t(poResponse->m_ulDataLength) + zolpipe::HEADER_LENGTH;
    htonPdu(poResponse);
    ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oLock);
    const auto oDeadline = zolsocket::in(std::chrono::seconds(zolpipe::SEND_SECONDS));
    auto oPatience = zolsocket::in(std::chrono::seconds(zolpipe::DEAF_SECONDS));
    std::size_t uiSent = 0;
    std::size_t uiTaken = 0; // by the peer, not only by the socket's buffer
    do
    {
        // In slices: a peer that does not read must not hold up a process that has been told to end.
        std::size_t uiSlice = 0;
        const auto oSlice = std::min(oDeadline, zolsocket::in(std::chrono::milliseconds(100)));
        const int iResult =
            zolsocket::sendAll(oStream.get_handle(), pcData + uiSent, uiLength - uiSent, oSlice, uiSlice);
        if (iResult == 0)
        {
            return;
        }
        if (errno != ETIME)
        {
            break;
        }
        uiSent += uiSlice;
        const std::size_t uiTakenNow = uiSent - zolsocket::unacknowledged(oStream.get_handle());
        if (uiTakenNow != uiTaken || !somethingWaits())
        {
            oPatience = zolsocket::in(std::chrono::seconds(zolpipe::DEAF_SECONDS));
        }
        uiTaken = uiTakenNow;
    } while (zolsocket::Clock::now() < std::min(oDeadline, oPatience) && !zolHost().isExiting());
    CZolDebugInfo("CZolAcceptorHandler::sendP2PResponse").error("send response msg failed.");
}
