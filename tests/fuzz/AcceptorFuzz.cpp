// Any bytes as the first message on the port: a registration is answered and entered, a whole direct request is handed
// to the built-in task as it came, and everything else is closed and leaves nothing behind.

#include "TransportFuzz.h"
#include "transport/ZolAcceptorHandler.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolPipeProtocol.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const std::size_t MAX_BYTES = 60000; // what a socket of this machine takes at once
const std::uint32_t LIMIT = 1 << 20; // of what is announced and held

class CHost : public CFuzzHost
{
public:
    int sendLocal(CZolMsgPdu *&poPdu, unsigned char ucTaskMgrID) override
    {
        const SZolP2PRequest *poRequest = nullptr;
        require(ucTaskMgrID == zolpipe::BUILT_IN_MODULE && poPdu->m_ulDataLength == sizeof(void *));
        std::memcpy(&poRequest, reinterpret_cast<const char *>(poPdu) + zolpipe::HEADER_LENGTH, sizeof(void *));
        require(CZolP2PDesk::instance().take(poRequest));
        m_strRequest.assign(reinterpret_cast<const char *>(poRequest->m_poPdu) + zolpipe::HEADER_LENGTH,
                            poRequest->m_ulData);
        m_bHanded = true;
        delete poRequest;
        delete poPdu;
        poPdu = nullptr;
        return ZOL_OK;
    }

    bool m_bHanded = false;
    std::string m_strRequest;
};

CHost &host()
{
    static CHost *const s_poHost = []
    {
        auto *poHost = new CHost;
        zolSetHost(*poHost);
        const CZolConnRef oGateway = CZolConnRef::adopt(new CZolConnection(CZolConnection::CONN_VEK));
        oGateway->setPipeStatus(false);
        CZolConnMgr::instance()->addConnection(oGateway.get());
        return poHost;
    }();
    return *s_poHost;
}

/// What the port answers to these bytes and an end.
std::string answerTo(const std::string &strBytes)
{
    int aiEnds[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aiEnds) == 0);
    require(send(aiEnds[1], strBytes.data(), strBytes.size(), 0) == static_cast<ssize_t>(strBytes.size()));
    shutdown(aiEnds[1], SHUT_WR);
    CZolAcceptorHandler::instance()->takeConnection(aiEnds[0]);
    char acAnswer[100];
    const ssize_t iLength = recv(aiEnds[1], acAnswer, sizeof acAnswer, MSG_DONTWAIT);
    close(aiEnds[1]);
    return {acAnswer, static_cast<std::size_t>(std::max<ssize_t>(iLength, 0))};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t uiSize)
{
    const std::string strBytes(reinterpret_cast<const char *>(pucData), std::min(uiSize, MAX_BYTES));
    const bool bHeader = strBytes.size() >= zolpipe::HEADER_LENGTH;
    const unsigned int uiType = bHeader ? pucData[1] : 0;
    const std::uint32_t uiData = bHeader ? zolpipe::wireDataLength(strBytes.data()) : 0;
    if (uiType == CZolMsgPdu::MSG_REQUEST && uiData > LIMIT && uiData <= zolpipe::MAX_DIRECT_DATA)
    {
        return 0; // it would be held
    }
    const bool bWhole = bHeader && strBytes.size() - zolpipe::HEADER_LENGTH >= uiData;
    CHost &oHost = host();
    oHost.m_bHanded = false;
    const std::string strAnswer = answerTo(strBytes);
    CZolConnMgr *poMgr = CZolConnMgr::instance();
    if (uiType == CZolMsgPdu::MSG_REGISTER && uiData == zolpipe::REGISTER_BODY_LENGTH && bWhole)
    {
        const std::uint16_t usProcID = zolpipe::load16(pucData + 8);
        const std::uint16_t usProcHandle = zolpipe::load16(pucData + 12);
        const bool bTaken = usProcID == 0 && usProcHandle == 0; // the gateway's
        require(strAnswer.size() == zolpipe::REGISTER_LENGTH && strAnswer[1] == CZolMsgPdu::MSG_REGISTER);
        require(static_cast<int>(zolpipe::load32(strAnswer.data() + zolpipe::HEADER_LENGTH)) ==
                (bTaken ? zolpipe::STATUS_REGISTERED : 0));
        require(zolpipe::load16(strAnswer.data() + 10) == usProcID &&
                zolpipe::load16(strAnswer.data() + 14) == usProcHandle);
        const CZolConnRef oConn = poMgr->pipes().find(usProcID, usProcHandle);
        require(static_cast<bool>(oConn));
        if (!bTaken)
        {
            poMgr->closePipe(oConn.get(), oConn->getLife());
            require(!poMgr->isProcRegistered(usProcID, usProcHandle));
        }
    }
    else
    {
        require(strAnswer.empty());
    }
    const bool bRequest = uiType == CZolMsgPdu::MSG_REQUEST && uiData <= zolpipe::MAX_DIRECT_DATA && bWhole;
    require(oHost.m_bHanded == bRequest);
    require(!bRequest || oHost.m_strRequest == strBytes.substr(zolpipe::HEADER_LENGTH, uiData));
    require(CZolP2PDesk::instance().countInHand() == 0 && poMgr->pipes().getAll().size() == 1);
    return 0;
}
