#include "gateway/route/ZolVekDelivery.h"

#include "ZolRunLog.h"

#include <cinttypes>

SZolVekRecord *CZolVekDelivery::recordOf(const CZolVekFrame &oFrame)
{
    if (oFrame.m_poRecord != nullptr)
    {
        return oFrame.m_poRecord;
    }
    m_oTurnRecords.push_back(SZolVekRecord::borrow(oFrame.data(), oFrame.length(), &m_oMemory));
    return m_oTurnRecords.back();
}

void CZolVekDelivery::endTurn()
{
    for (SZolVekRecord *poRecord : m_oTurnRecords)
    {
        if (poRecord->m_uiRefs > 1)
        {
            poRecord->keep();
        }
        poRecord->drop();
    }
    m_oTurnRecords.clear();
}

void CZolVekDelivery::drop(std::uint64_t &ulCounter, const CZolVekFrame &oFrame, const char *pcWhy)
{
    ++ulCounter;
    const TZolVekKey uiKey = oFrame.destination();
    std::uint64_t ulHeldBack = 0;
    if (!m_oDropLines[&ulCounter].pass(uiKey, m_oAgenda.m_ulNowMs, ulHeldBack))
    {
        return;
    }
    CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekDelivery::drop",
                     "%s, type %u, command %u, from process %u handle %u to process %u handle %u, and %" PRIu64
                     " more since the last line",
                     pcWhy, oFrame.type(), oFrame.command(), zolVekProcOf(oFrame.source()),
                     zolVekHandleOf(oFrame.source()), zolVekProcOf(uiKey), zolVekHandleOf(uiKey), ulHeldBack);
}
