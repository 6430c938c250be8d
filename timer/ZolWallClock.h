#ifndef ZOL_WALL_CLOCK_H
#define ZOL_WALL_CLOCK_H

#include <atomic>

/// The machine's clock as the timers see it, in seconds since the epoch. Calendar instants are sought by it; delays are
/// not: those follow the monotonic clock of CZolTimerQueue.
///
/// Threads: any.
class CZolWallClock
{
public:
    /// Not time(), whose coarse clock may lag by a tick: a timer that fires at a full second would still see the second
    /// before, and a calendar timer would then find the instant that it has just reached once more.
    static long now() { return sm_pfnNow.load(std::memory_order_relaxed)(); }

    /// Waits until now() has turned to the next second.
    static void sleepToNextSecond();

    /// Puts another clock in place, for tests that move it; null brings the machine's back.
    static void replace(long (*pfnNow)());

private:
    static long machineTime();

    static std::atomic<long (*)()> sm_pfnNow;
};

#endif
