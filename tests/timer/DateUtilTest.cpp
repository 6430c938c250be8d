#include "ZolDateUtil.h"
#include "timer/Zone.h"

using namespace zoltest;

namespace
{

// Havana's clock goes back at one in the morning of 2026-11-01
const char *const ZONES[] = {"UTC", "Europe/Berlin", "America/Havana", "Asia/Kolkata", "Australia/Lord_Howe"};

} // namespace

TEST(DateUtilTest, KnowsTheLastDayOfEachMonthInEveryZone)
{
    const struct
    {
        unsigned int uiYear, uiMonth;
        int iLastDay;
    } arrCases[] = {{108, 1, 29}, {109, 1, 28}, {108, 11, 31}, {108, 12, 31},      {108, 13, 28},
                    {200, 1, 28}, {126, 3, 30}, {126, 9, 31},  {70, 1, 28},        {69, 10, -1},
                    {60, 5, -1},  {126, 2, 31}, {126, 8, 30},  {0xFFFFFFFF, 5, -1}};
    for (const char *pcZone : ZONES)
    {
        setZone(pcZone);
        for (const auto &oCase : arrCases)
        {
            EXPECT_EQ(oCase.iLastDay, CZolDateUtil::getLastMonthDay(oCase.uiYear, oCase.uiMonth))
                << pcZone << " " << oCase.uiYear << " " << oCase.uiMonth;
        }
    }
}

TEST(DateUtilTest, ReadsAndWritesEveryFormInEveryZone)
{
    const struct
    {
        const char *pcText, *pcMeaning;
    } arrCases[] = {
        {"2009-10-05 07:08:09", "2009-10-05 07:08:09"}, {"2009-02-31 10:00:00", "2009-02-28 10:00:00"},
        {"2008-04-31", "2008-04-30 00:00:00"},          {"2008-02-31", "2008-02-29 00:00:00"},
        {"2009-03-00", "2009-02-28 00:00:00"},          {"2009-03-00 23:59:59", "2009-02-28 23:59:59"},
        {"2008/02/28", "2008-02-28 00:00:00"},          {"2008x02y28z12.30.15", "2008-02-28 12:30:15"},
        {"2026-07-01 23:59:59", "2026-07-01 23:59:59"}, {"2099-12-31 23:59:59", "2099-12-31 23:59:59"},
    };
    for (const char *pcZone : ZONES)
    {
        setZone(pcZone);
        for (const auto &oCase : arrCases)
        {
            EXPECT_EQ(oCase.pcMeaning, textOf(CZolDateUtil::strToTime(oCase.pcText))) << pcZone << " " << oCase.pcText;
        }
    }
}

TEST(DateUtilTest, RefusesWhatIsNoTime)
{
    for (const char *pcText : {"",
                               "1",
                               "2009-13-01",
                               "2009-00-10",
                               "2009-01-32",
                               "200a-01-01",
                               "2009-0b-01",
                               "2009-01-c1",
                               " 009-01-01",
                               "24:00:00",
                               "10:60:00",
                               "10:00:60",
                               "1a:00:00",
                               "10:-1:00",
                               "10:00:0",
                               "2009-01-0",
                               "2009-01-011",
                               "2009-01-01 10:00:0",
                               "2009-01-01 24:00:00",
                               "2009-01-01 10:00:000",
                               "1969-05-05",
                               "1960-01-01 10:00:00",
                               "0000-01-01",
                               "+009-01-01"})
    {
        EXPECT_EQ(-1, CZolDateUtil::strToTime(pcText)) << pcText;
    }
    EXPECT_EQ(-1, CZolDateUtil::strToTime(std::string("2009-01\0001", 10))); // a NUL counts as one of the 10 characters
}

TEST(DateUtilTest, FillTimeReadsTheEndAndKeepsWhatItHasRead)
{
    struct tm oTime = {};
    EXPECT_TRUE(CZolDateUtil::fillTime("xx 23:59:58", oTime));
    EXPECT_EQ(std::make_tuple(23, 59, 58), std::make_tuple(oTime.tm_hour, oTime.tm_min, oTime.tm_sec));
    EXPECT_FALSE(CZolDateUtil::fillTime("10:61:07", oTime));
    EXPECT_EQ(std::make_tuple(23, 61, 7), std::make_tuple(oTime.tm_hour, oTime.tm_min, oTime.tm_sec));
    EXPECT_FALSE(CZolDateUtil::fillTime("0:00:00", oTime));
}

TEST(DateUtilTest, ATimeAloneMeansToday)
{
    for (const char *pcZone : ZONES)
    {
        setZone(pcZone);
        long lBefore = 0;
        long lNoon = 0;
        do // a midnight may fall between the two
        {
            lBefore = time(nullptr);
            lNoon = CZolDateUtil::strToTime("12:00:00");
        } while (localTm(lBefore).tm_mday != localTm(time(nullptr)).tm_mday);
        EXPECT_EQ(textOf(lBefore).substr(0, 10) + " 12:00:00", textOf(lNoon)) << pcZone;
        EXPECT_LE(CZolDateUtil::getTimeInSeconds(), 86399U);
    }
}

TEST(DateUtilTest, LeavesTheTextAloneWhenTheYearDoesNotFit)
{
    std::string strText = "before";
    EXPECT_FALSE(CZolDateUtil::timeToStr(0x7FFFFFFFFFFFFFFF, strText));
    EXPECT_EQ("before", strText);
}
