// A direct exchange: one message, and at most one answer, on a connection of its own. The client side, and the call of
// the listener on the server side.

#include "ZolErrors.h"
#include "ZolListener.h"
#include "ZolRunLog.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolSocket.h"
#include "transport/ZolText.h"

#include <cerrno>
#include <chrono>
#include <cxxabi.h>
#include <exception>
#include <poll.h>

namespace
{

// The socket of one exchange, on the thread of its caller; no table knows it.
class CExchange
{
public:
    CExchange(unsigned int uiAddr, unsigned short usPort) : m_uiAddr(uiAddr), m_usPort(usPort) {}
    CExchange(const CExchange &) = delete;
    CExchange &operator=(const CExchange &) = delete;
    ~CExchange() { m_oStream.close(); }

    bool connect(int iTimeout);
    bool send(const CZolMsgPdu *poPdu, std::size_t uiLength, int iTimeout);
    bool recv(void *pvTo, std::size_t uiLength, int iTimeout, const char *pcWhat);

    /// The code for the failure just met.
    int failure() const { return m_iError == ETIME ? ZOL_ERR_TIMEOUT : ZOL_ERR_FAILED; }

    std::string endpoint() const { return zoltext(m_uiAddr, ": ", m_usPort); }

private:
    bool check(int iResult, const char *pcBefore, const char *pcAfter);
    bool waitForConnect(int iTimeout);

    const unsigned int m_uiAddr;
    const unsigned short m_usPort;
    ACE_SOCK_Stream m_oStream;
    int m_iError = 0;
};

const char *const SCOPE = "CZolConnMgr::sendP2PMsg";

bool CExchange::check(int iResult, const char *pcBefore, const char *pcAfter)
{
    if (iResult == 0)
    {
        return true;
    }
    m_iError = errno;
    if (CZolRunLog::isReady())
    {
        CZolDebugInfo(SCOPE).error(zoltext(pcBefore, endpoint(), pcAfter, m_iError, ", ", zolerror(m_iError)).c_str());
    }
    return false;
}

bool CExchange::connect(int iTimeout)
{
    sockaddr_in oTarget{};
    oTarget.sin_family = AF_INET;
    oTarget.sin_addr.s_addr = m_uiAddr;
    oTarget.sin_port = htons(m_usPort);
    m_oStream.set_handle(zolsocket::open());
    int iResult = -1;
    if (m_oStream.get_handle() != ACE_INVALID_HANDLE)
    {
        iResult = zolsocket::startConnect(m_oStream.get_handle(), ACE_INET_Addr(&oTarget, sizeof oTarget));
    }
    if (iResult == 1)
    {
        iResult = waitForConnect(iTimeout) ? zolsocket::finishConnect(m_oStream.get_handle()) : -1;
    }
    if (iResult == 0 && zolsocket::isOwnEcho(m_oStream.get_handle()))
    {
        errno = ECONNREFUSED; // the request would come back as its own answer
        iResult = -1;
    }
    return check(iResult, "connect to remote (", ") failed, error: ");
}

// No time at all is too little for any connect, also for one that the kernel of this machine has just completed.
bool CExchange::waitForConnect(int iTimeout)
{
    if (iTimeout == 0)
    {
        errno = ETIME;
        return false;
    }
    const auto oDeadline = zolsocket::in(std::chrono::milliseconds(iTimeout));
    return zolsocket::wait(m_oStream.get_handle(), POLLOUT, oDeadline) == 1;
}

bool CExchange::send(const CZolMsgPdu *poPdu, std::size_t uiLength, int iTimeout)
{
    std::size_t uiSent = 0;
    const auto oDeadline = zolsocket::in(std::chrono::milliseconds(iTimeout));
    return check(zolsocket::sendAll(m_oStream.get_handle(), poPdu, uiLength, oDeadline, uiSent), "send msg to remote (",
                 ") failed, error: ");
}

bool CExchange::recv(void *pvTo, std::size_t uiLength, int iTimeout, const char *pcWhat)
{
    const auto oDeadline = zolsocket::in(std::chrono::milliseconds(iTimeout));
    return check(zolsocket::recvAll(m_oStream.get_handle(), pvTo, uiLength, oDeadline), pcWhat, ") failed, error: ");
}

void logInfo(const std::string &strText)
{
    if (CZolRunLog::isReady())
    {
        CZolDebugInfo(SCOPE).info(strText.c_str());
    }
}

// Reads the answer, with the request's memory for its header. ZOL_OK, or a failure with poResponse null.
int receiveResponse(CExchange &oExchange, CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse, int iTimeout)
{
    if (!oExchange.recv(poRequest, zolpipe::HEADER_LENGTH, iTimeout, "recv message header from remote ("))
    {
        return oExchange.failure();
    }
    ntohPdu(poRequest);
    const ACE_UINT32 ulData = poRequest->m_ulDataLength;
    if (ulData > zolpipe::MAX_DIRECT_DATA)
    {
        if (CZolRunLog::isReady())
        {
            CZolDebugInfo(SCOPE).error(zoltext("the message data size (", ulData,
                                               ") is too big, which was received from (", oExchange.endpoint(), ").")
                                           .c_str());
        }
        return ZOL_ERR_FAILED;
    }
    poResponse = new (ulData + zolpipe::HEADER_LENGTH) CZolMsgPdu;
    if (poResponse == nullptr)
    {
        return ZOL_ERR_FAILED;
    }
    *poResponse = *poRequest;
    poResponse->m_usHeaderLength = zolpipe::HEADER_LENGTH; // there is no more of it than this
    char *pcBody = reinterpret_cast<char *>(poResponse) + zolpipe::HEADER_LENGTH;
    if (ulData != 0 && !oExchange.recv(pcBody, ulData, iTimeout, "recv message data from remote ("))
    {
        delete poResponse;
        poResponse = nullptr;
        return oExchange.failure();
    }
    return ZOL_OK;
}

} // namespace

int CZolConnMgr::sendP2PMsg(unsigned int uiAddr, unsigned short usPort, CZolMsgPdu *&poRequest,
                            CZolMsgPdu **ppoResponse, int iConnTimeout, int iRecvTimeout)
{
    CZolDebugInfo oDebug(SCOPE);
    if (poRequest == nullptr || iConnTimeout < 0 || iRecvTimeout < 0)
    {
        if (CZolRunLog::isReady())
        {
            oDebug.warning("the inputting parameter is invalid.");
        }
        return ZOL_ERR_FAILED;
    }
    const std::unique_ptr<CZolMsgPdu> poTaken(poRequest);
    poRequest = nullptr;
    if (ppoResponse != nullptr)
    {
        *ppoResponse = nullptr;
    }
    if (poTaken->m_ucMsgType != CZolMsgPdu::MSG_REQUEST)
    {
        if (CZolRunLog::isReady())
        {
            oDebug.warning("the inputting message is not a request package.");
        }
        return ZOL_ERR_FAILED;
    }
    CExchange oExchange(uiAddr, usPort);
    if (!oExchange.connect(iConnTimeout))
    {
        return oExchange.failure();
    }
    const std::size_t uiLength = std::size_t(poTaken->m_ulDataLength) + zolpipe::HEADER_LENGTH;
    htonPdu(poTaken.get());
    if (!oExchange.send(poTaken.get(), uiLength, iConnTimeout))
    {
        return oExchange.failure();
    }
    logInfo("send msg to remote (" + oExchange.endpoint() + ") successfully.");
    if (ppoResponse == nullptr)
    {
        return ZOL_OK;
    }
    const int iResult = receiveResponse(oExchange, poTaken.get(), *ppoResponse, iRecvTimeout);
    if (iResult == ZOL_OK)
    {
        logInfo("receive P2P response message successfully.");
        (*ppoResponse)->printf();
    }
    return iResult;
}

void CZolConnMgr::recvP2PMsg(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse)
{
    CZolDebugInfo oDebug("CZolConnMgr::recvP2PMsg");
    CZolListener *poListener = m_poListener.load(std::memory_order_acquire);
    if (poListener == nullptr)
    {
        oDebug.warning("there is no P2P listener.");
        return;
    }
    try
    {
        poListener->handleP2PMsg(poRequest, poResponse);
    }
    catch (const abi::__forced_unwind &)
    {
        throw; // a cancelled thread, not a fault
    }
    catch (const std::exception &oException)
    {
        oDebug.fatal(zoltext("the listener threw an exception: ", oException.what()).c_str());
    }
    catch (...)
    {
        oDebug.fatal("the listener threw an exception.");
    }
}
