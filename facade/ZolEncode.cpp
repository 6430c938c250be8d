#include "ZolApi.h"
#include "ZolAppMgr.h"
#include "ZolMsgPdu.h"
#include "ZolRunLog.h"
#include "ZolTask.h"
#include "ZolTaskMgr.h"
#include "facade/ZolBerInput.h"
#include "message/ZolAnswer.h"

#include <algorithm>
#include <asn-incl.h>
#include <cstdio>
#include <cstring>
#include <cxxabi.h>
#include <limits>
#include <memory>

namespace
{

const unsigned int HEADER_BYTES = 28;

/// The bytes of a body on their way into a PDU. Raw bodies are only pointed to; encoded ones are owned.
struct SZolBody
{
    std::unique_ptr<char[]> m_oEncoded;
    const char *m_pcData = nullptr;
    std::uint64_t m_ulLength = 0;
};

SZolBody rawBody(const char *pcData, std::uint32_t ulLength)
{
    SZolBody oBody;
    oBody.m_pcData = pcData;
    oBody.m_ulLength = pcData == nullptr ? 0 : ulLength;
    return oBody;
}

/// Encodes poBody, whose length goes to the log with pcLengthFormat, " ilength1 %d." or " ilength2 %d.". False if the
/// runtime threw: whatever it throws stops here, except for the unwinding of a cancelled thread, which must not be
/// stopped.
bool asnBody(const SNACC::AsnType *poBody, const char *pcLengthFormat, SZolBody &oBody)
{
    if (poBody == nullptr)
    {
        return true;
    }
    try
    {
        SNACC::AsnBuf oBuffer;
        oBody.m_ulLength = poBody->BEnc(oBuffer);
        oBody.m_oEncoded.reset(oBuffer.GetSeg(static_cast<long>(oBody.m_ulLength)));
        oBody.m_pcData = oBody.m_oEncoded.get();
    }
    catch (abi::__forced_unwind &)
    {
        throw;
    }
    catch (...)
    {
        return false;
    }
    if (CZolRunLog::isReady())
    {
        char acText[256];
        std::snprintf(acText, sizeof acText, pcLengthFormat, static_cast<int>(oBody.m_ulLength));
        CZolRunLog::error(acText);
    }
    return true;
}

/// A PDU for a payload of ulLength bytes, or null if there is no memory or the sum exceeds what a header can say.
CZolMsgPdu *newPdu(std::uint64_t ulHeader, std::uint64_t ulLength)
{
    const std::uint64_t ulBlockHeader = sizeof(void *);
    if (ulLength > std::numeric_limits<std::uint32_t>::max() - ulHeader - ulBlockHeader)
    {
        return nullptr;
    }
    return new (static_cast<unsigned int>(ulHeader + ulLength)) CZolMsgPdu;
}

/// Header and payload of a message that is not yet addressed.
void fillBody(CZolMsgPdu &oPdu, CZolMsgPdu::EnumZolPduType eType, const SZolBody &oBody)
{
    oPdu.init();
    oPdu.m_ucMsgType = static_cast<std::uint8_t>(eType);
    oPdu.m_ulDataLength = static_cast<std::uint32_t>(oBody.m_ulLength);
    if (oBody.m_ulLength != 0)
    {
        std::memcpy(zolPayload(&oPdu), oBody.m_pcData, oBody.m_ulLength);
    }
}

/// Names this process as the sender, and the calling thread's current task, if it has one.
void fillSender(CZolMsgPdu &oPdu)
{
    CZolAppMgr *const poAppMgr = CZolAppMgr::instance();
    oPdu.m_usSrcProcID = poAppMgr->getProcID();
    oPdu.m_usSrcProcHandle = poAppMgr->getProcHandle();
    const CZolTask *const poTask = poAppMgr->getCurrentTask();
    if (poTask != nullptr)
    {
        oPdu.m_ucSrcModule = poTask->getTaskMgr()->getTaskMgrID();
        oPdu.m_usSrcSubModuleId = poTask->getTaskID();
    }
}

struct SZolDestination
{
    std::uint16_t m_usProcID;
    std::uint8_t m_ucTaskMgrID;
    std::uint16_t m_usTaskID;
};

CZolMsgPdu *buildRequest(std::uint32_t ulCmdID, const SZolBody &oBody, const SZolDestination &oDest,
                         const char *pcNoMemory)
{
    CZolMsgPdu *const poPdu = newPdu(HEADER_BYTES, oBody.m_ulLength);
    if (poPdu == nullptr)
    {
        CZolRunLog::error(pcNoMemory);
        return nullptr;
    }
    fillBody(*poPdu, CZolMsgPdu::MSG_REQUEST, oBody);
    poPdu->m_ulCmdID = ulCmdID;
    poPdu->m_usDestProcID = oDest.m_usProcID;
    poPdu->m_ucDestModule = oDest.m_ucTaskMgrID;
    poPdu->m_usDestSubModuleId = oDest.m_usTaskID;
    fillSender(*poPdu);
    return poPdu;
}

/// A request that stayed in its process and names no sender task: a response to it would have a task created for it.
bool reachesNobody(const CZolMsgPdu &oRequest)
{
    return oRequest.m_usDestProcID == oRequest.m_usSrcProcID &&
           oRequest.m_usDestProcHandle == oRequest.m_usSrcProcHandle && oRequest.m_usSrcSubModuleId == 0;
}

CZolMsgPdu *buildResponse(const CZolMsgPdu &oRequest, const SZolBody &oBody, const char *pcNoMemory)
{
    CZolMsgPdu *const poPdu = newPdu(HEADER_BYTES, oBody.m_ulLength);
    if (poPdu == nullptr)
    {
        CZolRunLog::error(pcNoMemory);
        return nullptr;
    }
    fillBody(*poPdu, CZolMsgPdu::MSG_RESPONSE, oBody);
    zolAddressAnswer(*poPdu, oRequest);
    fillSender(*poPdu);
    return poPdu;
}

/// Where the payload begins. Peers may send longer headers than ours, never shorter ones.
std::uint64_t headerBytes(const CZolMsgPdu &oMsg)
{
    return std::max<std::uint64_t>(oMsg.m_usHeaderLength, HEADER_BYTES);
}

} // namespace

namespace zol
{

CZolMsgPdu *encodeReq(std::uint32_t ulCmdID, const SNACC::AsnType *poBody, std::uint16_t usDestProcID,
                      std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID)
{
    SZolBody oBody;
    if (!asnBody(poBody, " ilength2 %d.", oBody))
    {
        CZolRunLog::error("zol::encodeReq failed to encode Asn.1.");
        return nullptr;
    }
    return buildRequest(ulCmdID, oBody, {usDestProcID, ucDestTaskMgrID, usDestTaskID},
                        "zol::encodeReq failed to new the request message.");
}

CZolMsgPdu *encodeReq(std::uint32_t ulCmdID, const char *pcData, std::uint32_t ulLength, std::uint16_t usDestProcID,
                      std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID)
{
    return buildRequest(ulCmdID, rawBody(pcData, ulLength), {usDestProcID, ucDestTaskMgrID, usDestTaskID},
                        "zol::encodeReq2 failed to new the request message.");
}

CZolMsgPdu *encodeResp(const CZolMsgPdu &oRequest, const SNACC::AsnType *poBody)
{
    if (reachesNobody(oRequest))
    {
        CZolRunLog::error("zol::encodeResp the sender task in the request message is invalid.");
        return nullptr;
    }
    SZolBody oBody;
    if (!asnBody(poBody, " ilength1 %d.", oBody))
    {
        CZolRunLog::error("zol::encodeResp failed to encode zol message.");
        return nullptr;
    }
    return buildResponse(oRequest, oBody, "zol::encodeResp failed to new the request message.");
}

CZolMsgPdu *encodeResp(const CZolMsgPdu &oRequest, const char *pcData, std::uint32_t ulLength)
{
    if (reachesNobody(oRequest))
    {
        CZolRunLog::error("zol::encodeResp2 the sender task in the request message is invalid.");
        return nullptr;
    }
    return buildResponse(oRequest, rawBody(pcData, ulLength), "zol::encodeResp2 failed to new the request message.");
}

int decodeAsn(const CZolMsgPdu &oMsg, SNACC::AsnType &oBody)
{
    const char *const pcBody = reinterpret_cast<const char *>(&oMsg) + headerBytes(oMsg);
    try
    {
        CZolBerInput oInput(pcBody, oMsg.m_ulDataLength);
        const SNACC::AsnBuf oBuffer(&oInput);
        SNACC::AsnLen ulDecoded = 0;
        oBody.BDec(oBuffer, ulDecoded);
    }
    catch (abi::__forced_unwind &)
    {
        throw;
    }
    catch (...)
    {
        CZolRunLog::error("zol::decodeAsn failed to decode Asn.1 data.");
        return ZOL_ERR_DECODE;
    }
    return ZOL_OK;
}

CZolMsgPdu *messageCopy(const CZolMsgPdu &oMsg)
{
    CZolMsgPdu *const poCopy = newPdu(headerBytes(oMsg), oMsg.m_ulDataLength);
    if (poCopy == nullptr)
    {
        CZolRunLog::error("zol::resendMessage failed to alloc memory for the new message.");
        return nullptr;
    }
    std::memcpy(reinterpret_cast<char *>(poCopy), reinterpret_cast<const char *>(&oMsg),
                headerBytes(oMsg) + oMsg.m_ulDataLength);
    return poCopy;
}

} // namespace zol
