#include "gateway/watch/ZolVekReporter.h"

#include "ZolRunLog.h"

#include "gateway/watch/ZolVekLog.h"

#include <algorithm>
#include <unordered_map>

namespace
{

const std::uint64_t FLOWS_COUNT_MS = 15000;   // flows are counted for so long after somebody wanted them
const std::uint64_t SLOW_AFTER_MS = 5000;     // a pipe that took nothing for so long, with something waiting
const std::uint64_t ASK_AFTER_MS = 2000;      // without a byte from a process that was sent something
const std::uint64_t SILENT_AFTER_MS = 3000;   // without an answer to a hello
const std::size_t MOST_SUBSCRIPTIONS = 20000; // that are listed
const std::uint64_t SLOW_QUEUE_SHARE = 2;     // a queue that is full to one of so many parts

EnumZolEventLevel eventLevelOf(int iLevel)
{
    return iLevel <= CZolRunLog::LEVEL_ERROR     ? ZOL_EVENT_ERROR
           : iLevel == CZolRunLog::LEVEL_WARNING ? ZOL_EVENT_WARNING
                                                 : ZOL_EVENT_INFO;
}

} // namespace

CZolVekReporter::CZolVekReporter(const SZolVekSettings &oSettings, const SZolVekStatistics &oStatistics,
                                 const CZolVekRoutes &oRoutes, CZolVekRouter &oRouter)
    : m_oSettings(oSettings), m_oStatistics(oStatistics), m_oRoutes(oRoutes), m_oRouter(oRouter), m_lStartedMs(wallMs())
{
}

std::int64_t CZolVekReporter::wallMs()
{
    timespec oNow{};
    clock_gettime(CLOCK_REALTIME, &oNow);
    return static_cast<std::int64_t>(oNow.tv_sec) * 1000 + oNow.tv_nsec / 1000000;
}

void CZolVekReporter::turnEnds()
{
    const std::uint64_t ulTookNs = nanoseconds() - m_ulTurnBeganNs;
    m_ulTurnNs += ulTookNs;
    const double dSeconds = static_cast<double>(ulTookNs) / 1e9;
    unsigned int uiBucket = 0;
    while (uiBucket < SZolLatencyView::BUCKETS && dSeconds > SZolLatencyView::sm_adBounds[uiBucket])
    {
        ++uiBucket;
    }
    ++m_aulTurns[uiBucket];
}

void CZolVekReporter::tick(std::uint64_t ulNowMs)
{
    if (m_ulFlowsWantedMs != 0 && ulNowMs - m_ulFlowsWantedMs > FLOWS_COUNT_MS)
    {
        m_ulFlowsWantedMs = 0;
        m_oRouter.countFlows(false);
    }
}

void CZolVekReporter::fill(SZolGatewaySnapshot &oSnapshot, std::uint64_t ulNowMs, unsigned int uiUnregistered,
                           bool bDraining)
{
    oSnapshot.m_lTakenMs = wallMs();
    oSnapshot.m_lStartedMs = m_lStartedMs;
    oSnapshot.m_bDraining = bDraining;
    oSnapshot.m_uiUnregistered = uiUnregistered;
    fillTotals(oSnapshot);
    fillPipes(oSnapshot, ulNowMs);
    if (!oSnapshot.m_bWatched)
    {
        return;
    }
    m_ulFlowsWantedMs = ulNowMs;
    m_oRouter.countFlows(true);
    fillEdges(oSnapshot);
    fillSubscriptions(oSnapshot);
    fillSettings(oSnapshot);
    CZolVekEvents::forEach(
        [&oSnapshot](const SZolVekEvent &oEvent)
        {
            oSnapshot.m_oEvents.push_back(
                {oEvent.m_ulNumber, oEvent.m_lWhenMs, eventLevelOf(oEvent.m_iLevel), oEvent.m_strText});
        });
}

void CZolVekReporter::fillTotals(SZolGatewaySnapshot &oSnapshot) const
{
    oSnapshot.m_ulFramesIn = m_oStatistics.m_ulFramesIn;
    oSnapshot.m_ulBytesIn = m_oStatistics.m_ulBytesIn;
    oSnapshot.m_ulFramesOut = m_oStatistics.m_ulFramesOut;
    oSnapshot.m_ulBytesOut = m_oStatistics.m_ulBytesOut;
    oSnapshot.m_ulConnections = m_oStatistics.m_ulAccepted;
    oSnapshot.m_ulCrowdedOut = m_oStatistics.m_ulCrowdedOut;
    oSnapshot.m_ulQueueLimitBytes = m_oSettings.m_ulTotalQueueBytes;
    oSnapshot.m_uiPipesLimit = m_oSettings.m_uiMaxConnections;
    oSnapshot.m_uiSubscriptions = static_cast<unsigned int>(m_oRouter.subscriptions().size());
    oSnapshot.m_oDrops = {{"no_route", m_oStatistics.m_ulDropNoRoute},
                          {"slow_consumer", m_oStatistics.m_ulDropSlow},
                          {"pipe_closed", m_oStatistics.m_ulDropQueued},
                          {"unknown_type", m_oStatistics.m_ulDropType},
                          {"forbidden_command", m_oStatistics.m_ulDropForbidden},
                          {"debug_not_allowed", m_oStatistics.m_ulDropDebug},
                          {"foreign_source", m_oStatistics.m_ulDropSource},
                          {"draining", m_oStatistics.m_ulDropDraining}};
    oSnapshot.m_oRegistrations = {{"0", m_oStatistics.m_ulRegistered},
                                  {"-1", m_oStatistics.m_ulRefusedDrain},
                                  {"-8", m_oStatistics.m_ulRefusedId},
                                  {"-9", m_oStatistics.m_ulRefusedUp},
                                  {"-10", m_oStatistics.m_ulRefusedFull}};
    std::copy(std::begin(m_aulTurns), std::end(m_aulTurns), std::begin(oSnapshot.m_oLatency.m_aulCounts));
    oSnapshot.m_oLatency.m_dSumSeconds = static_cast<double>(m_ulTurnNs) / 1e9;
}

bool CZolVekReporter::isSlow(const CZolVekSession &oSession, std::uint64_t ulNowMs) const
{
    return oSession.m_oOutbox.bytes() >= m_oSettings.m_ulPipeQueueBytes / SLOW_QUEUE_SHARE ||
           (oSession.m_ulStuckSinceMs != 0 && ulNowMs - oSession.m_ulStuckSinceMs >= SLOW_AFTER_MS);
}

bool CZolVekReporter::wantsAnswer(const CZolVekSession &oSession, std::uint64_t ulNowMs) const
{
    return m_ulFlowsWantedMs != 0 && oSession.m_ulAskedMs == 0 && oSession.m_poWaitsFor == nullptr &&
           oSession.m_ulSentMs > oSession.m_ulReceivedMs && ulNowMs - oSession.m_ulReceivedMs >= ASK_AFTER_MS;
}

// What waits in the kernel of a stopped process takes nothing from our queue for a long time, so it is not slow.
bool CZolVekReporter::isSilent(const CZolVekSession &oSession, std::uint64_t ulNowMs)
{
    const bool bUnread = oSession.m_bReadable || oSession.m_poWaitsFor != nullptr || oSession.m_bThrottled;
    return !bUnread && oSession.m_ulAskedMs != 0 && ulNowMs - oSession.m_ulAskedMs >= SILENT_AFTER_MS;
}

void CZolVekReporter::fillPipes(SZolGatewaySnapshot &oSnapshot, std::uint64_t ulNowMs) const
{
    oSnapshot.m_oPipes.reserve(m_oRoutes.size());
    m_oRoutes.forEach(
        [&](const CZolVekSession *poSession)
        {
            SZolPipeView oPipe;
            oPipe.m_usProcID = zolVekProcOf(poSession->m_uiKey);
            oPipe.m_usProcHandle = zolVekHandleOf(poSession->m_uiKey);
            oPipe.m_ulAddress = poSession->m_uiAddress;
            oPipe.m_usPort = poSession->m_usPort;
            oPipe.m_bSlow = isSlow(*poSession, ulNowMs);
            oPipe.m_bSilent = isSilent(*poSession, ulNowMs);
            oPipe.m_bHeld = poSession->m_poWaitsFor != nullptr || poSession->m_bThrottled;
            oPipe.m_lSinceMs = poSession->m_lSinceWallMs; // worked out here it would jump by a millisecond
            oPipe.m_lSilentMs = static_cast<std::int64_t>(ulNowMs - poSession->m_ulReceivedMs);
            oPipe.m_ulFramesIn = poSession->m_ulFramesIn;
            oPipe.m_ulBytesIn = poSession->m_ulBytesIn;
            oPipe.m_ulFramesOut = poSession->m_ulFramesOut;
            oPipe.m_ulBytesOut = poSession->m_ulBytesOut;
            oPipe.m_ulFramesDropped = poSession->m_ulFramesDropped;
            oPipe.m_ulQueueBytes = poSession->m_oOutbox.bytes();
            oPipe.m_ulQueueLimitBytes = m_oSettings.m_ulPipeQueueBytes;
            oSnapshot.m_ulQueueBytes += oPipe.m_ulQueueBytes;
            oSnapshot.m_oPipes.push_back(oPipe);
        });
}

void CZolVekReporter::fillEdges(SZolGatewaySnapshot &oSnapshot) const
{
    std::unordered_map<std::uint64_t, unsigned int> oPlaces; // by serial
    oPlaces.reserve(m_oRoutes.size());
    m_oRoutes.forEach([&](const CZolVekSession *poSession)
                      { oPlaces.emplace(poSession->m_ulSerial, static_cast<unsigned int>(oPlaces.size())); });
    SZolVekFlowBudget &oBudget = m_oRouter.flowBudget();
    oBudget.m_ulFlows = 0;
    m_oRoutes.forEach(
        [&](CZolVekSession *poSession)
        {
            if (poSession->m_poFlows == nullptr)
            {
                return;
            }
            const unsigned int uiFrom = oPlaces[poSession->m_ulSerial];
            poSession->m_poFlows->forEach(
                [&](std::uint64_t ulSerial, const SZolVekFlow &oFlow)
                {
                    const auto oTo = oPlaces.find(ulSerial);
                    if (oTo != oPlaces.end())
                    {
                        oSnapshot.m_oEdges.push_back({uiFrom, oTo->second, oFlow.m_ulFrames, oFlow.m_ulBytes});
                    }
                    return oTo != oPlaces.end(); // a receiver that has gone is forgotten
                });
            oBudget.m_ulFlows += poSession->m_poFlows->size();
        });
    oSnapshot.m_ulEdgeFramesLeftOut = oBudget.m_ulFramesLeftOut;
}

void CZolVekReporter::fillSubscriptions(SZolGatewaySnapshot &oSnapshot) const
{
    m_oRouter.subscriptions().forEach(
        [&oSnapshot](std::uint32_t uiCommand, const SZolVekSubscriber &oSubscriber)
        {
            if (oSnapshot.m_oSubscriptions.size() < MOST_SUBSCRIPTIONS)
            {
                oSnapshot.m_oSubscriptions.push_back({uiCommand, zolVekProcOf(oSubscriber.m_poSession->m_uiKey),
                                                      zolVekHandleOf(oSubscriber.m_poSession->m_uiKey),
                                                      oSubscriber.m_ucModule, oSubscriber.m_usTask});
            }
        });
}

void CZolVekReporter::fillSettings(SZolGatewaySnapshot &oSnapshot) const
{
    for (const SZolVekKeyInfo &oKey : zolVekKeys())
    {
        oSnapshot.m_oSettings.push_back({oKey.m_pcKey, oKey.m_fnPrint(m_oSettings)});
    }
}
