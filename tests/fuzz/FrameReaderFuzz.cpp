// Any bytes in any pieces: the reader gives the same frames as a plain walk over the whole, and frees what it took.
//
// Input: one byte that seeds the sizes of the reads, then the stream.

#include "gateway/pipe/ZolVekFrameReader.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{

const std::uint32_t LIMIT = 200000;

void require(bool bHolds)
{
    if (!bHolds)
    {
        std::abort();
    }
}

/// The frames of a stream, and whether it is damaged, found without any state.
bool walk(const std::string &strStream, std::vector<std::string> &oFrames)
{
    for (std::size_t ulAt = 0; strStream.size() - ulAt >= zolwire::HEADER_BYTES;)
    {
        const std::uint64_t ulHeader = zolwire::load16(strStream.data() + ulAt + zolwire::AT_HEADER_LENGTH);
        const std::uint64_t ulTotal = ulHeader + zolwire::load32(strStream.data() + ulAt + zolwire::AT_DATA_LENGTH);
        if (ulHeader < zolwire::HEADER_BYTES || ulTotal > LIMIT)
        {
            return true;
        }
        if (strStream.size() - ulAt < ulTotal)
        {
            return false;
        }
        oFrames.push_back(strStream.substr(ulAt, ulTotal));
        ulAt += ulTotal;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize)
{
    if (ulSize == 0)
    {
        return 0;
    }
    const std::string strStream(reinterpret_cast<const char *>(pucData) + 1, ulSize - 1);
    std::vector<std::string> oExpected;
    const bool bExpectDamage = walk(strStream, oExpected);
    SZolVekMemory oMemory;
    std::vector<std::string> oGot;
    bool bDamaged = false;
    {
        static CZolVekReadBuffer s_oBuffer;
        CZolVekFrameReader oReader(&oMemory);
        std::uint32_t uiSeed = pucData[0];
        for (std::size_t ulAt = 0; ulAt < strStream.size() && !bDamaged;)
        {
            uiSeed = uiSeed * 1103515245 + 12345;
            oReader.begin(s_oBuffer);
            CZolVekFrame oFrame;
            const std::size_t ulRead =
                std::min({strStream.size() - ulAt, oReader.room(), std::size_t{1} + uiSeed / 65536 % 300});
            if (oReader.next(oFrame, LIMIT) == VEK_READ_MORE)
            {
                std::memcpy(oReader.space(), strStream.data() + ulAt, ulRead);
                oReader.filled(ulRead);
                ulAt += ulRead;
            }
            else
            {
                oReader.undo();
            }
            EnumZolVekRead eRead = VEK_READ_MORE;
            while ((eRead = oReader.next(oFrame, LIMIT)) == VEK_READ_FRAME)
            {
                uiSeed = uiSeed * 1103515245 + 12345;
                if (uiSeed / 65536 % 4 == 0 && ulAt < strStream.size())
                {
                    oReader.undo(); // it has to wait for the next turn
                    break;
                }
                oGot.emplace_back(oFrame.data(), oFrame.length());
            }
            bDamaged = eRead == VEK_READ_DAMAGED;
            oReader.end();
        }
    }
    require(oMemory.m_ulBytes == 0);
    require(oGot.size() <= oExpected.size() && std::equal(oGot.begin(), oGot.end(), oExpected.begin()));
    require(!bDamaged || (bExpectDamage && oGot.size() == oExpected.size()));
    return 0;
}
