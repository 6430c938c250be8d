#include "timer/ZolCalendar.h"

#include "ZolDateUtil.h"
#include "ZolTimer.h"
#include "timer/ZolLocalTime.h"

long CZolCalendar::nextInstant(const struct tm &oReference, const SZolTimerItem &oItem)
{
    const long lSecsOfDay = oReference.tm_hour * 3600L + oReference.tm_min * 60L + oReference.tm_sec;
    struct tm oResult = {};
    oResult.tm_year = oReference.tm_year;
    oResult.tm_mon = oReference.tm_mon;
    oResult.tm_sec = static_cast<int>(oItem.m_uiTimeSecs); // 86400 is the midnight that ends the day
    if (!setDay(oReference, lSecsOfDay, oItem, oResult))
    {
        return FAILED;
    }
    const long lInstant = CZolLocalTime::firstInstant(oResult, CZolLocalTime::instantOf(oReference));
    return lInstant < oItem.m_lEndTime ? lInstant : PAST_END;
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
