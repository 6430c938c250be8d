#include "timer/ZolCalendar.h"

#include "ZolTimer.h"
#include "timer/Zone.h"

#include <vector>

using namespace zoltest;

namespace
{

const long NO_END = 0x7FFFFFFFFFFFFFFF;

SZolTimerItem rule(EnumTimerType eType, int iDays, unsigned int uiTimeSecs, long lEnd = NO_END)
{
    SZolTimerItem oItem;
    oItem.m_eType = eType;
    oItem.m_ucDays = static_cast<unsigned char>(iDays);
    oItem.m_uiTimeSecs = uiTimeSecs;
    oItem.m_lStartTime = 0;
    oItem.m_lEndTime = lEnd;
    return oItem;
}

unsigned int at(unsigned int uiHour, unsigned int uiMinute = 0, unsigned int uiSecond = 0)
{
    return uiHour * 3600 + uiMinute * 60 + uiSecond;
}

struct SCase
{
    const char *pcZone;
    EnumTimerType eType;
    int iDays;
    unsigned int uiTimeSecs;
    const char *pcFrom, *pcExpected;
};

void expectNext(const std::vector<SCase> &oCases)
{
    for (const SCase &oCase : oCases)
    {
        setZone(oCase.pcZone);
        const struct tm oFrom = localTm(CZolDateUtil::strToTime(oCase.pcFrom));
        const SZolTimerItem oRule = rule(oCase.eType, oCase.iDays, oCase.uiTimeSecs);
        EXPECT_EQ(oCase.pcExpected, textOf(CZolCalendar::nextInstant(oFrom, oRule)))
            << oCase.pcZone << ", kind " << oCase.eType << ", day " << oCase.iDays << ", from " << oCase.pcFrom;
    }
}

} // namespace

TEST(CalendarTest, FindsTheNextDay)
{
    expectNext({{"UTC", TIMER_DAY, 0, at(9), "2026-01-20 08:59:59", "2026-01-20 09:00:00"},
                {"UTC", TIMER_DAY, 0, at(9), "2026-01-20 09:00:00", "2026-01-20 09:00:00"},
                {"UTC", TIMER_DAY, 0, at(9), "2026-01-20 09:00:01", "2026-01-21 09:00:00"},
                {"UTC", TIMER_DAY, 0, at(9), "2026-01-31 10:00:00", "2026-02-01 09:00:00"},
                {"UTC", TIMER_DAY, 0, at(9), "2028-02-28 10:00:00", "2028-02-29 09:00:00"},
                {"UTC", TIMER_DAY, 0, at(9), "2026-12-31 10:00:00", "2027-01-01 09:00:00"},
                {"UTC", TIMER_DAY, 0, 0, "2026-01-20 00:00:01", "2026-01-21 00:00:00"},
                {"UTC", TIMER_DAY, 0, 86400, "2026-01-20 00:00:00", "2026-01-21 00:00:00"},
                {"UTC", TIMER_DAY, 0, 86400, "2026-12-31 23:59:59", "2027-01-01 00:00:00"}});
}

TEST(CalendarTest, FindsTheNextWeekday)
{
    // 2026-01-21 is a Wednesday
    expectNext({{"UTC", TIMER_WEEK, 2, at(9), "2026-01-21 08:00:00", "2026-01-27 09:00:00"},
                {"UTC", TIMER_WEEK, 0, at(9), "2026-01-21 08:00:00", "2026-01-25 09:00:00"},
                {"UTC", TIMER_WEEK, 5, at(9), "2026-01-21 23:00:00", "2026-01-23 09:00:00"},
                {"UTC", TIMER_WEEK, 3, at(9), "2026-01-21 08:59:59", "2026-01-21 09:00:00"},
                {"UTC", TIMER_WEEK, 3, at(9), "2026-01-21 09:00:00", "2026-01-28 09:00:00"},
                {"UTC", TIMER_WEEK, 3, at(9), "2026-01-21 09:00:01", "2026-01-28 09:00:00"},
                {"UTC", TIMER_WEEK, 6, 86400, "2026-01-21 09:00:01", "2026-01-25 00:00:00"},
                {"UTC", TIMER_WEEK, 4, at(9), "2026-12-31 09:30:00", "2027-01-07 09:00:00"}});
}

TEST(CalendarTest, FindsTheNextDayOfTheMonth)
{
    expectNext({{"UTC", TIMER_MONTH, 15, at(10), "2026-02-10 11:00:00", "2026-02-15 10:00:00"},
                {"UTC", TIMER_MONTH, 31, at(10), "2026-02-10 11:00:00", "2026-02-28 10:00:00"},
                {"UTC", TIMER_MONTH, 31, at(10), "2026-02-28 09:00:00", "2026-02-28 10:00:00"},
                {"UTC", TIMER_MONTH, 31, at(10), "2026-02-28 10:00:00", "2026-03-31 10:00:00"},
                {"UTC", TIMER_MONTH, 31, at(10), "2026-02-28 11:00:00", "2026-03-31 10:00:00"},
                {"UTC", TIMER_MONTH, 30, at(10), "2028-02-28 11:00:00", "2028-02-29 10:00:00"},
                {"UTC", TIMER_MONTH, 15, at(10), "2026-02-15 09:59:59", "2026-02-15 10:00:00"},
                {"UTC", TIMER_MONTH, 15, at(10), "2026-02-15 10:00:00", "2026-03-15 10:00:00"},
                {"UTC", TIMER_MONTH, 31, at(10), "2026-12-31 11:00:00", "2027-01-31 10:00:00"},
                {"UTC", TIMER_MONTH, 5, at(10), "2026-12-06 00:00:00", "2027-01-05 10:00:00"},
                {"UTC", TIMER_MONTH, 31, at(10), "2026-01-31 10:00:00", "2026-02-28 10:00:00"},
                {"UTC", TIMER_MONTH, 1, 86400, "2026-01-31 23:59:59", "2026-02-02 00:00:00"},
                {"UTC", TIMER_MONTH, 29, at(10), "2100-02-01 00:00:00", "2100-02-28 10:00:00"}});
}

// A time of day is what the clock on the wall shows, also on days of 23, 25, 23.5 and 24.5 hours.
TEST(CalendarTest, KeepsTheTimeOfDayWhenTheClocksChange)
{
    expectNext(
        {{"Europe/Berlin", TIMER_DAY, 0, at(9), "2026-03-28 10:00:00", "2026-03-29 09:00:00"},
         {"Europe/Berlin", TIMER_DAY, 0, at(9), "2026-10-24 10:00:00", "2026-10-25 09:00:00"},
         {"Europe/Berlin", TIMER_WEEK, 0, at(22), "2026-03-28 10:00:00", "2026-03-29 22:00:00"},
         {"Europe/Berlin", TIMER_MONTH, 29, at(9), "2026-03-28 10:00:00", "2026-03-29 09:00:00"},
         {"Europe/Berlin", TIMER_MONTH, 25, 86400, "2026-10-24 10:00:00", "2026-10-26 00:00:00"},
         {"Europe/Berlin", TIMER_DAY, 0, at(2, 30), "2026-03-28 10:00:00", "2026-03-29 03:30:00"}, // skipped
         {"America/New_York", TIMER_DAY, 0, at(9), "2026-03-07 10:00:00", "2026-03-08 09:00:00"},
         {"America/New_York", TIMER_DAY, 0, at(9), "2026-10-31 10:00:00", "2026-11-01 09:00:00"},
         {"America/New_York", TIMER_DAY, 0, at(2, 30), "2026-03-07 10:00:00", "2026-03-08 03:30:00"}, // skipped
         {"Australia/Lord_Howe", TIMER_DAY, 0, at(9), "2026-10-03 10:00:00", "2026-10-04 09:00:00"},
         {"Australia/Lord_Howe", TIMER_DAY, 0, at(9), "2026-04-04 10:00:00", "2026-04-05 09:00:00"},
         {"Australia/Lord_Howe", TIMER_DAY, 0, at(2, 15), "2026-10-03 10:00:00", "2026-10-04 02:45:00"}, // skipped
         {"Asia/Kolkata", TIMER_DAY, 0, at(9), "2026-03-28 10:00:00", "2026-03-29 09:00:00"},
         {"Asia/Kolkata", TIMER_MONTH, 31, at(23, 59, 59), "2026-09-30 00:00:00", "2026-09-30 23:59:59"}});
}

// In autumn an hour comes twice. Asked for in the second, a time later in that hour must not turn out to be past.
TEST(CalendarTest, NeverGoesBackInTheHourThatComesTwice)
{
    const struct
    {
        const char *pcZone;
        long lChange, lWidth; // the instant at which the hour begins anew, and how much of it does
        unsigned int uiHour;
    } arrCases[] = {{"Europe/Berlin", 1792890000, 3600, 2},
                    {"America/New_York", 1793512800, 3600, 1},
                    {"Australia/Lord_Howe", 1775314800, 1800, 1}};
    for (const auto &oCase : arrCases)
    {
        setZone(oCase.pcZone);
        for (const int iPrimed : {1, 7}) // mktime remembers the offset of its last call, and leans to it
        {
            for (long lAfter = -oCase.lWidth; lAfter < oCase.lWidth; lAfter += 300)
            {
                const long lFrom = oCase.lChange + lAfter;
                const struct tm oFrom = localTm(lFrom);
                const auto uiSecs = static_cast<unsigned int>(oFrom.tm_hour * 3600 + oFrom.tm_min * 60);
                for (const EnumTimerType eType : {TIMER_DAY, TIMER_WEEK, TIMER_MONTH})
                {
                    CZolDateUtil::strToTime(iPrimed == 1 ? "2026-01-01" : "2026-07-01");
                    const int iDays = eType == TIMER_WEEK ? oFrom.tm_wday : oFrom.tm_mday;
                    const long lNext = CZolCalendar::nextInstant(oFrom, rule(eType, iDays, uiSecs + 60));
                    EXPECT_GT(lNext, lFrom) << oCase.pcZone << " " << lAfter << " kind " << eType;
                    EXPECT_LE(lNext, lFrom + oCase.lWidth + 60) << oCase.pcZone << " " << lAfter << " kind " << eType;
                }
            }
        }
    }
}

TEST(CalendarTest, TellsTheEndOfThePeriodFromFailure)
{
    setZone("UTC");
    const long lInstant = CZolDateUtil::strToTime("2026-01-20 09:00:00");
    const struct tm oFrom = localTm(lInstant - 10);
    EXPECT_EQ(CZolCalendar::PAST_END, CZolCalendar::nextInstant(oFrom, rule(TIMER_DAY, 0, at(9), lInstant)));
    EXPECT_EQ(lInstant, CZolCalendar::nextInstant(oFrom, rule(TIMER_DAY, 0, at(9), lInstant + 1)));
    EXPECT_EQ(CZolCalendar::FAILED, CZolCalendar::nextInstant(oFrom, rule(TIMER_CYCLE, 0, at(9))));
    EXPECT_EQ(CZolCalendar::FAILED, CZolCalendar::nextInstant(oFrom, rule(TIMER_DATE, 0, at(9))));
}
