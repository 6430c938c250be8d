#ifndef ZOL_CALENDAR_H
#define ZOL_CALENDAR_H

#include <ctime>

struct SZolTimerItem;

/// Calendar arithmetic of the day, week and month timers: from a reference time and a rule to the next instant that the
/// rule names. Pure functions of their arguments and of the zone of the process.
///
/// Threads: any.
/// Units:   seconds since the epoch.
class CZolCalendar
{
public:
    static constexpr long FAILED = -1;   ///< no calendar rule, or the platform cannot tell
    static constexpr long PAST_END = -2; ///< the instant does not lie before the end of the rule's period

    /// The instant of oItem's rule that follows oReference. A reference right on the time of day gives itself for the
    /// day kind and the next week or month for the others. A date is over once the clock has shown the time of day, or
    /// a later time for the day kind; when the time of day comes twice, it is the first of the two that is not past.
    /// oReference is as localtime_r gives it.
    static long nextInstant(const struct tm &oReference, const SZolTimerItem &oItem);

private:
    static bool setDay(const struct tm &oReference, long lSecsOfDay, const SZolTimerItem &oItem, struct tm &oResult);
    static int dayOfWeekRule(const struct tm &oReference, bool bTimeIsOver, int iWeekDay);
    static bool setDayOfMonthRule(const struct tm &oReference, bool bTimeIsOver, int iDay, struct tm &oResult);
};

#endif
