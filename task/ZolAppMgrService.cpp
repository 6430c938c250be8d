// What the application manager asks of the gateway: subscriptions, address look-up. The words of the payloads are
// big-endian.

#include "ZolAppMgr.h"
#include "ZolRunLog.h"
#include "transport/ZolAssert.h"
#include "transport/ZolConnMgr.h"

#include <arpa/inet.h>
#include <cstring>
#include <string>

namespace
{

constexpr int SERVICE_SECONDS = 5; // limit of a subscription and of an address look-up

constexpr unsigned int SUBSCRIBE_BYTES = 12;
constexpr unsigned int ADDRESS_BYTES = 4;

/// A request of this process to the gateway, whose key is process 0, handle 0. Null when memory is out.
CZolMsgPdu *newServiceRequest(CZolMsgPdu::EnumZolPduType eType, unsigned int uiDataLength)
{
    CZolMsgPdu *poMsg = new (static_cast<unsigned int>(sizeof(CZolMsgPdu)) + uiDataLength) CZolMsgPdu;
    if (poMsg != nullptr)
    {
        poMsg->init();
        poMsg->m_ucMsgType = static_cast<ACE_Byte>(eType);
        poMsg->m_usSrcProcID = CZolAppMgr::instance()->getProcID();
        poMsg->m_usSrcProcHandle = CZolAppMgr::instance()->getProcHandle();
        poMsg->m_ulDataLength = uiDataLength;
    }
    return poMsg;
}

} // namespace

int CZolAppMgr::registerSubscribe(unsigned int uiCmd, unsigned char ucTaskMgrID, unsigned short usTaskID)
{
    CZolConnMgr::instance()->addSubscribe(uiCmd, ucTaskMgrID, usTaskID);
    return subscribe(uiCmd, CZolMsgPdu::MSG_SUBSCRIBE, ucTaskMgrID, usTaskID);
}

int CZolAppMgr::cancelSubscribe(unsigned int uiCmd, unsigned char ucTaskMgrID, unsigned short usTaskID)
{
    CZolConnMgr::instance()->delSubscribe(uiCmd, ucTaskMgrID, usTaskID);
    return subscribe(uiCmd, CZolMsgPdu::MSG_SUBSCRIBE_CANCEL, ucTaskMgrID, usTaskID);
}

/// Payload, big-endian:  0 task manager | 4 task | 8 command, 32 bits each
int CZolAppMgr::subscribe(unsigned int uiCmd, CZolMsgPdu::EnumZolPduType eType, unsigned char ucTaskMgrID,
                          unsigned short usTaskID)
{
    CZolDebugInfo oDebug("CZolAppMgr::subscribe");
    const bool bAllowed = eType == CZolMsgPdu::MSG_SUBSCRIBE || eType == CZolMsgPdu::MSG_SUBSCRIBE_CANCEL;
    ZOL_ASSERT(bAllowed);
    if (!bAllowed)
    {
        return ZOL_ERR_FAILED;
    }
    CZolMsgPdu *poRequest = newServiceRequest(eType, SUBSCRIBE_BYTES);
    CZolMsgPdu *poResponse = nullptr;
    int iResult = ZOL_ERR_FAILED;
    if (poRequest != nullptr)
    {
        poRequest->m_ulCmdID = uiCmd;
        const ACE_UINT32 arrFields[] = {htonl(ucTaskMgrID), htonl(usTaskID), htonl(uiCmd)};
        memcpy(zolPayload(poRequest), arrFields, sizeof arrFields);
        iResult = sendSynMsg(poRequest, poResponse, SERVICE_SECONDS);
    }
    if (iResult == ZOL_OK)
    {
        delete poResponse;
    }
    else if (iResult == ZOL_ERR_TIMEOUT)
    {
        oDebug.error(("Sending subscribe message is timeout! commandID = " + std::to_string(uiCmd)).c_str());
    }
    else
    {
        oDebug.error(("Fail to send subscribe message. commandID = " + std::to_string(uiCmd) +
                      ", retCode = " + std::to_string(iResult))
                         .c_str());
    }
    return iResult;
}

/// Request:   0 process id | 2 process handle, 16 bits each
/// Response:  0 result, 32 bits | 4 IPv4 address, 32 bits | 8 port, 16 bits; the last two only with the result 0
int CZolAppMgr::getProcAddrByID(unsigned short usProcID, unsigned short usProcHandle, unsigned int &uiAddr,
                                unsigned short &usPort)
{
    CZolDebugInfo oDebug("CZolAppMgr::getProcAddrByID");
    CZolMsgPdu *poRequest = newServiceRequest(CZolMsgPdu::MSG_GET_ADDRESS, ADDRESS_BYTES);
    CZolMsgPdu *poResponse = nullptr;
    int iResult = ZOL_ERR_FAILED;
    if (poRequest != nullptr)
    {
        const ACE_UINT16 arrFields[] = {htons(usProcID), htons(usProcHandle)};
        memcpy(zolPayload(poRequest), arrFields, sizeof arrFields);
        iResult = sendSynMsg(poRequest, poResponse, SERVICE_SECONDS);
    }
    if (iResult == ZOL_ERR_TIMEOUT)
    {
        oDebug.error("Sending get proc ip message is timeout!");
        return iResult;
    }
    if (iResult == ZOL_OK)
    {
        iResult = readProcAddr(*poResponse, uiAddr, usPort);
        delete poResponse;
        return iResult;
    }
    oDebug.error(("Fail to get proc ip, retCode = " + std::to_string(iResult)).c_str());
    return iResult;
}

int CZolAppMgr::readProcAddr(const CZolMsgPdu &oResponse, unsigned int &uiAddr, unsigned short &usPort)
{
    const char *pcPayload = zolPayload(&oResponse);
    ACE_UINT32 ulResult = 0;
    ACE_UINT32 ulAddr = 0;
    ACE_UINT16 usNetPort = 0;
    if (oResponse.m_ulDataLength < sizeof ulResult)
    {
        return ZOL_ERR_FAILED;
    }
    memcpy(&ulResult, pcPayload, sizeof ulResult);
    const int iResult = static_cast<int>(ntohl(ulResult));
    if (iResult != 0)
    {
        return iResult;
    }
    if (oResponse.m_ulDataLength < sizeof ulResult + sizeof ulAddr + sizeof usNetPort)
    {
        return ZOL_ERR_FAILED;
    }
    memcpy(&ulAddr, pcPayload + 4, sizeof ulAddr);
    memcpy(&usNetPort, pcPayload + 8, sizeof usNetPort);
    uiAddr = ntohl(ulAddr);
    usPort = ntohs(usNetPort);
    return ZOL_OK;
}
