#include "gateway/route/ZolVekBackPressure.h"

#include "ZolRunLog.h"

#include <cinttypes>

void CZolVekBackPressure::beginTurn()
{
    // The last sixteenth of the total is shared out evenly, so that a healthy pipe moves on, if in smaller steps,
    // however much a few stopped ones hold.
    const std::uint64_t ulTotal = m_oSettings.m_ulTotalQueueBytes;
    const std::uint64_t ulReserve = ulTotal / 16;
    m_ulLimit = m_oSettings.m_ulPipeQueueBytes;
    m_bTight = m_oMemory.m_ulBytes >= ulTotal - ulReserve;
    if (m_bTight)
    {
        m_ulLimit = std::min(m_ulLimit, ulReserve / std::max<std::uint64_t>(1, m_oRoutes.size()));
    }
}

void CZolVekBackPressure::dropSlow(CZolVekSession &oTarget, const CZolVekFrame &oFrame)
{
    ++oTarget.m_ulFramesDropped;
    m_oDelivery.drop(m_oStatistics.m_ulDropSlow, oFrame, "the queue of the destination is full");
}

bool CZolVekBackPressure::isOfLostRun(const CZolVekSession &oTarget, const CZolVekSession *poFrom,
                                      const CZolVekFrame &oFrame)
{
    if (oTarget.m_poRuns == nullptr || !oFrame.isBlock() || oFrame.segment() == 1)
    {
        return false;
    }
    const auto oFound = oTarget.m_poRuns->find(oFrame.source());
    return oFound != oTarget.m_poRuns->end() && oFound->second.m_bLost && oFound->second.m_poOwner == poFrom;
}

EnumZolVekRoom CZolVekBackPressure::roomAt(CZolVekSession &oTarget, const CZolVekSession *poFrom,
                                           const CZolVekFrame &oFrame)
{
    if (!oTarget.isFree(oFrame, poFrom))
    {
        return VEK_ROOM_WAIT;
    }
    if (isOfLostRun(oTarget, poFrom, oFrame))
    {
        dropSlow(oTarget, oFrame);
        return VEK_ROOM_DROP;
    }
    if (isLow(oTarget) || oTarget.m_oOutbox.isEmpty() ||
        (poFrom != nullptr && poFrom->m_bBroken && oTarget.m_oOutbox.bytes() < 2 * m_ulLimit))
    {
        return VEK_ROOM_YES;
    }
    switch (m_oSettings.m_eSlowConsumer)
    {
    case VEK_SLOW_DROP:
        dropSlow(oTarget, oFrame);
        return VEK_ROOM_DROP;
    case VEK_SLOW_CLOSE:
        m_oAgenda.closeLater(oTarget, "its queue is full");
        dropSlow(oTarget, oFrame);
        return VEK_ROOM_DROP;
    default:
        return VEK_ROOM_WAIT;
    }
}

EnumZolVekVerdict CZolVekBackPressure::stall(CZolVekSession &oFrom, CZolVekSession &oTarget)
{
    if (oFrom.m_poWaitsFor == nullptr)
    {
        oFrom.m_poWaitsFor = &oTarget;
        oTarget.m_oWaiters.push_back(&oFrom);
        ++m_oStatistics.m_ulStalls;
        std::uint64_t ulHeldBack = 0;
        const bool bFull = !isLow(oTarget); // else oFrom waits for the end of a big message
        if (&oFrom != &oTarget && bFull && m_oSlowLines.pass(oTarget.m_uiKey, m_oAgenda.m_ulNowMs, ulHeldBack))
        {
            CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekBackPressure::stall",
                             "%s is slow, %" PRIu64 " bytes wait for it; %s is not read until then, and %" PRIu64
                             " more since the last line",
                             oTarget.name().c_str(), oTarget.m_oOutbox.bytes(), oFrom.name().c_str(), ulHeldBack);
        }
    }
    return VEK_STALLED;
}

void CZolVekBackPressure::wakeWaiters(CZolVekSession &oTarget)
{
    if (oTarget.m_oWaiters.empty() || isAboveHalf(oTarget))
    {
        return;
    }
    for (CZolVekSession *poWaiter : oTarget.m_oWaiters)
    {
        poWaiter->m_poWaitsFor = nullptr;
        m_oAgenda.ready(*poWaiter);
    }
    oTarget.m_oWaiters.clear();
}

void CZolVekBackPressure::release(CZolVekSession &oFrom)
{
    if (oFrom.m_poWaitsFor != nullptr)
    {
        auto &oWaiters = oFrom.m_poWaitsFor->m_oWaiters;
        oWaiters.erase(std::remove(oWaiters.begin(), oWaiters.end(), &oFrom), oWaiters.end());
        oFrom.m_poWaitsFor = nullptr;
    }
}

void CZolVekBackPressure::gone(CZolVekSession &oSession)
{
    release(oSession);
    for (CZolVekSession *poWaiter : oSession.m_oWaiters)
    {
        poWaiter->m_poWaitsFor = nullptr;
        m_oAgenda.ready(*poWaiter);
    }
    oSession.m_oWaiters.clear();
}
