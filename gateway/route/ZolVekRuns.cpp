#include "gateway/route/ZolVekRuns.h"

#include <memory>
#include <vector>

namespace
{

// A process has one big message under way to another one. Whoever forwards messages of others may have more, and one
// that makes up sources would have as many as it likes. It alone pays for that, not who begins the next one there.
const std::size_t MAX_SPARE_RUNS = 4096;

} // namespace

SZolVekRun *CZolVekRuns::find(const CZolVekSession &oTarget, TZolVekKey uiSource)
{
    if (oTarget.m_poRuns == nullptr)
    {
        return nullptr;
    }
    const auto oFound = oTarget.m_poRuns->find(uiSource);
    return oFound == oTarget.m_poRuns->end() ? nullptr : &oFound->second;
}

SZolVekRun &CZolVekRuns::begin(CZolVekSession &oTarget, CZolVekSession &oFrom, TZolVekKey uiSource)
{
    if (oTarget.m_poRuns == nullptr)
    {
        oTarget.m_poRuns = std::make_unique<std::unordered_map<TZolVekKey, SZolVekRun>>();
    }
    SZolVekRun &oRun = (*oTarget.m_poRuns)[uiSource];
    oRun.m_poOwner = &oFrom;
    // a broadcast is a run to everybody
    if (++oFrom.m_uiRunsOwned > m_oRoutes.size() + MAX_SPARE_RUNS)
    {
        m_oAgenda.closeLater(oFrom, "it has too many big messages under way");
    }
    return oRun;
}

void CZolVekRuns::goOn(SZolVekRun &oRun, const CZolVekFrame &oFrame) const
{
    oRun.m_ulLastMs = m_oAgenda.m_ulNowMs;
    std::memcpy(oRun.m_acHeader, oFrame.data(), zolwire::HEADER_BYTES);
}

void CZolVekRuns::makeWay(CZolVekSession &oTarget, const CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (oTarget.m_poRuns == nullptr || !oFrame.isBlock() || !oFrom.isSourceOf(oFrame))
    {
        return;
    }
    const SZolVekRun *const poRun = find(oTarget, oFrame.source());
    if (poRun == nullptr || poRun->m_poOwner == &oFrom)
    {
        return;
    }
    if (!poRun->m_bLost)
    {
        abortRun(oTarget, *poRun);
    }
    endRun(oTarget, oFrame.source());
}

void CZolVekRuns::noteBlock(CZolVekSession &oTarget, CZolVekSession &oFrom, const CZolVekFrame &oFrame,
                            const SZolVekAddress *poAddress)
{
    if (!oFrame.isBlock())
    {
        return;
    }
    const TZolVekKey uiSource = oFrame.source();
    const std::uint16_t usNumber = oFrame.segment();
    SZolVekRun *poRun = find(oTarget, uiSource);
    if (poRun == nullptr && usNumber != 1)
    {
        return; // belongs to nothing, and the receiver drops it
    }
    if (poRun == nullptr)
    {
        poRun = &begin(oTarget, oFrom, uiSource);
    }
    else if (poRun->m_bLost && usNumber == 1)
    {
        poRun->m_bLost = false; // the next message, at a receiver that holds nothing of the last one
    }
    else if (usNumber == 0 || usNumber != poRun->last() + 1)
    {
        endRun(oTarget, uiSource); // done, or the receiver drops its part and this block
        return;
    }
    goOn(*poRun, oFrame);
    if (poAddress != nullptr)
    {
        zolVekPatch(poRun->m_acHeader, *poAddress);
    }
}

void CZolVekRuns::loseBlock(CZolVekSession &oTarget, CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (!oFrame.isBlock())
    {
        return;
    }
    makeWay(oTarget, oFrom, oFrame);
    const TZolVekKey uiSource = oFrame.source();
    SZolVekRun *poRun = find(oTarget, uiSource);
    if (poRun != nullptr && !poRun->m_bLost)
    {
        abortRun(oTarget, *poRun);
    }
    if (oFrame.segment() == 0)
    {
        endRun(oTarget, uiSource);
        return;
    }
    if (poRun == nullptr && oFrame.segment() != 1)
    {
        return;
    }
    poRun = poRun == nullptr ? &begin(oTarget, oFrom, uiSource) : poRun;
    goOn(*poRun, oFrame);
    poRun->m_bLost = true;
}

void CZolVekRuns::endRun(CZolVekSession &oTarget, TZolVekKey uiSource)
{
    if (oTarget.m_poRuns == nullptr)
    {
        return;
    }
    const auto oFound = oTarget.m_poRuns->find(uiSource);
    if (oFound == oTarget.m_poRuns->end())
    {
        return;
    }
    --oFound->second.m_poOwner->m_uiRunsOwned;
    oTarget.m_poRuns->erase(oFound);
    if (oTarget.m_poRuns->empty())
    {
        oTarget.m_poRuns.reset();
    }
    m_oBackPressure.wakeWaiters(oTarget);
}

void CZolVekRuns::abortRun(CZolVekSession &oTarget, const SZolVekRun &oRun)
{
    char acBlock[zolwire::HEADER_BYTES];
    std::memcpy(acBlock, oRun.m_acHeader, sizeof acBlock);
    const std::uint16_t usLast = zolwire::load16(acBlock + zolwire::AT_SEGMENT);
    // neither the number that follows, nor 0 or 1, which would end or begin a message
    zolwire::store16(acBlock + zolwire::AT_SEGMENT, usLast == 65534 ? 65533 : 65535);
    zolwire::store16(acBlock + zolwire::AT_HEADER_LENGTH, zolwire::HEADER_BYTES);
    zolwire::store32(acBlock + zolwire::AT_DATA_LENGTH, 0);
    oTarget.m_oOutbox.addCopy(acBlock, sizeof acBlock);
    m_oAgenda.dirty(oTarget);
    ++m_oStatistics.m_ulRunAborts;
}

void CZolVekRuns::abortRunsOf(const CZolVekSession &oOwner)
{
    m_oRoutes.forEach(
        [&](CZolVekSession *poTarget)
        {
            if (poTarget->m_poRuns == nullptr)
            {
                return;
            }
            for (auto oAt = poTarget->m_poRuns->begin(); oAt != poTarget->m_poRuns->end();)
            {
                if (oAt->second.m_poOwner != &oOwner)
                {
                    ++oAt;
                    continue;
                }
                if (!oAt->second.m_bLost)
                {
                    abortRun(*poTarget, oAt->second);
                }
                oAt = poTarget->m_poRuns->erase(oAt);
            }
            if (poTarget->m_poRuns->empty())
            {
                poTarget->m_poRuns.reset();
            }
            m_oBackPressure.wakeWaiters(*poTarget);
        });
}

void CZolVekRuns::endStuck(CZolVekSession &oTarget)
{
    if (oTarget.m_poRuns == nullptr || oTarget.m_oWaiters.empty())
    {
        return;
    }
    const std::uint64_t ulStuckMs = std::uint64_t{1000} * m_oSettings.m_uiStuckSeconds;
    std::vector<TZolVekKey> oStuck;
    for (auto &oPair : *oTarget.m_poRuns)
    {
        SZolVekRun &oRun = oPair.second;
        if (m_oBackPressure.waitsForRoom(*oRun.m_poOwner))
        {
            oRun.m_ulLastMs = m_oAgenda.m_ulNowMs; // it is up to us
        }
        else if (m_oAgenda.m_ulNowMs - oRun.m_ulLastMs >= ulStuckMs) // two owners may wait for each other's runs
        {
            oStuck.push_back(oPair.first);
        }
    }
    for (const TZolVekKey uiSource : oStuck)
    {
        abortRun(oTarget, (*oTarget.m_poRuns)[uiSource]);
        endRun(oTarget, uiSource);
    }
}

void CZolVekRuns::gone(CZolVekSession &oSession)
{
    if (oSession.m_poRuns != nullptr)
    {
        for (auto &oPair : *oSession.m_poRuns)
        {
            --oPair.second.m_poOwner->m_uiRunsOwned;
        }
        oSession.m_poRuns.reset();
    }
    if (oSession.m_uiRunsOwned > 0)
    {
        abortRunsOf(oSession);
    }
}
