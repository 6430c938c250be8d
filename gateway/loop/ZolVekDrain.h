#ifndef ZOL_VEK_DRAIN_H
#define ZOL_VEK_DRAIN_H

#include "gateway/config/ZolVekSettings.h"
#include "gateway/route/ZolVekAgenda.h"
#include "gateway/route/ZolVekRoutes.h"
#include "gateway/watch/ZolVekStatistics.h"

#include <cstdint>
#include <functional>

/// The end of the gateway, within DrainSeconds.
///
/// Nothing more is read, what has been read is routed, and outboxes leave. Then each pipe is closed in the direction to
/// the process, and only when its kernel has acknowledged all, the end included, is it left: a socket that is closed
/// while something in it is unread resets the connection, and the kernel throws away what it still had to send. So what
/// comes after the half-close is read, dropped and counted.
///
/// Threads: the routing thread only.
class CZolVekDrain
{
public:
    using TDropUnplaced = std::function<void(CZolVekSession &)>; ///< drops the frames that had to wait in its reader

    CZolVekDrain(const SZolVekSettings &oSettings, SZolVekStatistics &oStatistics, SZolVekAgenda &oAgenda,
                 const CZolVekRoutes &oRoutes)
        : m_oSettings(oSettings), m_oStatistics(oStatistics), m_oAgenda(oAgenda), m_oRoutes(oRoutes)
    {
    }
    CZolVekDrain(const CZolVekDrain &) = delete;
    CZolVekDrain &operator=(const CZolVekDrain &) = delete;

    void begin();
    bool isOn() const { return m_bOn; }

    /// Everything has left, or the time for it is over.
    bool isOver() const { return m_bOver; }

    /// At each tick, once it is on. bThrottled: pipes wait for their rate.
    void tick(bool bThrottled, const TDropUnplaced &fnDropUnplaced);

private:
    bool isSettled(bool bThrottled) const;
    bool finishAll();
    void dropRest(const TDropUnplaced &fnDropUnplaced);

    const SZolVekSettings &m_oSettings;
    SZolVekStatistics &m_oStatistics;
    SZolVekAgenda &m_oAgenda;
    const CZolVekRoutes &m_oRoutes;

    bool m_bOn = false;
    bool m_bFinishing = false; // nothing is left to be routed
    bool m_bOver = false;
    std::uint64_t m_ulUntilMs = 0;
};

#endif
