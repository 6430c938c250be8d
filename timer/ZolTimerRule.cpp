#include "timer/ZolTimerRule.h"

#include "ZolRunLog.h"
#include "timer/ZolCalendar.h"
#include "timer/ZolWallClock.h"

#include <ace/OS_NS_time.h>

#include <algorithm>

namespace
{

/// Keeps a month timer armed past its last firing, at which it is cancelled: how long does not matter.
const long FILLER_INTERVAL = 31536000;

bool toLocal(long lInstant, struct tm &oLocal)
{
    const time_t lTime = lInstant;
    return ACE_OS::localtime_r(&lTime, &oLocal) != nullptr;
}

} // namespace

long CZolTimerRule::scheduledTime(const struct tm &oReference, const SZolTimerItem &oItem)
{
    return oItem.isValid() ? CZolCalendar::nextInstant(oReference, oItem) : CZolCalendar::FAILED;
}

long CZolTimerRule::nextFiring(long lNotBefore, long &lDelay, const SZolTimerItem &oItem)
{
    if (oItem.m_eType == TIMER_CYCLE)
    {
        lDelay = static_cast<int>(oItem.m_uiInterval); // from 2^31 on it is negative, and refused for that
        return lDelay;
    }
    if (oItem.m_eType == TIMER_DATE)
    {
        const long lNow = CZolWallClock::now();
        lDelay = oItem.m_lStartTime < lNow ? CZolCalendar::PAST_END : oItem.m_lStartTime - lNow;
        return oItem.m_lStartTime;
    }
    for (;;)
    {
        struct tm oFrom = {};
        if (!toLocal(std::max({CZolWallClock::now(), lNotBefore, oItem.m_lStartTime}), oFrom))
        {
            lDelay = CZolCalendar::FAILED;
            return lDelay;
        }
        const long lInstant = scheduledTime(oFrom, oItem);
        lDelay = lInstant < 0 ? lInstant : lInstant - std::max(CZolWallClock::now(), lNotBefore);
        if (lInstant < 0 || lDelay > 0)
        {
            return lInstant;
        }
        // also right at the second of a day timer, which belongs to tomorrow as soon as the second is over
        CZolDebugInfo("CZolTimer::getDelay").warning("Timer delayed due to a slow execution of getScheduledTime()");
        CZolWallClock::sleepToNextSecond();
    }
}

long CZolTimerRule::monthInterval(long lFiring, const SZolTimerItem &oItem)
{
    struct tm oFiring = {};
    if (!toLocal(lFiring, oFiring))
    {
        return NO_LOCAL_TIME;
    }
    long lNext = scheduledTime(oFiring, oItem);
    if (lNext == CZolCalendar::PAST_END)
    {
        lNext = lFiring + FILLER_INTERVAL;
    }
    if (lNext < 0)
    {
        return NO_INSTANT;
    }
    return lNext > lFiring ? lNext - lFiring : static_cast<long>(NOT_LATER);
}
