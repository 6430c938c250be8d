#include "ZolVekRuns.h"

#include <memory>
#include <vector>

namespace
{

// A process has one big message under way to another one. Whoever forwards messages of others may have more, and one
// that makes up sources would have as many as it likes.
const std::size_t MAX_SPARE_RUNS = 4096;

} // namespace

void CZolVekRuns::noteBlock(CZolVekSession &oTarget, CZolVekSession &oFrom, const CZolVekFrame &oFrame,
                            const SZolVekAddress *poAddress)
{
    if (!oFrame.isBlock())
    {
        return;
    }
    const TZolVekKey uiSource = oFrame.source();
    if (oFrame.segment() == 0)
    {
        endRun(oTarget, uiSource);
        return;
    }
    if (oTarget.m_poRuns == nullptr)
    {
        oTarget.m_poRuns = std::make_unique<std::unordered_map<TZolVekKey, SZolVekRun>>();
    }
    SZolVekRun &oRun = (*oTarget.m_poRuns)[uiSource];
    if (oRun.m_poOwner == nullptr)
    {
        oRun.m_poOwner = &oFrom;
        ++oFrom.m_uiRunsOwned;
        if (oTarget.m_poRuns->size() > m_oRoutes.size() + MAX_SPARE_RUNS)
        {
            m_oAgenda.doom(oFrom, "it has too many big messages under way");
        }
    }
    oRun.m_ulLastMs = m_oAgenda.m_ulNowMs;
    std::memcpy(oRun.m_acHeader, oFrame.data(), VEK_HEADER_BYTES);
    if (poAddress != nullptr)
    {
        zolVekPatch(oRun.m_acHeader, *poAddress);
    }
}

void CZolVekRuns::loseBlock(CZolVekSession &oTarget, CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (!oFrame.isBlock())
    {
        return;
    }
    const TZolVekKey uiSource = oFrame.source();
    const bool bUnderWay = oTarget.m_poRuns != nullptr && oTarget.m_poRuns->count(uiSource) != 0;
    if (bUnderWay && !(*oTarget.m_poRuns)[uiSource].m_bLost)
    {
        abortRun(oTarget, (*oTarget.m_poRuns)[uiSource]);
    }
    noteBlock(oTarget, oFrom, oFrame, nullptr);
    if (oFrame.segment() != 0)
    {
        (*oTarget.m_poRuns)[uiSource].m_bLost = true;
    }
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
    char acBlock[VEK_HEADER_BYTES];
    std::memcpy(acBlock, oRun.m_acHeader, sizeof acBlock);
    const std::uint16_t usLast = zolVekRead16(acBlock + VEK_AT_SEGMENT);
    // neither the number that follows, nor 0 or 1, which would end or begin a message
    zolVekWrite16(acBlock + VEK_AT_SEGMENT, usLast == 65534 ? 65533 : 65535);
    zolVekWrite16(acBlock + VEK_AT_HEADER_LENGTH, VEK_HEADER_BYTES);
    zolVekWrite32(acBlock + VEK_AT_DATA_LENGTH, 0);
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
    for (const auto &oPair : *oTarget.m_poRuns)
    {
        if (m_oAgenda.m_ulNowMs - oPair.second.m_ulLastMs >= ulStuckMs &&
            oPair.second.m_poOwner->m_poWaitsFor == nullptr)
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
