#ifndef ZOL_VEK_THROTTLE_H
#define ZOL_VEK_THROTTLE_H

#include "gateway/config/ZolVekSettings.h"
#include "gateway/route/ZolVekAgenda.h"
#include "gateway/watch/ZolVekStatistics.h"

#include <vector>

/// Holds pipes to MaxRatePerPipe.
///
/// Threads: the routing thread only.
class CZolVekThrottle
{
public:
    CZolVekThrottle(const SZolVekSettings &oSettings, SZolVekStatistics &oStatistics, SZolVekAgenda &oAgenda)
        : m_oSettings(oSettings), m_oStatistics(oStatistics), m_oAgenda(oAgenda)
    {
    }
    CZolVekThrottle(const CZolVekThrottle &) = delete;
    CZolVekThrottle &operator=(const CZolVekThrottle &) = delete;

    /// Whether oSession has exceeded its rate. It is then not read until wake() makes it ready.
    bool holds(CZolVekSession &oSession);

    /// Makes all that are held ready: their turns find out whether they may go on.
    void wake();

    /// oSession is not held any more.
    void letGo(CZolVekSession &oSession);

    bool isEmpty() const { return m_oThrottled.empty(); }

private:
    const SZolVekSettings &m_oSettings;
    SZolVekStatistics &m_oStatistics;
    SZolVekAgenda &m_oAgenda;

    std::vector<CZolVekSession *> m_oThrottled; // m_bThrottled
};

#endif
