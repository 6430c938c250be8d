#include "timer/ZolCalendar.h"

#include "ZolDateUtil.h"
#include "ZolTimer.h"

#include <ace/OS_NS_time.h>

long CZolCalendar::nextInstant(const struct tm &oReference, const SZolTimerItem &oItem)
{
    const long lSecsOfDay = oReference.tm_hour * 3600L + oReference.tm_min * 60L + oReference.tm_sec;
    struct tm oResult = {};
    oResult.tm_year = oReference.tm_year;
    oResult.tm_mon = oReference.tm_mon;
    oResult.tm_isdst = -1;
    // A time of day is what the clock on the wall shows, so it goes into three fields: mktime adds seconds above 59 as
    // elapsed time, and on a day that daylight saving makes shorter 9 o'clock would become 10. Hour 24 is the midnight
    // that ends the day.
    oResult.tm_hour = static_cast<int>(oItem.m_uiTimeSecs / 3600);
    oResult.tm_min = static_cast<int>(oItem.m_uiTimeSecs / 60 % 60);
    oResult.tm_sec = static_cast<int>(oItem.m_uiTimeSecs % 60);
    if (!setDay(oReference, lSecsOfDay, oItem, oResult))
    {
        return FAILED;
    }
    const long lInstant = toInstant(oResult, oReference);
    return lInstant < oItem.m_lEndTime ? lInstant : PAST_END;
}

/// In the night in which an hour comes twice mktime is free to take the first for a time that is asked for in the
/// second. That would lie before the reference, whose time of day it is to follow.
long CZolCalendar::toInstant(const struct tm &oWanted, const struct tm &oReference)
{
    struct tm oResult = oWanted;
    struct tm oFrom = oReference;
    const long lInstant = ACE_OS::mktime(&oResult);
    if (lInstant >= ACE_OS::mktime(&oFrom))
    {
        return lInstant;
    }
    oResult = oWanted;
    oResult.tm_isdst = 0;
    return ACE_OS::mktime(&oResult);
}

bool CZolCalendar::setDay(const struct tm &oReference, long lSecsOfDay, const SZolTimerItem &oItem, struct tm &oResult)
{
    const long lTime = oItem.m_uiTimeSecs;
    switch (oItem.m_eType)
    {
    case TIMER_DAY:
        oResult.tm_mday = oReference.tm_mday + (lSecsOfDay > lTime ? 1 : 0);
        return true;
    case TIMER_WEEK:
        oResult.tm_mday = dayOfWeekRule(oReference, lSecsOfDay >= lTime, oItem.m_ucDays);
        return true;
    case TIMER_MONTH:
        return setDayOfMonthRule(oReference, lSecsOfDay >= lTime, oItem.m_ucDays, oResult);
    default:
        return false;
    }
}

int CZolCalendar::dayOfWeekRule(const struct tm &oReference, bool bTimeIsOver, int iWeekDay)
{
    int iDaysAhead = iWeekDay - oReference.tm_wday;
    if (iDaysAhead < 0 || (iDaysAhead == 0 && bTimeIsOver))
    {
        iDaysAhead += 7;
    }
    return oReference.tm_mday + iDaysAhead;
}

bool CZolCalendar::setDayOfMonthRule(const struct tm &oReference, bool bTimeIsOver, int iDay, struct tm &oResult)
{
    const auto uiYear = static_cast<unsigned int>(oReference.tm_year);
    const auto uiMonth = static_cast<unsigned int>(oReference.tm_mon);
    int iLastDay = CZolDateUtil::getLastMonthDay(uiYear, uiMonth);
    if (iLastDay == -1)
    {
        return false;
    }
    int iDayOfMonth = iDay < iLastDay ? iDay : iLastDay; // a short month has its firing on its last day
    if (iDayOfMonth < oReference.tm_mday || (iDayOfMonth == oReference.tm_mday && bTimeIsOver))
    {
        iLastDay = CZolDateUtil::getLastMonthDay(uiYear, uiMonth + 1); // month 12 is January of the next year
        if (iLastDay == -1)
        {
            return false;
        }
        oResult.tm_mon += 1;
        iDayOfMonth = iDay < iLastDay ? iDay : iLastDay;
    }
    oResult.tm_mday = iDayOfMonth;
    return true;
}
