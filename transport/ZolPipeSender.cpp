#include "transport/ZolPipeSender.h"

#include "ZolErrors.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "config/ZolCounters.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolText.h"

#include <cstdio>
#include <cstring>

namespace
{

const char *const BIG_SCOPE = "CZolSendMsgTask::processBigMsg"; // as readers of the log know it

// Formats the fields of a header that the lines of the send path name, in the order of those lines, and then oMore.
template <typename... More>
int formatFields(char *pcTo, std::size_t uiRoom, const char *pcFormat, const CZolMsgPdu &oPdu, More... oMore)
{
    return snprintf(pcTo, uiRoom, pcFormat, oPdu.m_ucVersion, oPdu.m_ucMsgType, oPdu.m_ulCmdID, oPdu.m_ucSrcModule,
                    oPdu.m_usSrcSubModuleId, oPdu.m_usDestProcID, oPdu.m_usDestProcHandle, oPdu.m_ucDestModule,
                    oPdu.m_usDestSubModuleId, oPdu.m_usHeaderLength, oPdu.m_ulDataLength, oMore...);
}

// The type of the blocks of a big message, 0 if that type cannot be cut.
unsigned char blockTypeOf(unsigned char ucType)
{
    switch (ucType)
    {
    case CZolMsgPdu::MSG_REQUEST:
        return CZolMsgPdu::MSG_BIG_REQUEST;
    case CZolMsgPdu::MSG_RESPONSE:
        return CZolMsgPdu::MSG_BIG_RESPONSE;
    case CZolMsgPdu::MSG_MULTICAST:
        return CZolMsgPdu::MSG_BIG_MULTICAST;
    default:
        return 0;
    }
}

// Cutting overwrites the header bytes in front of each block, so they must fit into the block before; and the numbers
// of the blocks have 16 bits.
bool canBeCut(const CZolMsgPdu &oPdu)
{
    if (oPdu.m_usHeaderLength > zolpipe::MAX_BLOCK_HEADER)
    {
        return false;
    }
    const std::uint64_t ulBlock = zolpipe::BLOCK_LIMIT - oPdu.m_usHeaderLength;
    return (oPdu.m_ulDataLength + ulBlock - 1) / ulBlock <= zolpipe::MAX_NUMBERED_BLOCKS + 1ULL;
}

void logBlockFailure(const CZolMsgPdu &oBlock, unsigned int uiNumber, int iResult)
{
    if (CZolRunLog::isReady())
    {
        char acText[256];
        snprintf(acText, sizeof acText,
                 "send block %u failed, ver:%u, type:%u, cmd:%u, src:%u,%u, dst:%u,%u,%u,%u, error: %d", uiNumber,
                 oBlock.m_ucVersion, oBlock.m_ucMsgType, oBlock.m_ulCmdID, oBlock.m_ucSrcModule,
                 oBlock.m_usSrcSubModuleId, oBlock.m_usDestProcID, oBlock.m_usDestProcHandle, oBlock.m_ucDestModule,
                 oBlock.m_usDestSubModuleId, iResult);
        CZolDebugInfo(BIG_SCOPE).error(acText);
    }
}

} // namespace

CZolPipeSender::CZolPipeSender(IZolPipes &oPipes) : m_oPipes(oPipes), m_pcSendBuf(new char[zolpipe::BLOCK_LIMIT]) {}

void CZolPipeSender::processMsg(CZolMemList *poList)
{
    CZolDebugInfo oDebug("CZolConnMgr::processMsg");
    SBatch oBatch;
    while (CZolMemBlock *poBlock = poList->popHead())
    {
        CZolMsgPdu *poPdu = zolPduOf(poBlock);
        const unsigned long long ulTotal = zolTotalLength(poPdu);
        if (poPdu->m_usHeaderLength < zolpipe::HEADER_LENGTH)
        {
            // Never begun with init(). On the pipe it would end the pipe, since the far end lost its place.
            zolCount(zolCounters().m_ulSendFailed);
            char acText[256];
            formatFields(acText, sizeof acText,
                         "invalid header of message, ver:%u, type:%u, cmd:%u, src:%u,%u, dst:%u,%u,%u,%u, head:%u, "
                         "data:%u",
                         *poPdu);
            oDebug.error(acText);
            delete poPdu;
            continue;
        }
        if (oBatch.m_uiUsed + ulTotal > zolpipe::BLOCK_LIMIT)
        {
            flush(oBatch, &oDebug);
        }
        if (ulTotal > zolpipe::BLOCK_LIMIT)
        {
            sendBig(poPdu, &oDebug);
        }
        else
        {
            sendSmall(poPdu, oBatch, &oDebug);
        }
    }
    flush(oBatch, &oDebug);
}

void CZolPipeSender::sendSmall(CZolMsgPdu *poPdu, SBatch &oBatch, CZolDebugInfo *poLog)
{
    const CZolConnRef &oConn = chooseForBatch(poPdu, oBatch);
    if (!oConn)
    {
        zolCount(zolCounters().m_ulNoConnection);
        poLog->error(zoltext("can not find connection. ProcID: ", poPdu->m_usDestProcID,
                             " ProcHandle: ", poPdu->m_usDestProcHandle)
                         .c_str());
        delete poPdu;
        return;
    }
    if (oConn.get() != oBatch.m_oConn.get())
    {
        flush(oBatch, poLog);
        oBatch.m_oConn = oConn;
    }
    const auto uiTotal = static_cast<unsigned int>(zolTotalLength(poPdu));
    htonPdu(poPdu);
    std::memcpy(m_pcSendBuf.get() + oBatch.m_uiUsed, poPdu, uiTotal);
    oBatch.m_uiUsed += uiTotal;
    delete poPdu;
}

// The choice of the pipes, asked for again only for another destination or after a change of the pipes.
const CZolConnRef &CZolPipeSender::chooseForBatch(const CZolMsgPdu *poPdu, SBatch &oBatch)
{
    const std::uint64_t ulVersion = m_oPipes.getVersion();
    const std::uint32_t uiKey = (static_cast<std::uint32_t>(poPdu->m_usDestProcID) << 16) | poPdu->m_usDestProcHandle;
    if (zolpipe::goesToGateway(*poPdu))
    {
        oBatch.m_oChoice = m_oPipes.chooseConnection(poPdu);
        oBatch.m_ulChoiceVersion = 0;
    }
    else if (ulVersion != oBatch.m_ulChoiceVersion || uiKey != oBatch.m_uiChoiceKey)
    {
        oBatch.m_oChoice = m_oPipes.chooseConnection(poPdu);
        oBatch.m_uiChoiceKey = uiKey;
        oBatch.m_ulChoiceVersion = ulVersion;
    }
    return oBatch.m_oChoice;
}

void CZolPipeSender::flush(SBatch &oBatch, CZolDebugInfo *poLog)
{
    if (oBatch.m_uiUsed != 0 && m_oPipes.sendOn(oBatch.m_oConn.get(), m_pcSendBuf.get(), oBatch.m_uiUsed) < 1)
    {
        logSendFailure(m_pcSendBuf.get(), static_cast<int>(oBatch.m_uiUsed), poLog);
    }
    oBatch.m_uiUsed = 0;
}

void CZolPipeSender::logSendFailure(const char *pcBuf, int iLen, CZolDebugInfo *poLog)
{
    if (pcBuf == nullptr || iLen == 0)
    {
        return;
    }
    unsigned int uiCount = 0;
    for (int iAt = 0; iAt < iLen; ++uiCount)
    {
        iAt += static_cast<int>(zolpipe::wireHeaderLength(pcBuf + iAt) + zolpipe::wireDataLength(pcBuf + iAt));
    }
    zolCount(zolCounters().m_ulSendFailed, uiCount);
    if (!CZolRunLog::isReady())
    {
        return;
    }
    const unsigned int uiRoom = uiCount * 128 + 32;
    auto *pcText = static_cast<char *>(CZolMemMan::instance()->allocMem(uiRoom));
    if (pcText == nullptr)
    {
        poLog->error("alloc memory failed when construct error log!");
        return;
    }
    std::size_t uiAt = static_cast<std::size_t>(snprintf(pcText, uiRoom, "send message failed:\n"));
    for (int iAt = 0; iAt < iLen;)
    {
        CZolMsgPdu oHeader;
        std::memcpy(static_cast<void *>(&oHeader), pcBuf + iAt, sizeof oHeader);
        ntohPdu(&oHeader);
        iAt += static_cast<int>(zolTotalLength(&oHeader));
        uiAt += static_cast<std::size_t>(formatFields(
            pcText + uiAt, uiRoom - uiAt, "    ver:%u, type:%u, cmd:%u, src:%u,%u, dst:%u,%u,%u,%u, head:%u, data:%u",
            oHeader)); // 108 bytes at most
    }
    snprintf(pcText + uiAt, uiRoom - uiAt, "\n");
    poLog->error(pcText);
    CZolMemMan::instance()->freeMem(pcText);
}

void CZolPipeSender::sendBig(CZolMsgPdu *poPdu, CZolDebugInfo *poLog)
{
    const int iResult = processBigMsg(poPdu);
    if (iResult != 0)
    {
        zolCount(zolCounters().m_ulSendFailed);
    }
    if (CZolRunLog::isReady())
    {
        char acText[256];
        if (iResult != 0)
        {
            formatFields(acText, sizeof acText,
                         "send big message failed, ver:%u, type:%u, cmd:%u, src:%u,%u, dst:%u,%u,%u,%u, head:%u, "
                         "data:%u, error: %d",
                         *poPdu, iResult);
            poLog->error(acText);
        }
        else
        {
            formatFields(acText, sizeof acText,
                         "send big message success, ver:%u, type:%u, cmd:%u, src:%u,%u, dst:%u,%u,%u,%u, head:%u, "
                         "data:%u",
                         *poPdu);
            poLog->info(acText);
        }
    }
    delete poPdu;
}

int CZolPipeSender::processBigMsg(CZolMsgPdu *poPdu)
{
    CZolDebugInfo oDebug(BIG_SCOPE);
    if (poPdu == nullptr)
    {
        oDebug.error("invalid parameter, null pointer!");
        return -1;
    }
    if (!canBeCut(*poPdu))
    {
        return -1;
    }
    const CZolConnRef oConn = m_oPipes.chooseConnection(poPdu);
    if (!oConn)
    {
        oDebug.error("can not find connection!");
        return -1;
    }
    const unsigned char ucType = poPdu->m_ucMsgType;
    const ACE_UINT32 ulData = poPdu->m_ulDataLength;
    if (blockTypeOf(ucType) == 0)
    {
        char acText[64];
        snprintf(acText, sizeof acText, "invalid message type %u!", ucType);
        oDebug.error(acText);
        return ZOL_ERR_MSG_TYPE;
    }
    CZolMsgPdu *poTemplate = new (poPdu->m_usHeaderLength) CZolMsgPdu;
    if (poTemplate == nullptr)
    {
        return -1;
    }
    std::memcpy(static_cast<void *>(poTemplate), poPdu, poPdu->m_usHeaderLength);
    poTemplate->m_ulDataLength = zolpipe::BLOCK_LIMIT - poPdu->m_usHeaderLength;
    poTemplate->m_ucMsgType = blockTypeOf(ucType);
    const int iResult = sendBlocks(oConn.get(), poPdu, poTemplate);
    delete poTemplate;
    // the header of the first block stands there now
    ntohPdu(poPdu);
    poPdu->m_ucMsgType = ucType;
    poPdu->m_ulDataLength = ulData;
    poPdu->m_usSegmentNo = 0;
    return iResult;
}

//  PDU:    | header H |  B bytes of payload  |  B bytes  ...  |  L bytes |
//  block 1 ^--- H + B = 8188 --------------^
//  block 2                       ^H bytes-^--- B ----------^
//
// The header of a block is written over the last H bytes of the block before it, which are out by then. No payload
// is copied, and the payload is gone afterwards. The template is in host order and leaves in wire order.
int CZolPipeSender::sendBlocks(CZolConnection *poConn, CZolMsgPdu *poPdu, CZolMsgPdu *poTemplate)
{
    const unsigned int uiHeader = poTemplate->m_usHeaderLength;
    const std::uint64_t ulBlock = poTemplate->m_ulDataLength;
    std::uint64_t ulLeft = poPdu->m_ulDataLength;
    char *pcCursor = reinterpret_cast<char *>(poPdu);
    char *pcTemplate = reinterpret_cast<char *>(poTemplate);
    htonPdu(poTemplate);
    for (unsigned int uiNumber = 1; ulLeft != 0; ++uiNumber)
    {
        const bool bLast = ulLeft <= ulBlock;
        const auto uiPart = static_cast<unsigned int>(bLast ? ulLeft : ulBlock);
        zolpipe::store16(pcTemplate + offsetof(CZolMsgPdu, m_usSegmentNo),
                         static_cast<std::uint16_t>(bLast ? 0 : uiNumber));
        zolpipe::store32(pcTemplate + offsetof(CZolMsgPdu, m_ulDataLength), uiPart);
        std::memcpy(pcCursor, pcTemplate, uiHeader);
        const int iResult = m_oPipes.sendOn(poConn, pcCursor, uiHeader + uiPart);
        if (iResult < 1)
        {
            ntohPdu(poTemplate);
            logBlockFailure(*poTemplate, uiNumber, iResult);
            return -1;
        }
        pcCursor += ulBlock;
        ulLeft -= uiPart;
    }
    return 0;
}
