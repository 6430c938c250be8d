// Any bytes as the answer to a registration: up only for a register response with status 0, whatever the pieces.
//
// Input: one byte for the sizes of the pieces, then the answer.

#include "TransportFuzz.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolRegisterExchange.h"

#include <algorithm>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t uiSize)
{
    if (uiSize < 1 + zolpipe::REGISTER_LENGTH)
    {
        return 0;
    }
    const unsigned int uiPiece = 1U + pucData[0] % zolpipe::REGISTER_LENGTH;
    const std::uint8_t *pucAnswer = pucData + 1;
    CZolRegisterExchange oExchange;
    require(oExchange.begin(7, 3, false) && oExchange.getLeft() == zolpipe::REGISTER_LENGTH);
    require(zolpipe::load16(oExchange.getNext() + 8) == 7 && oExchange.advance(zolpipe::REGISTER_LENGTH));
    unsigned int uiAt = 0;
    for (bool bAll = false; !bAll;)
    {
        require(oExchange.getLeft() == zolpipe::REGISTER_LENGTH - uiAt);
        const unsigned int uiLength = std::min(uiPiece, oExchange.getLeft());
        std::memcpy(oExchange.getNext(), pucAnswer + uiAt, uiLength);
        uiAt += uiLength;
        bAll = oExchange.advance(uiLength);
    }
    const int iStatus = static_cast<int>(zolpipe::load32(pucAnswer + zolpipe::HEADER_LENGTH));
    require(oExchange.conclude() == (pucAnswer[1] == CZolMsgPdu::MSG_REGISTER ? iStatus : -1));
    require(oExchange.getAnswer().m_usSrcProcID == zolpipe::load16(pucAnswer + 8));
    require(oExchange.getAnswer().m_usDestProcHandle == zolpipe::load16(pucAnswer + 14));
    return 0;
}
