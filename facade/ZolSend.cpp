#include "ZolApi.h"
#include "ZolAppMgr.h"
#include "ZolMsgPdu.h"
#include "ZolRunLog.h"
#include "transport/ZolConnMgr.h"

#include <algorithm>
#include <arpa/inet.h>
#include <limits>
#include <memory>
#include <string>

namespace
{

const std::uint16_t BROADCAST = 65535;

/// The words of one operation's refusals; the digit behind its name tells the forms apart.
struct SZolWords
{
    const char *m_pcEncode;
    const char *m_pcSend;
    const char *m_pcDecode = nullptr;
};

/// Sends what an encoding gave, null for a failed one. The application manager owns the PDU from here on, failed or
/// not.
int sendAsyn(CZolMsgPdu *poPdu, const SZolWords &oWords)
{
    if (poPdu == nullptr)
    {
        CZolRunLog::error(oWords.m_pcEncode);
        return ZOL_ERR_FAILED;
    }
    if (CZolAppMgr::instance()->sendAsynMsg(poPdu) != ZOL_OK)
    {
        CZolRunLog::error(oWords.m_pcSend);
        return ZOL_ERR_FAILED;
    }
    return ZOL_OK;
}

int sendSync(CZolMsgPdu *poPdu, int iTimeout, CZolMsgPdu *&poResponse, const SZolWords &oWords)
{
    if (poPdu == nullptr)
    {
        CZolRunLog::error(oWords.m_pcEncode);
        return ZOL_ERR_FAILED;
    }
    const int iResult = CZolAppMgr::instance()->sendSynMsg(poPdu, poResponse, iTimeout);
    if (iResult != ZOL_OK)
    {
        CZolRunLog::error(oWords.m_pcSend);
    }
    return iResult;
}

int sendSyncDecoded(CZolMsgPdu *poPdu, int iTimeout, SNACC::AsnType &oResponse, const SZolWords &oWords)
{
    CZolMsgPdu *poResponse = nullptr; // some refusals leave it as it was
    const int iResult = sendSync(poPdu, iTimeout, poResponse, oWords);
    if (iResult != ZOL_OK)
    {
        return iResult;
    }
    const std::unique_ptr<CZolMsgPdu> oOwner(poResponse);
    const int iDecoded = zol::decodeAsn(*poResponse, oResponse);
    if (iDecoded != ZOL_OK)
    {
        CZolRunLog::error(oWords.m_pcDecode);
    }
    return iDecoded;
}

int sendToAll(CZolMsgPdu *poPdu, const SZolWords &oWords)
{
    if (poPdu != nullptr)
    {
        poPdu->m_usDestProcID = BROADCAST;
        poPdu->m_usDestProcHandle = BROADCAST;
    }
    return sendAsyn(poPdu, oWords);
}

/// Seconds as milliseconds; a limit beyond what an int of milliseconds can say stays the longest one there is.
int toMilliseconds(int iSeconds)
{
    const long long llMs = 1000LL * iSeconds;
    return static_cast<int>(
        std::clamp<long long>(llMs, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

} // namespace

namespace zol
{

int sendReqMsg(std::uint32_t ulCmdID, const SNACC::AsnType *poBody, std::uint16_t usDestProcID,
               std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID)
{
    return sendAsyn(
        encodeReq(ulCmdID, poBody, usDestProcID, ucDestTaskMgrID, usDestTaskID),
        {"zol::sendReqMsg failed to encode zol message.", "zol::sendReqMsg failed to send message to remote."});
}

int sendReqMsg(std::uint32_t ulCmdID, const char *pcData, std::uint32_t ulLength, std::uint16_t usDestProcID,
               std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID)
{
    return sendAsyn(
        encodeReq(ulCmdID, pcData, ulLength, usDestProcID, ucDestTaskMgrID, usDestTaskID),
        {"zol::sendReqMsg2 failed to encode zol message.", "zol::sendReqMsg2 failed to send message to remote."});
}

int sendSyncReq(std::uint32_t ulCmdID, const SNACC::AsnType *poBody, int iTimeout, CZolMsgPdu *&poResponse,
                std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID)
{
    return sendSync(
        encodeReq(ulCmdID, poBody, usDestProcID, ucDestTaskMgrID, usDestTaskID), iTimeout, poResponse,
        {"zol::sendSyncReq failed to encode zol message.", "zol::sendSyncReq failed to send message to remote."});
}

int sendSyncReq(std::uint32_t ulCmdID, const SNACC::AsnType *poBody, int iTimeout, SNACC::AsnType &oResponse,
                std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID)
{
    return sendSyncDecoded(encodeReq(ulCmdID, poBody, usDestProcID, ucDestTaskMgrID, usDestTaskID), iTimeout, oResponse,
                           {"zol::sendSyncReq2 failed to encode zol message.",
                            "zol::sendSyncReq2 failed to send message to remote.",
                            "zol::sendSyncReq2 failed to decode Asn.1."});
}

int sendSyncReq(std::uint32_t ulCmdID, const char *pcData, std::uint32_t ulLength, int iTimeout,
                CZolMsgPdu *&poResponse, std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID,
                std::uint16_t usDestTaskID)
{
    return sendSync(
        encodeReq(ulCmdID, pcData, ulLength, usDestProcID, ucDestTaskMgrID, usDestTaskID), iTimeout, poResponse,
        {"zol::sendSyncReq3 failed to encode zol message.", "zol::sendSyncReq3 failed to send message to remote."});
}

int sendSyncReq(std::uint32_t ulCmdID, const char *pcData, std::uint32_t ulLength, int iTimeout,
                SNACC::AsnType &oResponse, std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID,
                std::uint16_t usDestTaskID)
{
    return sendSyncDecoded(
        encodeReq(ulCmdID, pcData, ulLength, usDestProcID, ucDestTaskMgrID, usDestTaskID), iTimeout, oResponse,
        {"zol::sendSyncReq4 failed to encode zol message.", "zol::sendSyncReq4 failed to send message to remote.",
         "zol::sendSyncReq4 failed to decode Asn.1."});
}

int sendBroadCast(std::uint32_t ulCmdID, const SNACC::AsnType *poBody)
{
    return sendToAll(encodeReq(ulCmdID, poBody, 0, 0, 0), {"zol::sendBroadCast failed to encode zol message.",
                                                           "zol::sendBroadCast failed to send broadcast message."});
}

int sendBroadCast(std::uint32_t ulCmdID, const char *pcData, std::uint32_t ulLength)
{
    return sendToAll(
        encodeReq(ulCmdID, pcData, ulLength, 0, 0, 0),
        {"zol::sendBroadCast2 failed to encode zol message.", "zol::sendBroadCast2 failed to send broadcast message."});
}

int sendRespMsg(const CZolMsgPdu &oRequest, const SNACC::AsnType *poBody)
{
    return sendAsyn(encodeResp(oRequest, poBody), {"zol::sendRespMsg failed to encode zol message.",
                                                   "zol::sendRespMsg failed to send message to remote."});
}

int sendRespMsg(const CZolMsgPdu &oRequest, const char *pcData, std::uint32_t ulLength)
{
    return sendAsyn(encodeResp(oRequest, pcData, ulLength), {"zol::sendRespMsg2 failed to encode zol message.",
                                                             "zol::sendRespMsg2 failed to send message to remote."});
}

int resendMessage(const CZolMsgPdu &oMsg, std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID,
                  std::uint16_t usDestTaskID)
{
    CZolMsgPdu *poCopy = messageCopy(oMsg);
    if (poCopy == nullptr)
    {
        CZolRunLog::error("zol::resendMessage failed to copy the input message.");
        return ZOL_ERR_FAILED;
    }
    // The source stays that of the first sender, which is who a response goes to.
    poCopy->m_usDestProcID = usDestProcID;
    poCopy->m_usDestProcHandle = 0;
    poCopy->m_ucDestModule = ucDestTaskMgrID;
    poCopy->m_usDestSubModuleId = usDestTaskID;
    if (CZolAppMgr::instance()->sendAsynMsg(poCopy) == ZOL_OK)
    {
        return ZOL_OK;
    }
    CZolRunLog::error(("zol::resendMessage failed to send message to remote, procid: " + std::to_string(usDestProcID) +
                       ", taskmgr: " + std::to_string(ucDestTaskMgrID) + ", task: " + std::to_string(usDestTaskID))
                          .c_str());
    return ZOL_ERR_FAILED;
}

int sendP2PMsg(std::uint32_t uiAddr, std::uint16_t usPort, CZolMsgPdu *&poRequest, CZolMsgPdu **ppoResponse,
               int iTimeout)
{
    const int iMs = toMilliseconds(iTimeout);
    return sendP2PMsg(uiAddr, usPort, poRequest, ppoResponse, iMs, iMs);
}

int sendP2PMsg(std::uint32_t uiAddr, std::uint16_t usPort, CZolMsgPdu *&poRequest, CZolMsgPdu **ppoResponse,
               int iConnectMs, int iReceiveMs)
{
    return CZolConnMgr::instance()->sendP2PMsg(uiAddr, usPort, poRequest, ppoResponse, iConnectMs, iReceiveMs);
}

int sendP2PMsg(const std::string &strAddr, std::uint16_t usPort, CZolMsgPdu *&poRequest, CZolMsgPdu **ppoResponse,
               int iTimeout)
{
    return sendP2PMsg(inet_addr(strAddr.c_str()), usPort, poRequest, ppoResponse, iTimeout);
}

} // namespace zol
