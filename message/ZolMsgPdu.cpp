#include "ZolMsgPdu.h"

#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "message/ZolPduLog.h"

#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace
{

// The labels of the one-line dump, in the order of CZolMsgPdu::sm_arrLength. The last one stands for every type that
// has none of its own.
const char *const LABELS[] = {
    "MSGTYPE: REQ, ",       "MSGTYPE: RESP, ",         "MSGTYPE: REG, ",     "MSGTYPE: HELLO, ",  "MSGTYPE: BIGREQ, ",
    "MSGTYPE: BIGRESP, ",   "MSGTYPE: DBG, ",          "MSGTYPE: EXIT, ",    "MSGTYPE: SUBSCR, ", "MSGTYPE: UNSUBSCR, ",
    "MSGTYPE: MULTICAST, ", "MSGTYPE: BIGMULTICAST, ", "MSGTYPE: GETADDR, ", "MSGTYPE: UNKNOWN, "};

// Index of a type's label; timers and task exits never reach a pipe and have none.
unsigned int labelOf(unsigned char ucMsgType)
{
    static const unsigned char UNKNOWN = 13;
    static const unsigned char INDEX[] = {UNKNOWN, 0, 1, 2, 3, UNKNOWN, 4, 5, 6, 7, UNKNOWN, 8, 9, 10, 11, 12};
    return ucMsgType < sizeof INDEX ? INDEX[ucMsgType] : UNKNOWN;
}

// The fields of more than one byte, at any alignment. Swapping is its own inverse.
void swapWord(unsigned char *pcHeader, std::size_t uiOffset)
{
    std::uint16_t usValue = 0;
    memcpy(&usValue, pcHeader + uiOffset, sizeof usValue);
    usValue = htons(usValue);
    memcpy(pcHeader + uiOffset, &usValue, sizeof usValue);
}

void swapLong(unsigned char *pcHeader, std::size_t uiOffset)
{
    std::uint32_t uiValue = 0;
    memcpy(&uiValue, pcHeader + uiOffset, sizeof uiValue);
    uiValue = htonl(uiValue);
    memcpy(pcHeader + uiOffset, &uiValue, sizeof uiValue);
}

void swapHeader(void *pvHeader)
{
    auto *const pcHeader = static_cast<unsigned char *>(pvHeader);
    swapWord(pcHeader, offsetof(CZolMsgPdu, m_usSegmentNo));
    swapLong(pcHeader, offsetof(CZolMsgPdu, m_ulCmdID));
    swapWord(pcHeader, offsetof(CZolMsgPdu, m_usSrcProcID));
    swapWord(pcHeader, offsetof(CZolMsgPdu, m_usDestProcID));
    swapWord(pcHeader, offsetof(CZolMsgPdu, m_usSrcProcHandle));
    swapWord(pcHeader, offsetof(CZolMsgPdu, m_usDestProcHandle));
    swapWord(pcHeader, offsetof(CZolMsgPdu, m_usSrcSubModuleId));
    swapWord(pcHeader, offsetof(CZolMsgPdu, m_usDestSubModuleId));
    swapWord(pcHeader, offsetof(CZolMsgPdu, m_usHeaderLength));
    swapLong(pcHeader, offsetof(CZolMsgPdu, m_ulDataLength));
}

} // namespace

void htonPdu(void *pvHeader)
{
    swapHeader(pvHeader);
}

void ntohPdu(void *pvHeader)
{
    swapHeader(pvHeader);
}

const int CZolMsgPdu::sm_arrLength[CONST_LENGTH_FOR_PRINT] = {14, 15, 14, 16, 17, 18, 14, 15, 17, 19, 20, 23, 18, 18};

void *CZolMsgPdu::operator new(std::size_t /*uiSize*/, unsigned int uiLength) noexcept
{
    CZolMemBlock *const poBlock = CZolMemBlock::allocMem(uiLength);
    return poBlock == nullptr ? nullptr : zolPduOf(poBlock);
}

void CZolMsgPdu::operator delete(void *pvPdu, std::size_t /*uiSize*/)
{
    if (pvPdu != nullptr)
    {
        CZolMemBlock::freeMem(zolBlockOf(static_cast<CZolMsgPdu *>(pvPdu)));
    }
}

void CZolMsgPdu::operator delete(void *pvPdu, unsigned int /*uiLength*/) noexcept
{
    operator delete (pvPdu, std::size_t{0});
}

void CZolMsgPdu::init()
{
    m_ucVersion = 1;
    m_ucMsgType = 0;
    m_usSegmentNo = 0;
    m_ulCmdID = 0;
    m_usSrcProcID = 0;
    m_usDestProcID = 0;
    m_usSrcProcHandle = 0;
    m_usDestProcHandle = 0;
    m_ucSrcModule = 0;
    m_ucDestModule = 0;
    m_usSrcSubModuleId = 0;
    m_usDestSubModuleId = 0;
    m_usHeaderLength = sizeof(CZolMsgPdu);
    m_ulDataLength = 0;
}

void CZolMsgPdu::printf() const
{
    if (!CZolRunLog::isReady())
    {
        return;
    }
    char acLine[260]; // the longest line has 193 characters
    const unsigned int uiLabel = labelOf(m_ucMsgType);
    const int iLength = sm_arrLength[uiLabel];
    memcpy(acLine, LABELS[uiLabel], iLength);
    snprintf(acLine + iLength, sizeof acLine - iLength,
             "SPID = %u SPHdl = %u SMdlID = %u SSMdlID = %u RPID = %u RPHdl = %u RMdlID = %u RSMdlID = %u CmdID = %d, "
             "Len = %d",
             m_usSrcProcID, m_usSrcProcHandle, m_ucSrcModule, m_usSrcSubModuleId, m_usDestProcID, m_usDestProcHandle,
             m_ucDestModule, m_usDestSubModuleId, static_cast<int>(m_ulCmdID), static_cast<int>(m_ulDataLength));
    CZolRunLog::info(acLine);
}

void CZolMsgPdu::printf(std::string &strOut) const
{
    std::ostringstream oOut;
    oOut << "        version: " << static_cast<unsigned int>(m_ucVersion) << '\n'
         << "      srcProcID: " << m_usSrcProcID << '\n'
         << "  srcProcHandle: " << m_usSrcProcHandle << '\n'
         << "     destProcID: " << m_usDestProcID << '\n'
         << " destProcHandle: " << m_usDestProcHandle << '\n'
         << "        cmdCode: " << m_ulCmdID << '\n'
         << "        msgType: " << static_cast<unsigned int>(m_ucMsgType) << '\n'
         << "   headerLength: " << m_usHeaderLength << '\n'
         << "     dataLength: " << m_ulDataLength << '\n'
         << "      srcModule: " << static_cast<unsigned int>(m_ucSrcModule) << '\n'
         << " srcSubModuleId: " << m_usSrcSubModuleId << '\n'
         << "     destModule: " << static_cast<unsigned int>(m_ucDestModule) << '\n'
         << "destSubModuleId: " << m_usDestSubModuleId << '\n'
         << "      segmentNo: " << m_usSegmentNo << '\n';
    strOut = oOut.str();
}

void zolLogHeader(const CZolMsgPdu &oPdu)
{
    oPdu.printf();
}
