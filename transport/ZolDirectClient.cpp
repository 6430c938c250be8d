#include "transport/ZolDirectClient.h"

#include "ZolErrors.h"
#include "ZolRunLog.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolSocket.h"
#include "transport/ZolText.h"

#include <cerrno>
#include <chrono>
#include <poll.h>

namespace
{

const char *const SCOPE = "CZolConnMgr::sendP2PMsg";

void logInfo(const std::string &strText)
{
    if (CZolRunLog::isReady())
    {
        CZolDebugInfo(SCOPE).info(strText.c_str());
    }
}

} // namespace

int CZolDirectClient::failure() const
{
    return m_iError == ETIME ? ZOL_ERR_TIMEOUT : ZOL_ERR_FAILED;
}

std::string CZolDirectClient::endpoint() const
{
    return zoltext(m_uiAddr, ": ", m_usPort);
}

bool CZolDirectClient::check(int iResult, const char *pcBefore, const char *pcAfter)
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

bool CZolDirectClient::connect(int iTimeout)
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
bool CZolDirectClient::waitForConnect(int iTimeout)
{
    if (iTimeout == 0)
    {
        errno = ETIME;
        return false;
    }
    const auto oDeadline = zolsocket::in(std::chrono::milliseconds(iTimeout));
    return zolsocket::wait(m_oStream.get_handle(), POLLOUT, oDeadline) == 1;
}

bool CZolDirectClient::send(const CZolMsgPdu *poPdu, std::size_t uiLength, int iTimeout)
{
    std::size_t uiSent = 0;
    const auto oDeadline = zolsocket::in(std::chrono::milliseconds(iTimeout));
    return check(zolsocket::sendAll(m_oStream.get_handle(), poPdu, uiLength, oDeadline, uiSent), "send msg to remote (",
                 ") failed, error: ");
}

bool CZolDirectClient::recv(void *pvTo, std::size_t uiLength, int iTimeout, const char *pcWhat)
{
    const auto oDeadline = zolsocket::in(std::chrono::milliseconds(iTimeout));
    return check(zolsocket::recvAll(m_oStream.get_handle(), pvTo, uiLength, oDeadline), pcWhat, ") failed, error: ");
}

// Reads the answer, with the request's memory for its header. ZOL_OK, or a failure with poResponse null.
int CZolDirectClient::receiveResponse(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse, int iTimeout)
{
    if (!recv(poRequest, zolpipe::HEADER_LENGTH, iTimeout, "recv message header from remote ("))
    {
        return failure();
    }
    ntohPdu(poRequest);
    const ACE_UINT32 ulData = poRequest->m_ulDataLength;
    if (ulData > zolpipe::MAX_DIRECT_DATA)
    {
        if (CZolRunLog::isReady())
        {
            CZolDebugInfo(SCOPE).error(
                zoltext("the message data size (", ulData, ") is too big, which was received from (", endpoint(), ").")
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
    if (ulData != 0 && !recv(pcBody, ulData, iTimeout, "recv message data from remote ("))
    {
        delete poResponse;
        poResponse = nullptr;
        return failure();
    }
    return ZOL_OK;
}

int CZolDirectClient::exchange(CZolMsgPdu *&poRequest, CZolMsgPdu **ppoResponse, int iConnTimeout, int iRecvTimeout)
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
    return talk(poTaken.get(), ppoResponse, iConnTimeout, iRecvTimeout);
}

int CZolDirectClient::talk(CZolMsgPdu *poRequest, CZolMsgPdu **ppoResponse, int iConnTimeout, int iRecvTimeout)
{
    if (!connect(iConnTimeout))
    {
        return failure();
    }
    const std::size_t uiLength = std::size_t(poRequest->m_ulDataLength) + zolpipe::HEADER_LENGTH;
    htonPdu(poRequest);
    if (!send(poRequest, uiLength, iConnTimeout))
    {
        return failure();
    }
    logInfo("send msg to remote (" + endpoint() + ") successfully.");
    if (ppoResponse == nullptr)
    {
        return ZOL_OK;
    }
    const int iResult = receiveResponse(poRequest, *ppoResponse, iRecvTimeout);
    if (iResult == ZOL_OK)
    {
        logInfo("receive P2P response message successfully.");
    }
    return iResult;
}
