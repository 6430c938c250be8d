#ifndef ZOL_LOCAL_TIME_H
#define ZOL_LOCAL_TIME_H

#include <ctime>

/// From what the clock on the wall shows to the instant at which it shows that, where mktime leaves the choice to its
/// last call and to tm_isdst, which is set in winter in some zones (Europe/Dublin) and says nothing where standard time
/// itself is moved. What a year, a month and a change of the clocks are stays the platform's knowledge.
///
/// Threads: any.
/// Units:   seconds since the epoch.
class CZolLocalTime
{
public:
    static constexpr long FAILED = -1; ///< beyond what the platform can tell

    /// The first instant from lNotBefore on at which the clock shows oWanted, whose fields may lie outside of their
    /// ranges as those of mktime. A time that a change of the clocks leaves out is the instant that much after the
    /// change.
    static long firstInstant(const struct tm &oWanted, long lNotBefore);

    /// The instant of fields as localtime_r has given them.
    static long instantOf(const struct tm &oLocal);

private:
    static bool offsetAt(long lInstant, long &lOffset);
};

#endif
