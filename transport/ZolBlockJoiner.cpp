#include "transport/ZolBlockJoiner.h"

#include "ZolRunLog.h"
#include "config/ZolCounters.h"
#include "transport/ZolFieldTail.h"

#include <cstring>
#include <limits>

namespace
{

const char *const JOIN_SCOPE = "CZolConnection::processBigMsgBlock"; // as readers of the log know it

std::uint32_t sourceOf(const CZolMsgPdu &oPdu)
{
    return (static_cast<std::uint32_t>(oPdu.m_usSrcProcID) << 16) | oPdu.m_usSrcProcHandle;
}

} // namespace

int CZolBlockJoiner::add(CZolMsgPdu *poPdu, CZolMsgPdu *&poWhole)
{
    poWhole = nullptr;
    if (poPdu->m_usSegmentNo != 0)
    {
        if (saveBigMsgBlock(poPdu) == 0)
        {
            return 0;
        }
        delete poPdu;
        return -1;
    }
    logWithFields(&CZolDebugInfo::info, JOIN_SCOPE, "big message last block receive, ", *poPdu);
    const auto itFound = m_oBigMsgIndex.find(sourceOf(*poPdu));
    if (itFound == m_oBigMsgIndex.end())
    {
        zolCount(zolCounters().m_ulBigMsgBroken);
        logWithFields(&CZolDebugInfo::fatal, JOIN_SCOPE, "only find one block of big message, ", *poPdu);
        delete poPdu;
        return -1;
    }
    SZolBigMsgItem *poItem = *itFound->second;
    m_oBigMsgList.erase(itFound->second);
    m_oBigMsgIndex.erase(itFound);
    poWhole = join(poItem, poPdu);
    return poWhole != nullptr ? 0 : -1;
}

// Takes both over; null when it cannot be held.
CZolMsgPdu *CZolBlockJoiner::join(SZolBigMsgItem *poItem, CZolMsgPdu *poLast)
{
    const std::uint64_t ulTotal =
        std::uint64_t(poLast->m_usHeaderLength) + poItem->m_ulDataBytes + poLast->m_ulDataLength;
    CZolMsgPdu *poWhole = nullptr;
    if (ulTotal <= std::numeric_limits<std::uint32_t>::max() - ZOL_BLOCK_HEADER)
    {
        poWhole = new (static_cast<unsigned int>(ulTotal)) CZolMsgPdu;
    }
    if (poWhole == nullptr)
    {
        zolCount(zolCounters().m_ulBigMsgBroken);
        logWithFields(&CZolDebugInfo::error, JOIN_SCOPE, "alloc memory failed when process message, ", *poLast);
        delete poLast;
        freeBlocks(poItem);
        return nullptr;
    }
    // the header of the last block heads the whole
    char *pcTo = reinterpret_cast<char *>(poWhole);
    std::memcpy(pcTo, poLast, poLast->m_usHeaderLength);
    pcTo += poLast->m_usHeaderLength;
    poItem->m_poBlockList->insert(zolBlockOf(poLast));
    while (CZolMemBlock *poBlock = poItem->m_poBlockList->popHead())
    {
        const CZolMsgPdu *poPart = zolPduOf(poBlock);
        std::memcpy(pcTo, zolPayload(poPart), poPart->m_ulDataLength);
        pcTo += poPart->m_ulDataLength;
        CZolMemBlock::freeMem(poBlock);
    }
    freeBlocks(poItem);
    poWhole->m_usSegmentNo = 0;
    poWhole->m_ulDataLength = static_cast<ACE_UINT32>(ulTotal - poWhole->m_usHeaderLength);
    poWhole->m_ucMsgType =
        poWhole->m_ucMsgType == CZolMsgPdu::MSG_BIG_REQUEST ? CZolMsgPdu::MSG_REQUEST : CZolMsgPdu::MSG_RESPONSE;
    logWithFields(&CZolDebugInfo::info, JOIN_SCOPE, "big message all block receive, ", *poWhole);
    return poWhole;
}

int CZolBlockJoiner::saveBigMsgBlock(CZolMsgPdu *poPdu)
{
    const char *const pcScope = "CZolConnection::saveBigMsgBlock";
    const auto itFound = m_oBigMsgIndex.find(sourceOf(*poPdu));
    const bool bFound = itFound != m_oBigMsgIndex.end();
    SZolBigMsgItem *poItem = bFound ? *itFound->second : nullptr;
    const unsigned int uiExpected = bFound ? poItem->m_usLastSegment + 1U : 1U;
    if (poPdu->m_usSegmentNo != uiExpected)
    {
        zolCount(zolCounters().m_ulBigMsgBroken);
        logWithFields(&CZolDebugInfo::fatal, pcScope, "disordered big message block receive, ", *poPdu);
        if (bFound)
        {
            m_oBigMsgList.erase(itFound->second);
            m_oBigMsgIndex.erase(itFound);
            freeBlocks(poItem);
        }
        return -1;
    }
    if (!bFound)
    {
        poItem = new SZolBigMsgItem{new CZolMemList, poPdu->m_usSrcProcID, poPdu->m_usSrcProcHandle, 0, 0};
        m_oBigMsgIndex[sourceOf(*poPdu)] = m_oBigMsgList.insert(m_oBigMsgList.end(), poItem);
    }
    poItem->m_poBlockList->insert(zolBlockOf(poPdu));
    poItem->m_usLastSegment = poPdu->m_usSegmentNo;
    poItem->m_ulDataBytes += poPdu->m_ulDataLength;
    logWithFields(&CZolDebugInfo::info, pcScope, "big message block receive, ", *poPdu);
    return 0;
}

// Frees an item that stands on no list any more, with the blocks that it still has.
void CZolBlockJoiner::freeBlocks(SZolBigMsgItem *poItem)
{
    poItem->m_poBlockList->deleteAll();
    delete poItem->m_poBlockList;
    delete poItem;
}

void CZolBlockJoiner::reset()
{
    for (SZolBigMsgItem *poItem : m_oBigMsgList)
    {
        freeBlocks(poItem);
    }
    m_oBigMsgList.clear();
    m_oBigMsgIndex.clear();
}
