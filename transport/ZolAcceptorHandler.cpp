#include "transport/ZolAcceptorHandler.h"

#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "message/ZolIdentity.h"
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
#include <unordered_set>

namespace
{

// Direct requests between the reactor and the built-in task. Leaked: the task's thread may outlive main.
struct SLiveRequests
{
    ACE_Thread_Mutex m_oLock; // leaf
    std::unordered_set<const SZolP2PRequest *> m_oRequests;
};

SLiveRequests &liveRequests()
{
    static SLiveRequests *const poLive = new SLiveRequests; // NOLINT: see above
    return *poLive;
}

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

// Reads with one limit for the whole, whatever a stranger drips.
bool readWithin(CZolConnection *poConn, void *pvTo, std::size_t uiLength)
{
    const auto oDeadline = zolsocket::in(std::chrono::seconds(zolpipe::ACCEPT_READ_SECONDS));
    return zolsocket::recvAll(poConn->getHandle(), pvTo, uiLength, oDeadline) == 0;
}

} // namespace

SZolP2PRequest::~SZolP2PRequest()
{
    m_poConn->release();
    delete m_poPdu;
}

bool takeP2PRequest(SZolP2PRequest *poRequest)
{
    SLiveRequests &oLive = liveRequests();
    ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, oLive.m_oLock, false);
    return oLive.m_oRequests.erase(poRequest) != 0;
}

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
    CZolConnection *poConn = acceptConnection();
    if (poConn != nullptr)
    {
        readFirstMessage(poConn);
    }
    return 0;
}

CZolConnection *CZolAcceptorHandler::acceptConnection()
{
    const int iSocket = ::accept4(get_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (iSocket < 0)
    {
        if (errno == EMFILE || errno == ENFILE)
        {
            refuseForWantOfDescriptors();
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK)
        {
            CZolDebugInfo("CZolAcceptorHandler::handle_input").error("accept connection request failed.");
        }
        return nullptr;
    }
    zolsocket::prepare(iSocket);
    auto *poConn = new CZolConnection(CZolConnection::CONN_PASSIVE);
    poConn->getStream().set_handle(iSocket);
    return poConn;
}

// A caller that waits in the backlog keeps the listening socket readable, and the reactor would come back here at once
// and for ever. So it is taken with the descriptor in reserve, and sent away.
void CZolAcceptorHandler::refuseForWantOfDescriptors()
{
    if (m_iReserve >= 0)
    {
        ::close(m_iReserve);
        const int iSocket = ::accept4(get_handle(), nullptr, nullptr, SOCK_CLOEXEC);
        if (iSocket >= 0)
        {
            ::close(iSocket);
        }
    }
    m_iReserve = openReserve();
    errno = EMFILE;
}

void CZolAcceptorHandler::readFirstMessage(CZolConnection *poConn)
{
    CZolDebugInfo oDebug("CZolAcceptorHandler::handle_input");
    CZolConnRef oConn = CZolConnRef::adopt(poConn);
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
        poPdu->printf();
    }
    return true;
}

void CZolAcceptorHandler::takeRequest(CZolConnRef oConn, const CZolMsgPdu &oHeader)
{
    std::unique_ptr<CZolMsgPdu> poRequest(new (oHeader.m_ulDataLength + zolpipe::HEADER_LENGTH) CZolMsgPdu);
    if (!poRequest)
    {
        return;
    }
    *poRequest = oHeader;
    poRequest->m_usHeaderLength = zolpipe::HEADER_LENGTH; // there is no more of it than this
    if (readBody(oConn.get(), poRequest.get()))
    {
        handOver(std::move(oConn), poRequest.release());
    }
}

void CZolAcceptorHandler::handOver(CZolConnRef oConn, CZolMsgPdu *poRequest)
{
    const CZolIdentity &oSelf = CZolIdentity::own();
    oConn->addRef(); // the request's, and the only one from here on: the end of the request closes the connection
    auto *poP2P = new SZolP2PRequest(oConn.get(), poRequest);
    oConn = CZolConnRef();
    constexpr unsigned int ADDRESS_LENGTH = sizeof(void *);
    CZolMsgPdu *poMsg = new (zolpipe::HEADER_LENGTH + ADDRESS_LENGTH) CZolMsgPdu;
    if (poMsg == nullptr)
    {
        delete poP2P;
        return;
    }
    poMsg->init();
    poMsg->m_ucMsgType = CZolMsgPdu::MSG_REQUEST;
    poMsg->m_ulCmdID = MSG_DIRECT_REQUEST_CMDID;
    poMsg->m_usSrcProcID = poMsg->m_usDestProcID = oSelf.getProcID();
    poMsg->m_usSrcProcHandle = poMsg->m_usDestProcHandle = oSelf.getProcHandle();
    poMsg->m_ucDestModule = zolpipe::BUILT_IN_MODULE;
    poMsg->m_ulDataLength = ADDRESS_LENGTH;
    std::memcpy(reinterpret_cast<char *>(poMsg) + zolpipe::HEADER_LENGTH, &poP2P, ADDRESS_LENGTH);
    {
        SLiveRequests &oLive = liveRequests();
        ACE_GUARD(ACE_Thread_Mutex, oGuard, oLive.m_oLock);
        oLive.m_oRequests.insert(poP2P);
    }
    // To the manager itself and not by identity: that may change meanwhile, and an address must not leave the process.
    if (zolHost().sendLocal(poMsg, zolpipe::BUILT_IN_MODULE) != 0 && takeP2PRequest(poP2P))
    {
        delete poP2P;
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
    bool bEntered = false;
    {
        // Answer and entry in one hold: whoever has seen the answer finds the pipe in the tables. The answer does not
        // wait for anything, 32 bytes to a fresh socket.
        ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oGuard, poMgr->m_oConnLock, -1);
        poMgr->pipesChanged(); // ends what threads know, before anybody can have seen the answer
        if (sendRegisterResponse(poConn->getStream(), poPdu, 0) == 0)
        {
            poConn->setOppProc(usProcID, usProcHandle);
            poConn->addRef(); // the table's
            poMgr->addConnection(poConn);
            bEntered = true;
        }
    }
    if (!bEntered)
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

void CZolAcceptorHandler::sendP2PResponse(ACE_SOCK_Stream &oStream, CZolMsgPdu *poResponse)
{
    const char *pcData = reinterpret_cast<const char *>(poResponse);
    std::size_t uiLeft = std::size_t(poResponse->m_ulDataLength) + zolpipe::HEADER_LENGTH;
    htonPdu(poResponse);
    ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oLock);
    const auto oDeadline = zolsocket::in(std::chrono::seconds(zolpipe::SEND_SECONDS));
    do
    {
        // In slices: a peer that does not read must not hold up a process that has been told to end.
        std::size_t uiSent = 0;
        const auto oSlice = std::min(oDeadline, zolsocket::in(std::chrono::milliseconds(100)));
        if (zolsocket::sendAll(oStream.get_handle(), pcData, uiLeft, oSlice, uiSent) == 0)
        {
            return;
        }
        pcData += uiSent;
        uiLeft -= uiSent;
    } while (errno == ETIME && zolsocket::Clock::now() < oDeadline && !zolHost().isExiting());
    CZolDebugInfo("CZolAcceptorHandler::sendP2PResponse").error("send response msg failed.");
}
