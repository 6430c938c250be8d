// Any bytes on a pipe in any pieces: what reaches the inbox is what a plain walk over the whole finds, blocks joined.
//
// Input: one byte that seeds the sizes of the reads, then the stream.

#include "TransportFuzz.h"
#include "transport/ZolPduReader.h"
#include "transport/ZolPipeProtocol.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace
{

const std::uint64_t LIMIT = 1 << 20; // of what is announced; a pipe itself has none

using Message = std::pair<int, std::string>; // type and payload
using Messages = std::vector<Message>;

class CInbox : public IZolInbox, public IZolPipeEnd
{
public:
    bool hasTaskMgr(unsigned char ucTaskMgrID) const override { return ucTaskMgrID < 200 || ucTaskMgrID == 254; }
    int deliver(CZolMemBlock *poBlock, unsigned char ucTaskMgrID, bool) override
    {
        if (!hasTaskMgr(ucTaskMgrID))
        {
            return ZOL_ERR_NO_DEST;
        }
        const CZolMsgPdu &oPdu = *zolPduOf(poBlock);
        m_oGot.emplace_back(oPdu.m_ucMsgType, std::string(reinterpret_cast<const char *>(&oPdu) + oPdu.m_usHeaderLength,
                                                          oPdu.m_ulDataLength));
        CZolMemBlock::freeMem(poBlock);
        return ZOL_OK;
    }
    int deliverRequests(CZolMemList &oRequests, unsigned char ucTaskMgrID) override
    {
        while (CZolMemBlock *poBlock = oRequests.popHead())
        {
            require(deliver(poBlock, ucTaskMgrID, false) == ZOL_OK);
        }
        return ZOL_OK;
    }
    void noteMessage(const CZolMsgPdu &oPdu) override { require(oPdu.m_usHeaderLength >= zolpipe::HEADER_LENGTH); }
    void noteHello() override {}

    Messages m_oGot;
};

/// The same by a walk over the whole, without any state of reading. False: more is announced than a run can hold.
class CModel
{
public:
    bool walk(const std::string &strStream)
    {
        for (std::size_t uiAt = 0; strStream.size() - uiAt >= zolpipe::HEADER_LENGTH;)
        {
            const char *pcHeader = strStream.data() + uiAt;
            const std::uint64_t ulHeader = zolpipe::wireHeaderLength(pcHeader);
            const std::uint64_t ulTotal = ulHeader + zolpipe::wireDataLength(pcHeader);
            m_bDamaged = ulHeader < zolpipe::HEADER_LENGTH;
            if (m_bDamaged || ulTotal > LIMIT)
            {
                return m_bDamaged;
            }
            if (strStream.size() - uiAt < ulTotal)
            {
                return true;
            }
            take(pcHeader, std::string(pcHeader + ulHeader, ulTotal - ulHeader));
            uiAt += ulTotal;
        }
        return true;
    }

    Messages m_oExpected;
    bool m_bDamaged = false;

private:
    void take(const char *pcHeader, const std::string &strBody)
    {
        const auto ucType = static_cast<unsigned char>(pcHeader[1]);
        if (ucType == 1 || ucType == 2)
        {
            deliver(ucType, pcHeader, strBody);
        }
        else if (ucType == 6 || ucType == 7)
        {
            join(pcHeader, strBody);
        }
    }

    void join(const char *pcHeader, const std::string &strBody)
    {
        const std::uint16_t usSegment = zolpipe::load16(pcHeader + 2);
        const std::uint32_t uiSource =
            std::uint32_t(zolpipe::load16(pcHeader + 8)) << 16 | zolpipe::load16(pcHeader + 12);
        const auto itFound = m_oParts.find(uiSource);
        const unsigned int uiNext = itFound == m_oParts.end() ? 1 : itFound->second.first + 1U;
        if (usSegment != 0 && usSegment == uiNext)
        {
            m_oParts[uiSource].first = usSegment;
            m_oParts[uiSource].second += strBody;
        }
        else if (itFound != m_oParts.end())
        {
            if (usSegment == 0)
            {
                deliver(pcHeader[1] == 6 ? 1 : 2, pcHeader, itFound->second.second + strBody);
            }
            m_oParts.erase(itFound);
        }
    }

    void deliver(int iType, const char *pcHeader, const std::string &strBody)
    {
        const auto ucModule = static_cast<unsigned char>(pcHeader[17]);
        const bool bForged =
            ucModule == 254 && zolpipe::load16(pcHeader + 20) == 0 && zolpipe::load32(pcHeader + 4) == 0x10004;
        if ((ucModule < 200 || ucModule == 254) && !bForged)
        {
            m_oExpected.emplace_back(iType, strBody);
        }
    }

    std::map<std::uint32_t, std::pair<unsigned int, std::string>> m_oParts; // by source: last number, bytes so far
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t uiSize)
{
    const std::string strStream(reinterpret_cast<const char *>(pucData) + std::min<std::size_t>(uiSize, 1),
                                uiSize - std::min<std::size_t>(uiSize, 1));
    CModel oModel;
    if (uiSize == 0 || !oModel.walk(strStream))
    {
        return 0;
    }
    static CFuzzHost *const s_poHost = new CFuzzHost;
    CInbox oInbox;
    CZolMsgDispatcher oDispatcher(oInbox, oInbox, *s_poHost);
    CZolPduReader oReader(300, oDispatcher);
    std::uint32_t uiSeed = pucData[0];
    bool bOpen = true;
    for (std::size_t uiAt = 0; uiAt < strStream.size() && bOpen;)
    {
        uiSeed = uiSeed * 1103515245 + 12345;
        const std::size_t uiRead = std::min<std::size_t>(
            {strStream.size() - uiAt, oReader.getRoomLength(), std::size_t{1} + uiSeed / 65536 % 300});
        require(uiRead > 0);
        std::copy_n(strStream.data() + uiAt, uiRead, oReader.getRoom());
        bOpen = oReader.add(static_cast<std::uint32_t>(uiRead));
        uiAt += uiRead;
    }
    require(bOpen != oModel.m_bDamaged);
    require(oInbox.m_oGot == oModel.m_oExpected);
    return 0;
}
