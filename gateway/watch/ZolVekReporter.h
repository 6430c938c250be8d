#ifndef ZOL_VEK_REPORTER_H
#define ZOL_VEK_REPORTER_H

#include "gateway/config/ZolVekSettings.h"
#include "gateway/route/ZolVekRouter.h"
#include "gateway/route/ZolVekRoutes.h"
#include "gateway/watch/ZolVekStatistics.h"
#include "gateway/watch/http/ZolSnapshot.h"

#include <cstdint>
#include <ctime>

/// Tells whoever looks what the gateway does: fills a snapshot when one is asked for, and keeps what only it shows.
///
/// Threads: the routing thread only.
class CZolVekReporter
{
public:
    CZolVekReporter(const SZolVekSettings &oSettings, const SZolVekStatistics &oStatistics,
                    const CZolVekRoutes &oRoutes, CZolVekRouter &oRouter);
    CZolVekReporter(const CZolVekReporter &) = delete;
    CZolVekReporter &operator=(const CZolVekReporter &) = delete;

    /// A turn of the loop begins, or ends: how long it took goes to the histogram. Costs a reading of the clock.
    void turnBegins() { m_ulTurnBeganNs = nanoseconds(); }
    void turnEnds();

    /// Fills an empty record; ulNowMs is the time of the turn. Who talks to whom is counted only while records come
    /// that are watched, so the first of them has no edges.
    void fill(SZolGatewaySnapshot &oSnapshot, std::uint64_t ulNowMs, unsigned int uiUnregistered, bool bDraining);

    /// Once a second.
    void tick(std::uint64_t ulNowMs);

    /// Somebody looks, and the process has said nothing since something was sent to it, for longer than a moment: a
    /// hello finds out whether it has stopped or only has nothing to say.
    bool wantsAnswer(const CZolVekSession &oSession, std::uint64_t ulNowMs) const;

    /// Milliseconds since the epoch.
    static std::int64_t wallMs();

private:
    static std::uint64_t nanoseconds()
    {
        timespec oNow{};
        clock_gettime(CLOCK_MONOTONIC, &oNow);
        return static_cast<std::uint64_t>(oNow.tv_sec) * 1000000000u + static_cast<std::uint64_t>(oNow.tv_nsec);
    }
    void fillTotals(SZolGatewaySnapshot &oSnapshot) const;
    void fillPipes(SZolGatewaySnapshot &oSnapshot, std::uint64_t ulNowMs) const;
    void fillEdges(SZolGatewaySnapshot &oSnapshot) const;
    void fillSubscriptions(SZolGatewaySnapshot &oSnapshot) const;
    void fillSettings(SZolGatewaySnapshot &oSnapshot) const;
    static bool isSilent(const CZolVekSession &oSession, std::uint64_t ulNowMs);
    bool isSlow(const CZolVekSession &oSession, std::uint64_t ulNowMs) const;

    const SZolVekSettings &m_oSettings;
    const SZolVekStatistics &m_oStatistics;
    const CZolVekRoutes &m_oRoutes;
    CZolVekRouter &m_oRouter;
    const std::int64_t m_lStartedMs; // milliseconds since the epoch

    std::uint64_t m_ulTurnBeganNs = 0;
    std::uint64_t m_aulTurns[SZolLatencyView::BUCKETS + 1] = {};
    std::uint64_t m_ulTurnNs = 0;        // all turns together
    std::uint64_t m_ulFlowsWantedMs = 0; // when a snapshot with edges was last asked for
};

#endif
