#ifndef ZOL_DATE_UTIL_H
#define ZOL_DATE_UTIL_H

#include "ZolExport.h"

#include <ctime>
#include <string>

/// The three text forms of dates and times, and the calendar time that they stand for.
///
///     date            YYYY-MM-DD            10 characters
///     time            HH:MM:SS               8 characters, of today
///     date and time   YYYY-MM-DD HH:MM:SS   19 characters
///
/// Only the digits are looked at, never what stands between them: 2008/02/28 reads like 2008-02-28. All times are local
/// times of the machine, and the rules of leap years and of daylight saving are those of mktime and localtime.
///
/// Threads: any; nothing is held between calls.
/// Units:   points in time are seconds since the epoch.
/// Errors:  -1 or false; nothing is logged or thrown.
class ZOL_EXPORT CZolDateUtil
{
public:
    static constexpr int ONE_DAY = 86400;   ///< seconds
    static constexpr int ONE_WEEK = 604800; ///< seconds
    static constexpr int DATE_STRING_LEN = 10;
    static constexpr int TIME_STRING_LEN = 8;
    static constexpr int DATETIME_STRING_LEN = 19;

    /// Seconds since the last local midnight, as the clock on the wall shows them: 86399 at most.
    static unsigned int getTimeInSeconds();

    /// The number of the last day of a month, or -1. uiYear counts from 1900 and uiMonth from 0, as in struct tm;
    /// months from 12 on belong to the following year. A month that ends before the epoch gives -1.
    static int getLastMonthDay(unsigned int uiYear, unsigned int uiMonth);

    /// Reads the last 8 characters of strText as a time into hour, minute and second. What was read before a fault
    /// stays in oResult.
    static bool fillTime(const std::string &strText, struct tm &oResult);

    /// Any of the three forms, told apart by their length. A day behind the end of its month means its last day
    /// (2009-02-31 is 2009-02-28); day 00 is the last day of the month before.
    static long strToTime(const std::string &strText);

    /// Replaces strText by the date-and-time form of lTime; leaves it alone if there is none.
    static bool timeToStr(long lTime, std::string &strText);

private:
    static bool fillDate(const std::string &strText, struct tm &oResult);
    static void padding(int iValue, std::string &strText);
};

#endif
