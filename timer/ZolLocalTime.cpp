#include "timer/ZolLocalTime.h"

#include <ace/OS_NS_time.h>

#include <algorithm>

namespace
{
const long DAY = 86400; // more than the clock of any zone is ahead of or behind UTC
} // namespace

/// A reading of the clock belongs to an instant that is off by the zone's offset. There are two offsets to try if the
/// clock is changed somewhere near, and one otherwise: no zone has ever changed its clock twice within two days.
///
///      the change             at most one shows it      in the hour that comes twice both show it
///      02:00 -> 03:00         02:30: none does          03:00 -> 02:00
long CZolLocalTime::firstInstant(const struct tm &oWanted, long lNotBefore)
{
    tzset(); // NOLINT(concurrency-mt-unsafe): as mktime does, so that a machine moved to another zone is noticed
    struct tm oFields = oWanted;
    oFields.tm_wday = -1; // set if all goes well; -1 is an instant, too
    const long lReading = timegm(&oFields);
    long lBefore = 0;
    long lAfter = 0;
    if (oFields.tm_wday == -1 || !offsetAt(lReading - DAY, lBefore) || !offsetAt(lReading + DAY, lAfter))
    {
        return FAILED;
    }
    const long lEarlier = lReading - std::max(lBefore, lAfter);
    const long lLater = lReading - std::min(lBefore, lAfter);
    long lOffset = 0;
    const bool bShown = offsetAt(lEarlier, lOffset) && lEarlier + lOffset == lReading;
    return bShown && lEarlier >= lNotBefore ? lEarlier : lLater;
}

long CZolLocalTime::instantOf(const struct tm &oLocal)
{
    struct tm oFields = oLocal;
    return timegm(&oFields) - oLocal.tm_gmtoff;
}

bool CZolLocalTime::offsetAt(long lInstant, long &lOffset)
{
    const time_t lTime = lInstant;
    struct tm oLocal = {};
    if (ACE_OS::localtime_r(&lTime, &oLocal) == nullptr)
    {
        return false;
    }
    lOffset = oLocal.tm_gmtoff;
    return true;
}
