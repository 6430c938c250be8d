#include "timer/ZolCalendar.h"

#include "ZolTimer.h"
#include "timer/Zone.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

using namespace zoltest;

// The calendar against a search that knows nothing of offsets: it reads the clock on the wall minute by minute for a
// year, as localtime shows it, and notes when a time of day comes up.

namespace
{

const long NO_END = 0x7FFFFFFFFFFFFFFF;
const long MINUTES_OF_DAY = 1440;
const EnumTimerType KINDS[] = {TIMER_DAY, TIMER_WEEK, TIMER_MONTH};

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

/// A date by its number; 1970-01-01, a Thursday, is 0.
struct SDate
{
    explicit SDate(long lNumber) : m_lNumber(lNumber)
    {
        const time_t lSecond = lNumber * 86400 + 43200; // its noon, since zones of right/ count leap seconds
        gmtime_r(&lSecond, &m_oFields);
    }
    bool isLastOfMonth() const { return SDate(m_lNumber + 1).m_oFields.tm_mday == 1; }
    bool isNamedBy(EnumTimerType eType, int iDays) const
    {
        return eType == TIMER_DAY || (eType == TIMER_WEEK && m_oFields.tm_wday == iDays) ||
               (eType == TIMER_MONTH && (m_oFields.tm_mday == iDays || (m_oFields.tm_mday < iDays && isLastOfMonth())));
    }

    long m_lNumber;
    struct tm m_oFields = {};
};

/// What the clock on the wall shows, in minutes since it showed 1970-01-01 00:00.
long readingAt(long lInstant)
{
    struct tm oFields = localTm(lInstant);
    oFields.tm_sec = 0;
    return timegm(&oFields) / 60;
}

/// A year of a zone and the two months behind it.
class CWallClock
{
public:
    explicit CWallClock(int iYear)
    {
        struct tm oFirst = {};
        oFirst.tm_year = iYear - 1900;
        oFirst.tm_mday = 1;
        const long lFirst = timegm(&oFirst);
        m_lBegin = lFirst - localTm(lFirst).tm_sec; // offsets of more than minutes: right/ counts leap seconds
        for (long lMinute = 0; lMinute < (366 + 62) * MINUTES_OF_DAY; ++lMinute)
        {
            m_oReadings.push_back(readingAt(instantAt(lMinute)));
            if (lMinute > 0 && m_oReadings[lMinute] != m_oReadings[lMinute - 1] + 1 && lMinute < 366 * MINUTES_OF_DAY)
            {
                m_oChanges.push_back(lMinute);
            }
        }
    }

    long instantAt(long lMinute) const { return m_lBegin + lMinute * 60; }
    long end() const { return instantAt(366 * MINUTES_OF_DAY); }

    /// A date on which a time of day comes up, and when.
    struct SComing
    {
        SDate m_oDate;
        long m_lInstant;
    };

    /// Each coming of a time of day. A time that is left out comes up that much after the change.
    std::vector<SComing> comings(long lMinuteOfDay) const
    {
        std::vector<SComing> oComings;
        const auto note = [&](long lReading, long lMinute)
        {
            if ((lReading - lMinuteOfDay) % MINUTES_OF_DAY == 0)
            {
                oComings.push_back({SDate((lReading - lMinuteOfDay) / MINUTES_OF_DAY), instantAt(lMinute)});
            }
        };
        for (long lMinute = 0; lMinute < static_cast<long>(m_oReadings.size()); ++lMinute)
        {
            note(m_oReadings[lMinute], lMinute);
            const long lExpected = lMinute > 0 ? m_oReadings[lMinute - 1] + 1 : m_oReadings[0];
            for (long lLeftOut = lExpected; lLeftOut < m_oReadings[lMinute]; ++lLeftOut)
            {
                note(lLeftOut, lMinute + lLeftOut - lExpected);
            }
        }
        std::sort(oComings.begin(), oComings.end(),
                  [](const SComing &oOne, const SComing &oOther) { return oOne.m_lInstant < oOther.m_lInstant; });
        return oComings;
    }

    /// Times of day at and around the changes, and the edges of a day.
    std::set<long> timesOfInterest() const
    {
        std::set<long> oTimes{0, 9 * 60, MINUTES_OF_DAY - 1, MINUTES_OF_DAY};
        for (const long lMinute : m_oChanges)
        {
            const auto oEdges = std::minmax({m_oReadings[lMinute - 1] + 1, m_oReadings[lMinute]});
            for (const long lReading :
                 {oEdges.first - 1, oEdges.first, (oEdges.first + oEdges.second) / 2, oEdges.second - 1, oEdges.second})
            {
                oTimes.insert(lReading % MINUTES_OF_DAY);
            }
        }
        return oTimes;
    }

    /// Instants to ask from: the year in long strides, and in short ones near the changes.
    std::set<long> instantsOfInterest(long lStrideNear) const
    {
        std::set<long> oInstants;
        for (long lMinute = 0; lMinute < 366 * MINUTES_OF_DAY; lMinute += 31 * 60 + 7)
        {
            oInstants.insert(instantAt(lMinute));
        }
        for (const long lChange : m_oChanges)
        {
            for (long lMinute = -26 * 60; lMinute < 26 * 60; lMinute += lStrideNear)
            {
                oInstants.insert({instantAt(lChange + lMinute), instantAt(lChange + lMinute) + 1});
            }
        }
        return oInstants;
    }

    /// The days that a rule of that kind can name, those of changes in any case.
    std::set<int> daysOfInterest(EnumTimerType eType) const
    {
        std::set<int> oDays{eType == TIMER_DAY ? 0 : 1};
        for (const long lMinute : m_oChanges)
        {
            for (const long lReading : {m_oReadings[lMinute - 1], m_oReadings[lMinute]})
            {
                const struct tm oDate = SDate(lReading / MINUTES_OF_DAY).m_oFields;
                oDays.insert(eType == TIMER_DAY ? 0 : eType == TIMER_WEEK ? oDate.tm_wday : oDate.tm_mday);
            }
        }
        if (eType == TIMER_MONTH)
        {
            oDays.insert({29, 30, 31});
        }
        return oDays;
    }

private:
    long m_lBegin = 0;
    std::vector<long> m_oReadings;
    std::vector<long> m_oChanges; // minutes before which the clock was changed
};

/// The first coming on a date of the rule that is not past. The date of the reference is over once the clock has shown
/// the time, or, for the day kind, a later one.
long search(const std::vector<CWallClock::SComing> &oComings, const SZolTimerItem &oRule, long lFrom)
{
    const struct tm oFrom = localTm(lFrom);
    const long lToday = readingAt(lFrom) / MINUTES_OF_DAY;
    const long lSecs = oFrom.tm_hour * 3600L + oFrom.tm_min * 60L + oFrom.tm_sec;
    const bool bOver = oRule.m_eType == TIMER_DAY ? lSecs > oRule.m_uiTimeSecs : lSecs >= oRule.m_uiTimeSecs;
    auto itComing = std::lower_bound(oComings.begin(), oComings.end(), lFrom,
                                     [](const auto &oComing, long lWhen) { return oComing.m_lInstant < lWhen; });
    while (itComing != oComings.end() && (itComing->m_oDate.m_lNumber < lToday + (bOver ? 1 : 0) ||
                                          !itComing->m_oDate.isNamedBy(oRule.m_eType, oRule.m_ucDays)))
    {
        ++itComing;
    }
    return itComing != oComings.end() ? itComing->m_lInstant : -1;
}

/// One zone in one year. Counts what it asks, and complains of the first few errors.
class CComparison
{
public:
    CComparison(const std::string &strZone, int iYear, long lStrideNear)
        : m_strName(strZone + " in " + std::to_string(iYear)), m_oClock(iYear), m_lStrideNear(lStrideNear)
    {
        for (int iMonth = 0; iMonth < 12; ++iMonth)
        {
            struct tm oNext = {};
            oNext.tm_year = iYear - 1900;
            oNext.tm_mon = iMonth + 1;
            oNext.tm_mday = 1;
            const SDate oLast(timegm(&oNext) / 86400 - 1);
            expect(oLast.m_oFields.tm_mday, CZolDateUtil::getLastMonthDay(iYear - 1900, iMonth), "last day of month ",
                   iMonth + 1);
        }
    }

    void run()
    {
        const std::set<long> oFrom = m_oClock.instantsOfInterest(m_lStrideNear);
        for (const long lMinuteOfDay : m_oClock.timesOfInterest())
        {
            const std::vector<CWallClock::SComing> oComings = m_oClock.comings(lMinuteOfDay);
            for (const EnumTimerType eKind : KINDS)
            {
                for (const int iDays : m_oClock.daysOfInterest(eKind))
                {
                    const SZolTimerItem oRule = rule(eKind, iDays, static_cast<unsigned int>(lMinuteOfDay * 60));
                    for (const long lFrom : oFrom)
                    {
                        ask(oComings, oRule, lFrom);
                    }
                }
            }
            for (int iDay = 1; iDay <= 31; ++iDay)
            {
                fire(oComings, rule(TIMER_MONTH, iDay, static_cast<unsigned int>(lMinuteOfDay * 60)));
            }
        }
    }

    unsigned long m_ulAsked = 0;
    unsigned long m_ulWrong = 0;

private:
    long ask(const std::vector<CWallClock::SComing> &oComings, const SZolTimerItem &oRule, long lFrom)
    {
        const long lFound = CZolCalendar::nextInstant(localTm(lFrom), oRule);
        std::ostringstream oWhat;
        if (const long lRight = search(oComings, oRule, lFrom); lFound != lRight)
        {
            oWhat << "kind " << oRule.m_eType << ", day " << int{oRule.m_ucDays} << ", " << oRule.m_uiTimeSecs / 60
                  << " minutes past midnight, from " << textOf(lFrom) << " = ";
            expect(lRight, lFound, oWhat.str().c_str(), lFrom);
        }
        ++m_ulAsked;
        return lFound;
    }

    /// The firings of a month timer, each sought from the one before.
    void fire(const std::vector<CWallClock::SComing> &oComings, const SZolTimerItem &oRule)
    {
        for (long lFiring = m_oClock.instantAt(0); lFiring >= 0 && lFiring < m_oClock.end();)
        {
            const long lNext = ask(oComings, oRule, lFiring);
            ASSERT_GT(lNext, lFiring) << m_strName << ", day " << int{oRule.m_ucDays};
            lFiring = lNext;
        }
    }

    void expect(long lRight, long lFound, const char *pcWhat, long lOfWhat)
    {
        ++m_ulAsked;
        if (lRight != lFound && ++m_ulWrong <= 3)
        {
            ADD_FAILURE() << m_strName << ": " << pcWhat << lOfWhat << ": " << textOf(lFound) << " (" << lFound
                          << "), should be " << textOf(lRight) << " (" << lRight << ")";
        }
    }

    const std::string m_strName;
    const CWallClock m_oClock;
    const long m_lStrideNear;
};

/// Every zone of the machine once, those that are alike under one name.
std::vector<std::string> allZones()
{
    const std::filesystem::path oRoot = "/usr/share/zoneinfo";
    std::vector<std::string> oNames;
    std::set<std::string> oContents;
    for (const auto &oEntry : std::filesystem::recursive_directory_iterator(oRoot))
    {
        if (!oEntry.is_regular_file())
        {
            continue;
        }
        std::ifstream oFile(oEntry.path(), std::ios::binary);
        const std::string strContent{std::istreambuf_iterator<char>(oFile), {}};
        if (strContent.compare(0, 4, "TZif") == 0 && oContents.insert(strContent).second)
        {
            oNames.push_back(oEntry.path().lexically_relative(oRoot).string());
        }
    }
    std::sort(oNames.begin(), oNames.end());
    return oNames;
}

} // namespace

TEST(CalendarTest, AgreesWithASearchByMinutesInHardYears)
{
    const struct
    {
        const char *pcZone;
        int iYear;
    } arrCases[] = {
        {"UTC", 2028},
        {"Europe/Berlin", 2027},
        {"Europe/Dublin", 2027},       // winter is what has tm_isdst 1
        {"Africa/Casablanca", 2027},   // the same for a month, by the moon
        {"Africa/El_Aaiun", 2027},     //
        {"Australia/Lord_Howe", 2027}, // by half an hour
        {"Antarctica/Troll", 2027},    // by two hours
        {"America/St_Johns", 2009},    // a minute after midnight, which comes twice, in two months
        {"America/Havana", 2026},      // at midnight, on the first of a month
        {"America/Sao_Paulo", 2018},   // midnight is left out, and the hour before it comes twice
        {"Asia/Gaza", 2011},           // four changes forth and back, one of them at midnight
        {"Asia/Pyongyang", 2018},      // standard time is moved, over midnight
        {"America/Caracas", 2007},     // standard time is moved, and half an hour comes twice
        {"Europe/Volgograd", 2020},    // the same with an hour, by night
        {"Pacific/Apia", 2011},        // a date is left out, in summer time
    };
    for (const auto &oCase : arrCases)
    {
        setZone(oCase.pcZone);
        CComparison(oCase.pcZone, oCase.iYear, 15).run();
    }
}

// Takes minutes: ZOL_ALL_ZONES=2026,2027,2028 in the environment names the years.
TEST(CalendarTest, AgreesWithASearchByMinutesInEveryZone)
{
    const char *pcYears = std::getenv("ZOL_ALL_ZONES"); // NOLINT(concurrency-mt-unsafe): one thread
    if (pcYears == nullptr)
    {
        GTEST_SKIP() << "ZOL_ALL_ZONES names no years";
    }
    unsigned long ulAsked = 0;
    unsigned long ulWrong = 0;
    const std::vector<std::string> oZones = allZones();
    std::istringstream oYears(pcYears);
    for (std::string strYear; std::getline(oYears, strYear, ',');)
    {
        for (const std::string &strZone : oZones)
        {
            setZone(strZone.c_str());
            CComparison oComparison(strZone, std::stoi(strYear), 5);
            oComparison.run();
            ulAsked += oComparison.m_ulAsked;
            ulWrong += oComparison.m_ulWrong;
        }
    }
    std::cout << oZones.size() << " zones, years " << pcYears << ": " << ulAsked << " asked, " << ulWrong << " wrong\n";
}

// By hand, so that the search and the calendar cannot be wrong together.
TEST(CalendarTest, FindsWhatAnAlmanacSays)
{
    const struct
    {
        const char *pcZone;
        EnumTimerType eType;
        int iDays;
        unsigned int uiTimeSecs;
        const char *pcFrom, *pcExpected;
    } arrCases[] = {
        {"UTC", TIMER_DAY, 0, 32400, "2026-01-20 09:00:00", "2026-01-20 09:00:00"},
        {"UTC", TIMER_DAY, 0, 86400, "2026-12-31 23:59:59", "2027-01-01 00:00:00"},
        {"UTC", TIMER_WEEK, 3, 32400, "2026-01-21 08:59:59", "2026-01-21 09:00:00"}, // a Wednesday
        {"UTC", TIMER_WEEK, 3, 32400, "2026-01-21 09:00:00", "2026-01-28 09:00:00"},
        {"UTC", TIMER_MONTH, 31, 36000, "2026-02-28 09:00:00", "2026-02-28 10:00:00"},
        {"UTC", TIMER_MONTH, 31, 36000, "2026-12-31 11:00:00", "2027-01-31 10:00:00"},
        {"UTC", TIMER_MONTH, 29, 36000, "2100-02-01 00:00:00", "2100-02-28 10:00:00"},
        {"Europe/Berlin", TIMER_DAY, 0, 32400, "2026-03-28 10:00:00", "2026-03-29 09:00:00"},
        {"Europe/Berlin", TIMER_DAY, 0, 9000, "2026-03-28 10:00:00", "2026-03-29 03:30:00"}, // left out
        {"Europe/Dublin", TIMER_MONTH, 28, 5400, "2027-03-01 00:00:00", "2027-03-28 02:30:00"},
        {"Asia/Kolkata", TIMER_MONTH, 31, 86399, "2026-09-30 00:00:00", "2026-09-30 23:59:59"},
    };
    for (const auto &oCase : arrCases)
    {
        setZone(oCase.pcZone);
        const struct tm oFrom = localTm(CZolDateUtil::strToTime(oCase.pcFrom));
        const SZolTimerItem oRule = rule(oCase.eType, oCase.iDays, oCase.uiTimeSecs);
        EXPECT_EQ(oCase.pcExpected, textOf(CZolCalendar::nextInstant(oFrom, oRule)))
            << oCase.pcZone << ", kind " << oCase.eType << ", day " << oCase.iDays << ", from " << oCase.pcFrom;
    }
}

TEST(CalendarTest, TellsTheEndOfThePeriodFromFailure)
{
    setZone("UTC");
    const long lInstant = CZolDateUtil::strToTime("2026-01-20 09:00:00");
    const struct tm oFrom = localTm(lInstant - 10);
    EXPECT_EQ(CZolCalendar::PAST_END, CZolCalendar::nextInstant(oFrom, rule(TIMER_DAY, 0, 32400, lInstant)));
    EXPECT_EQ(lInstant, CZolCalendar::nextInstant(oFrom, rule(TIMER_DAY, 0, 32400, lInstant + 1)));
    EXPECT_EQ(CZolCalendar::FAILED, CZolCalendar::nextInstant(oFrom, rule(TIMER_CYCLE, 0, 32400)));
    EXPECT_EQ(CZolCalendar::FAILED, CZolCalendar::nextInstant(oFrom, rule(TIMER_DATE, 0, 32400)));
}
