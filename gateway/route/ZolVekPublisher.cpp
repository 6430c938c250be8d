#include "gateway/route/ZolVekPublisher.h"

#include "ZolRunLog.h"

#include <algorithm>
#include <cinttypes>
#include <memory>
#include <unordered_set>

namespace
{

const std::size_t MAX_PUBLICATIONS = 1024; // big ones of one pipe, under way at once

bool isWhole(const CZolVekFrame &oFrame)
{
    return oFrame.type() == CZolMsgPdu::MSG_REQUEST || oFrame.type() == CZolMsgPdu::MSG_MULTICAST;
}

} // namespace

EnumZolVekVerdict CZolVekPublisher::toAll(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    CZolVekSession *poFull = nullptr;
    m_oRoutes.forEach(
        [&](CZolVekSession *poTarget)
        {
            if (poTarget != &oFrom && poFull == nullptr &&
                (!poTarget->isFree(oFrame, &oFrom) ||
                 (m_oSettings.m_eSlowConsumer == VEK_SLOW_BLOCK &&
                  m_oBackPressure.roomAt(*poTarget, &oFrom, oFrame) == VEK_ROOM_WAIT)))
            {
                poFull = poTarget;
            }
        });
    if (poFull != nullptr)
    {
        return m_oBackPressure.stall(oFrom, *poFull); // before anyone gets it: it comes again as a whole
    }
    SZolVekRecord *const poRecord = m_oDelivery.recordOf(oFrame);
    m_oRoutes.forEach(
        [&](CZolVekSession *poTarget)
        {
            if (poTarget == &oFrom)
            {
                return;
            }
            if (m_oSettings.m_eSlowConsumer != VEK_SLOW_BLOCK &&
                m_oBackPressure.roomAt(*poTarget, &oFrom, oFrame) != VEK_ROOM_YES)
            {
                m_oRuns.loseBlock(*poTarget, oFrom, oFrame);
                return;
            }
            m_oRuns.makeWay(*poTarget, oFrom, oFrame);
            poTarget->m_oOutbox.addRecord(poRecord, SZolVekAddress());
            m_oDelivery.queued(&oFrom, *poTarget, oFrame.length());
            m_oRuns.noteBlock(*poTarget, oFrom, oFrame, nullptr);
        });
    return VEK_TAKEN;
}

EnumZolVekVerdict CZolVekPublisher::toSubscribers(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (m_oAgenda.m_ulNowMs < m_ulGraceUntilMs || !m_oHeld.empty())
    {
        return hold(oFrom, oFrame);
    }
    if (!isWhole(oFrame))
    {
        return publishBlock(oFrom, oFrame, false);
    }
    const std::vector<SZolVekSubscriber> *const poSubscribers = m_oSubscriptions.find(oFrame.command());
    return poSubscribers == nullptr ? VEK_TAKEN : publishTo(&oFrom, oFrame, *poSubscribers, false);
}

CZolVekSession *CZolVekPublisher::findFull(const CZolVekSession *poFrom, const CZolVekFrame &oFrame,
                                           const std::vector<SZolVekSubscriber> &oSubscribers)
{
    for (const SZolVekSubscriber &oSubscriber : oSubscribers)
    {
        CZolVekSession &oTarget = *oSubscriber.m_poSession;
        if (!oTarget.isFree(oFrame, poFrom) || (m_oSettings.m_eSlowConsumer == VEK_SLOW_BLOCK &&
                                                m_oBackPressure.roomAt(oTarget, poFrom, oFrame) == VEK_ROOM_WAIT))
        {
            return &oTarget;
        }
    }
    return nullptr;
}

EnumZolVekVerdict CZolVekPublisher::publishTo(CZolVekSession *poFrom, const CZolVekFrame &oFrame,
                                              const std::vector<SZolVekSubscriber> &oSubscribers, bool bHeld)
{
    CZolVekSession *const poFull = bHeld ? nullptr : findFull(poFrom, oFrame, oSubscribers);
    if (poFull != nullptr)
    {
        return m_oBackPressure.stall(*poFrom, *poFull); // before anyone gets it: it comes again as a whole
    }
    SZolVekRecord *const poRecord = m_oDelivery.recordOf(oFrame);
    for (const SZolVekSubscriber &oSubscriber : oSubscribers)
    {
        CZolVekSession &oTarget = *oSubscriber.m_poSession;
        if (m_oSettings.m_eSlowConsumer != VEK_SLOW_BLOCK &&
            m_oBackPressure.roomAt(oTarget, poFrom, oFrame) != VEK_ROOM_YES)
        {
            if (poFrom != nullptr)
            {
                m_oRuns.loseBlock(oTarget, *poFrom, oFrame);
            }
            continue;
        }
        const SZolVekAddress oAddress = {oTarget.m_uiKey, oSubscriber.m_ucModule, oSubscriber.m_usTask,
                                         isWhole(oFrame) ? static_cast<std::uint8_t>(CZolMsgPdu::MSG_REQUEST)
                                                         : static_cast<std::uint8_t>(CZolMsgPdu::MSG_BIG_REQUEST)};
        if (poFrom != nullptr)
        {
            m_oRuns.makeWay(oTarget, *poFrom, oFrame);
        }
        oTarget.m_oOutbox.addRecord(poRecord, oAddress);
        m_oDelivery.queued(poFrom, oTarget, oFrame.length());
        if (poFrom != nullptr)
        {
            m_oRuns.noteBlock(oTarget, *poFrom, oFrame, &oAddress);
        }
    }
    return VEK_TAKEN;
}

EnumZolVekVerdict CZolVekPublisher::publishBlock(CZolVekSession &oFrom, const CZolVekFrame &oFrame, bool bHeld)
{
    const TZolVekKey uiSource = oFrame.source();
    if (oFrom.m_poPublications == nullptr)
    {
        oFrom.m_poPublications = std::make_unique<std::unordered_map<TZolVekKey, SZolVekPublication>>();
    }
    const auto oResult = oFrom.m_poPublications->insert({uiSource, SZolVekPublication()});
    SZolVekPublication &oPublication = oResult.first->second;
    if (oResult.second)
    {
        begin(oFrom, oFrame, oPublication);
    }
    if (publishTo(&oFrom, oFrame, oPublication.m_oNow, bHeld) == VEK_STALLED)
    {
        return VEK_STALLED;
    }
    if (!oPublication.m_oLater.empty())
    {
        keepBlock(oFrom, oPublication, m_oDelivery.recordOf(oFrame));
    }
    if (oFrame.segment() == 0)
    {
        finish(oFrom, uiSource, oPublication);
    }
    return VEK_TAKEN;
}

void CZolVekPublisher::begin(CZolVekSession &oFrom, const CZolVekFrame &oFrame, SZolVekPublication &oPublication)
{
    ++m_uiPublications;
    if (oFrom.m_poPublications->size() > MAX_PUBLICATIONS)
    {
        m_oAgenda.closeLater(oFrom, "it has too many big messages under way");
    }
    const std::vector<SZolVekSubscriber> *const poSubscribers = m_oSubscriptions.find(oFrame.command());
    std::unordered_set<const CZolVekSession *> oSeen;
    for (const SZolVekSubscriber &oSubscriber :
         poSubscribers == nullptr ? std::vector<SZolVekSubscriber>() : *poSubscribers)
    {
        const bool bFirst = oSeen.insert(oSubscriber.m_poSession).second;
        (bFirst ? oPublication.m_oNow : oPublication.m_oLater).push_back(oSubscriber);
    }
}

void CZolVekPublisher::keepBlock(CZolVekSession &oFrom, SZolVekPublication &oPublication, SZolVekRecord *poRecord)
{
    poRecord->take();
    oPublication.m_oBlocks.push_back(poRecord);
    const std::uint64_t ulBytes = std::uint64_t{poRecord->m_uiLength} + SZolVekRecord::OVERHEAD_BYTES;
    oPublication.m_ulBytes += ulBytes;
    oFrom.m_ulKeptBytes += ulBytes;
    if (oFrom.m_ulKeptBytes <= m_oSettings.m_ulPipeQueueBytes)
    {
        return;
    }
    CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekPublisher::keepBlock",
                     "a publication of more than %" PRIu64 " bytes reaches only the first task of each process",
                     m_oSettings.m_ulPipeQueueBytes);
    m_oStatistics.m_ulDropSlow += oPublication.m_oLater.size();
    for (SZolVekRecord *poBlock : oPublication.m_oBlocks)
    {
        poBlock->drop();
    }
    oFrom.m_ulKeptBytes -= oPublication.m_ulBytes;
    oPublication.m_ulBytes = 0;
    oPublication.m_oBlocks.clear();
    oPublication.m_oLater.clear();
}

void CZolVekPublisher::finish(CZolVekSession &oFrom, TZolVekKey uiSource, SZolVekPublication &oPublication)
{
    for (const SZolVekSubscriber &oSubscriber : oPublication.m_oLater)
    {
        CZolVekSession &oTarget = *oSubscriber.m_poSession;
        for (SZolVekRecord *poBlock : oPublication.m_oBlocks)
        {
            oTarget.m_oOutbox.addRecord(
                poBlock, {oTarget.m_uiKey, oSubscriber.m_ucModule, oSubscriber.m_usTask, CZolMsgPdu::MSG_BIG_REQUEST});
            m_oDelivery.queued(&oFrom, oTarget, poBlock->m_uiLength);
        }
    }
    for (SZolVekRecord *poBlock : oPublication.m_oBlocks)
    {
        poBlock->drop();
    }
    oFrom.m_ulKeptBytes -= oPublication.m_ulBytes;
    oFrom.m_poPublications->erase(uiSource);
    --m_uiPublications;
}

// ---- Grace --------------------------------------------------------------------------------------------------------

EnumZolVekVerdict CZolVekPublisher::hold(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    const std::uint64_t ulBytes = std::uint64_t{oFrame.length()} + SZolVekRecord::OVERHEAD_BYTES;
    if (m_ulHeldBytes + ulBytes > m_oSettings.m_ulPipeQueueBytes)
    {
        return m_oBackPressure.stall(oFrom, oFrom); // releaseHeld() wakes it
    }
    SZolVekRecord *const poRecord = m_oDelivery.recordOf(oFrame);
    poRecord->take();
    m_oHeld.push_back({&oFrom, poRecord});
    m_ulHeldBytes += ulBytes;
    return VEK_TAKEN;
}

void CZolVekPublisher::releaseHeld(std::uint64_t *pulUnheard)
{
    std::deque<SHeld> oHeld;
    oHeld.swap(m_oHeld);
    m_ulHeldBytes = 0;
    for (const SHeld &oOne : oHeld)
    {
        CZolVekFrame oFrame(oOne.m_poRecord->m_pcData, oOne.m_poRecord->m_uiLength);
        oFrame.m_poRecord = oOne.m_poRecord;
        const std::vector<SZolVekSubscriber> *const poSubscribers = m_oSubscriptions.find(oFrame.command());
        if (pulUnheard != nullptr && (poSubscribers == nullptr || (!isWhole(oFrame) && oOne.m_poFrom == nullptr)))
        {
            ++*pulUnheard;
        }
        if (isWhole(oFrame) && poSubscribers != nullptr)
        {
            publishTo(oOne.m_poFrom, oFrame, *poSubscribers, true);
        }
        else if (!isWhole(oFrame) && oOne.m_poFrom != nullptr)
        {
            publishBlock(*oOne.m_poFrom, oFrame, true);
        }
        oOne.m_poRecord->drop();
    }
    m_oRoutes.forEach([&](CZolVekSession *poSession) { m_oBackPressure.wakeWaiters(*poSession); });
}

void CZolVekPublisher::tick()
{
    if (m_ulGraceUntilMs != 0 && m_oAgenda.m_ulNowMs >= m_ulGraceUntilMs)
    {
        m_ulGraceUntilMs = 0;
        releaseHeld(nullptr);
    }
}

void CZolVekPublisher::endGrace()
{
    m_ulGraceUntilMs = 0;
    releaseHeld(&m_oStatistics.m_ulDropDraining);
}

// ---- A pipe has gone ----------------------------------------------------------------------------------------------

void CZolVekPublisher::forget(const CZolVekSession &oSession, std::vector<SZolVekSubscriber> &oSubscribers)
{
    oSubscribers.erase(std::remove_if(oSubscribers.begin(), oSubscribers.end(),
                                      [&](const SZolVekSubscriber &o) { return o.m_poSession == &oSession; }),
                       oSubscribers.end());
}

void CZolVekPublisher::gone(CZolVekSession &oSession)
{
    if (oSession.m_poPublications != nullptr)
    {
        m_uiPublications -= static_cast<unsigned int>(oSession.m_poPublications->size());
    }
    if (m_uiPublications > 0)
    {
        m_oRoutes.forEach(
            [&](CZolVekSession *poOther)
            {
                if (poOther->m_poPublications == nullptr)
                {
                    return;
                }
                for (auto &oPair : *poOther->m_poPublications)
                {
                    forget(oSession, oPair.second.m_oNow);
                    forget(oSession, oPair.second.m_oLater);
                }
            });
    }
    for (SHeld &oHeld : m_oHeld)
    {
        oHeld.m_poFrom = oHeld.m_poFrom == &oSession ? nullptr : oHeld.m_poFrom;
    }
}
