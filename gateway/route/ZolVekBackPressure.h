#ifndef ZOL_VEK_BACK_PRESSURE_H
#define ZOL_VEK_BACK_PRESSURE_H

#include "gateway/config/ZolVekSettings.h"
#include "gateway/route/ZolVekDelivery.h"
#include "gateway/route/ZolVekRoutes.h"
#include "gateway/watch/ZolVekStatistics.h"

#include <algorithm>
#include <cstdint>

/// Whether a frame may join a queue.
enum EnumZolVekRoom
{
    VEK_ROOM_YES,
    VEK_ROOM_WAIT, ///< the source is to wait for the target
    VEK_ROOM_DROP  ///< the frame is lost for this target, and has been counted
};

/// Holds queues and memory to their bounds, and keeps who waits for whom.
///
/// Threads: the routing thread only.
class CZolVekBackPressure
{
public:
    CZolVekBackPressure(const SZolVekSettings &oSettings, SZolVekStatistics &oStatistics, const SZolVekMemory &oMemory,
                        const CZolVekRoutes &oRoutes, SZolVekAgenda &oAgenda, CZolVekDelivery &oDelivery)
        : m_oSettings(oSettings), m_oStatistics(oStatistics), m_oMemory(oMemory), m_oRoutes(oRoutes),
          m_oAgenda(oAgenda), m_oDelivery(oDelivery)
    {
    }
    CZolVekBackPressure(const CZolVekBackPressure &) = delete;
    CZolVekBackPressure &operator=(const CZolVekBackPressure &) = delete;

    /// Works out the bound of a queue for this turn.
    void beginTurn();

    /// The queue is below its bound. A caller that gets false asks roomAt() what to do.
    bool isLow(const CZolVekSession &oTarget) const { return oTarget.m_oOutbox.bytes() < m_ulLimit; }

    /// What is left of the total bound.
    std::uint64_t freeBytes() const
    {
        return m_oSettings.m_ulTotalQueueBytes - std::min(m_oSettings.m_ulTotalQueueBytes, m_oMemory.m_ulBytes);
    }

    /// The most that a pipe may be read in this turn: what then has to wait stays in memory, so it is little when that
    /// is short.
    std::size_t readBytes() const { return m_bTight ? TIGHT_READ_BYTES : SIZE_MAX; }

    /// poFrom is null for a source that has gone. One that is broken cannot be held back by not reading it: for the
    /// sake of what it has left behind the queue may go to twice its bound.
    EnumZolVekRoom roomAt(CZolVekSession &oTarget, const CZolVekSession *poFrom, const CZolVekFrame &oFrame);

    /// oFrom is not read until oTarget can take frames again; the two may be the same.
    EnumZolVekVerdict stall(CZolVekSession &oFrom, CZolVekSession &oTarget);

    /// oFrom is not read because a queue is full, and not because of a big message that is under way.
    bool waitsForRoom(const CZolVekSession &oFrom) const
    {
        return oFrom.m_poWaitsFor != nullptr && isAboveHalf(*oFrom.m_poWaitsFor);
    }

    /// oFrom waits for nobody any more.
    void release(CZolVekSession &oFrom);

    /// Wakes the pipes that wait for oTarget, if its queue has gone down to half.
    void wakeWaiters(CZolVekSession &oTarget);

    /// Whoever waited for oSession goes on, and it waits for nobody any more.
    void gone(CZolVekSession &oSession);

private:
    static constexpr std::size_t TIGHT_READ_BYTES = 8 * 1024;

    bool isAboveHalf(const CZolVekSession &oTarget) const { return oTarget.m_oOutbox.bytes() > m_ulLimit / 2; }
    void dropSlow(CZolVekSession &oTarget, const CZolVekFrame &oFrame);
    static bool isOfLostRun(const CZolVekSession &oTarget, const CZolVekSession *poFrom, const CZolVekFrame &oFrame);

    const SZolVekSettings &m_oSettings;
    SZolVekStatistics &m_oStatistics;
    const SZolVekMemory &m_oMemory;
    const CZolVekRoutes &m_oRoutes;
    SZolVekAgenda &m_oAgenda;
    CZolVekDelivery &m_oDelivery;

    std::uint64_t m_ulLimit = 0;   // bytes of an outbox from which on sources wait; of this turn
    bool m_bTight = false;         // the total is nearly reached; of this turn
    CZolVekRateLimit m_oSlowLines; // by the pipe that is slow
};

#endif
