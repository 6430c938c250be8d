#ifndef ZOL_TIMER_ZOLTIMERRULE_H
#define ZOL_TIMER_ZOLTIMERRULE_H

#include "ZolTimer.h"

#include <ctime>

/// When a timer fires, by its rule and the wall clock. Knows nothing of what is armed.
///
/// Threads: any. Locks: none; nextFiring() may sleep to the next second.
class CZolTimerRule
{
public:
    /// Why there is no interval behind a firing of a month timer.
    enum EnumIntervalFault
    {
        NO_LOCAL_TIME = -1,
        NO_INSTANT = -2,
        NOT_LATER = -3
    };

    /// The first instant of the calendar behind oReference, or a negative value of CZolCalendar.
    static long scheduledTime(const struct tm &oReference, const SZolTimerItem &oItem);

    /// The instant of the next firing, and in lDelay the seconds until then; both negative if there is none. lNotBefore
    /// takes the clock's part while that shows less. A cycle has no instant, only the delay.
    static long nextFiring(long lNotBefore, long &lDelay, const SZolTimerItem &oItem);

    /// Seconds from lFiring, an instant of a month timer, to the instant behind it, or an EnumIntervalFault.
    static long monthInterval(long lFiring, const SZolTimerItem &oItem);
};

#endif
