#include "timer/TimerFixture.h"
#include "timer/ZolTimerInside.h"
#include "timer/ZolTimerRule.h"
#include "timer/Zone.h"

using namespace zoltest;

namespace
{

const long FAR = 4102444800; // 2100-01-01 00:00:00 UTC
const unsigned char NOBODY = 77;

long now()
{
    return CZolWallClock::now();
}

unsigned int at(unsigned int uiHour)
{
    return uiHour * 3600;
}

class TimerTest : public TimerFixture
{
protected:
    /// The expiry of a timer, as the reactor would bring it.
    static void fire(unsigned long ulTimerId, long lWallTime)
    {
        g_lWallTime = lWallTime;
        timer()->handle_timeout(ACE_Time_Value::zero, reinterpret_cast<const void *>(ulTimerId));
    }
    static unsigned int queued(CZolTaskMgr *poMgr) { return poMgr->getLengthOfBufferMsg(); }
};

long instant(const char *pcText)
{
    return CZolDateUtil::strToTime(pcText);
}

} // namespace

// ---- Refusals

TEST_F(TimerTest, RefusesWhatMakesNoSense)
{
    CZolTimer &oTimer = *timer();
    const long lNow = now();
    const unsigned long arrIds[] = {
        oTimer.setCycleInterval(0, MANAGER, 1, TASK),
        oTimer.setCycleInterval(0x80000000U, MANAGER, 1, TASK),
        oTimer.setCycleInterval(0xFFFFFFFFU, MANAGER, 1, TASK),
        oTimer.setCycleInterval(1, NOBODY, 1, TASK),
        oTimer.setDatePeriod(lNow - 2, MANAGER, 1, TASK),
        oTimer.setDatePeriod(-1, MANAGER, 1, TASK),
        oTimer.setDatePeriod(lNow + 100, NOBODY, 1, TASK),
        oTimer.setDayPeriod(lNow, lNow, at(9), MANAGER, 1, TASK),
        oTimer.setDayPeriod(FAR, lNow, at(9), MANAGER, 1, TASK),
        oTimer.setDayPeriod(lNow, FAR, 86401, MANAGER, 1, TASK),
        oTimer.setDayPeriod(lNow - 200000, lNow - 100000, at(9), MANAGER, 1, TASK),
        oTimer.setDayPeriod(0x7FFFFFFFFFFFFFF0, 0x7FFFFFFFFFFFFFFF, at(9), MANAGER, 1, TASK),
        oTimer.setDayPeriod(lNow, FAR, at(9), NOBODY, 1, TASK),
        oTimer.setWeekPeriod(lNow, FAR, 7, at(9), MANAGER, 1, TASK),
        oTimer.setWeekPeriod(lNow, FAR, 255, at(9), MANAGER, 1, TASK),
        oTimer.setWeekPeriod(FAR, lNow, 1, at(9), MANAGER, 1, TASK),
        oTimer.setMonthPeriod(lNow, FAR, 0, at(9), MANAGER, 1, TASK),
        oTimer.setMonthPeriod(lNow, FAR, 32, at(9), MANAGER, 1, TASK),
        oTimer.setMonthPeriod(lNow, FAR, 1, 0xFFFFFFFF, MANAGER, 1, TASK),
        oTimer.setMonthPeriod(lNow, FAR, 1, at(9), NOBODY, 1, TASK),
        oTimer.setDatePeriod("2001-01-01 00:00:00", MANAGER, 1, TASK),
        oTimer.setDatePeriod("2099-01-01 00:00", MANAGER, 1, TASK),
        oTimer.setDatePeriod("2099-01-01 00:60:00", MANAGER, 1, TASK),
        oTimer.setDatePeriod("", MANAGER, 1, TASK),
        oTimer.setDayPeriod("2020-01-01", "2099-01-0", "09:00:00", MANAGER, 1, TASK),
        oTimer.setDayPeriod("2020-13-01", "2099-01-01", "09:00:00", MANAGER, 1, TASK),
        oTimer.setDayPeriod("2020-01-01", "2099-01-01", "24:00:00", MANAGER, 1, TASK),
        oTimer.setDayPeriod("2020-01-01", "2099-01-01", "9:00:00", MANAGER, 1, TASK),
        oTimer.setWeekPeriod("2020-01-01", "2099-01-01", 7, "09:00:00", MANAGER, 1, TASK),
        oTimer.setWeekPeriod("2020-01-01", "2099-01-01x", 6, "09:00:00", MANAGER, 1, TASK),
        oTimer.setMonthPeriod("2020-01-01", "2099-01-01", 32, "09:00:00", MANAGER, 1, TASK),
        oTimer.setMonthPeriod("2020-01-01", "1960-01-01", 1, "09:00:00", MANAGER, 1, TASK),
    };
    for (size_t ui = 0; ui < sizeof arrIds / sizeof *arrIds; ++ui)
    {
        EXPECT_EQ(0U, arrIds[ui]) << "case " << ui;
    }
    EXPECT_EQ("zOL Timer List:\n", dump());
    EXPECT_EQ(1U, oTimer.setCycleInterval(0x7FFFFFFF, MANAGER, 1, TASK)) << "a refusal has drawn an id, or more";
}

TEST_F(TimerTest, CancelTellsWhatItDoesNotKnow)
{
    const unsigned long ulId = timer()->setCycleInterval(1000, MANAGER, 1, TASK);
    for (const unsigned long ulOther : {0UL, ulId + 1, ulId + (1UL << 32), ~0UL})
    {
        EXPECT_EQ(ZOL_ERR_NO_DEST, timer()->cancelTimer(ulOther)) << ulOther;
    }
    EXPECT_EQ(ZOL_OK, timer()->cancelTimer(ulId));
    EXPECT_EQ(ZOL_ERR_NO_DEST, timer()->cancelTimer(ulId));
    EXPECT_EQ(ZOL_OK, timer()->cancelTimer(NOBODY, 65535));
}

// ---- The dump

TEST_F(TimerTest, DumpsEveryKindOldestFirst)
{
    setZone("UTC");
    timer()->setCycleInterval(60, MANAGER, 7, TASK);
    timer()->setDatePeriod("2099-01-01 00:00:00", MANAGER, 4294967295U, 65535);
    timer()->setDayPeriod("2020-01-01", "2099-01-01", "09:00:01", MANAGER, 8, TASK);
    timer()->setWeekPeriod("2020-01-01", "2099-01-01", 6, "00:00:00", OTHER_MANAGER, 9, 33);
    timer()->setMonthPeriod("2020-01-01", "2099-01-01 12:00:00", 31, "23:59:59", MANAGER, 10, TASK);
    timer()->registerPreciseClock(100000, [](unsigned long) {});
    EXPECT_EQ("zOL Timer List:\n"
              "    timerid: 1 (reactorid: 0) , type: 0, TaskMgrID: 3, TaskID: 1, CmdCode: 7, Interval: 60, TimeSecs: "
              "4294967295, Days: 0, StartTime: -1, EndTime: -1\n"
              "    timerid: 2 (reactorid: 1) , type: 1, TaskMgrID: 3, TaskID: 65535, CmdCode: 4294967295, Interval: 0, "
              "TimeSecs: 4294967295, Days: 0, StartTime: 4070908800, EndTime: -1\n"
              "    timerid: 3 (reactorid: 2) , type: 2, TaskMgrID: 3, TaskID: 1, CmdCode: 8, Interval: 86400, "
              "TimeSecs: 32401, Days: 0, StartTime: 1577836800, EndTime: 4070908800\n"
              "    timerid: 4 (reactorid: 3) , type: 3, TaskMgrID: 4, TaskID: 33, CmdCode: 9, Interval: 604800, "
              "TimeSecs: 0, Days: 6, StartTime: 1577836800, EndTime: 4070908800\n"
              "    timerid: 5 (reactorid: 4) , type: 4, TaskMgrID: 3, TaskID: 1, CmdCode: 10, Interval: 4233600, "
              "TimeSecs: 86399, Days: 31, StartTime: 1577836800, EndTime: 4070952000\n",
              dump());
    timer()->cancelTimer(1);
    timer()->cancelTimer(3);
    timer()->cancelTimer(5);
    timer()->setCycleInterval(61, MANAGER, 7, TASK);
    const std::string strDump = dump();
    EXPECT_LT(strDump.find("timerid: 2 "), strDump.find("timerid: 4 "));
    EXPECT_LT(strDump.find("timerid: 4 "), strDump.find("timerid: 7 ")); // 6 is the clock
    EXPECT_EQ(3U, countOf(strDump, "timerid"));
}

TEST_F(TimerTest, CancelsTheTimersOfOneTaskOnly)
{
    for (unsigned int ui = 0; ui < 3; ++ui)
    {
        timer()->setCycleInterval(1000, MANAGER, 1, TASK);
        timer()->setCycleInterval(1000, MANAGER, 1, TASK + 256);
        timer()->setCycleInterval(1000, OTHER_MANAGER, 1, TASK);
    }
    EXPECT_EQ(ZOL_OK, timer()->cancelTimer(MANAGER, TASK));
    EXPECT_EQ(6U, timer()->getTimerCount());
    EXPECT_EQ(0U, countOf(dump(), "TaskMgrID: 3, TaskID: 1,"));
    EXPECT_EQ(3U, countOf(dump(), "TaskMgrID: 4, TaskID: 1,"));
    EXPECT_EQ(3U, countOf(dump(), "TaskMgrID: 3, TaskID: 257,"));
}

TEST_F(TimerTest, IdsGoRoundAndPassOverThoseInUse)
{
    const unsigned long ulFirst = timer()->setCycleInterval(1000, MANAGER, 1, TASK);
    const unsigned long ulClock = timer()->registerPreciseClock(100000, [](unsigned long) {});
    EXPECT_EQ(1U, ulFirst);
    EXPECT_EQ(2U, ulClock);
    CZolTimerInside::sequence() = 0xFFFFFFFF;
    EXPECT_EQ(0xFFFFFFFFU, timer()->setCycleInterval(1000, MANAGER, 1, TASK));
    EXPECT_EQ(3U, timer()->setCycleInterval(1000, MANAGER, 1, TASK));
    EXPECT_EQ(4U, timer()->registerPreciseClock(100000, [](unsigned long) {}));
}

// ---- The calendar at a firing, by a clock that the test moves

TEST_F(TimerTest, StartsFromNowOrFromTheStartOfThePeriod)
{
    setZone("Europe/Berlin");
    const struct
    {
        const char *pcNow, *pcStart;
        unsigned int uiTimeSecs;
        const char *pcFirst;
    } arrCases[] = {
        {"2026-01-20 08:59:59", "2020-01-01", at(9), "2026-01-20 09:00:00"},
        {"2026-01-20 09:00:01", "2020-01-01", at(9), "2026-01-21 09:00:00"},
        {"2026-01-10 00:00:00", "2026-01-20 08:00:00", at(9), "2026-01-20 09:00:00"},
        {"2026-01-10 00:00:00", "2026-01-20 08:00:00", at(7), "2026-01-21 07:00:00"},
        {"2026-01-10 00:00:00", "2026-01-20 08:00:00", at(8), "2026-01-20 08:00:00"},
        {"2026-03-28 23:00:00", "2020-01-01", at(9), "2026-03-29 09:00:00"},
    };
    for (const auto &oCase : arrCases)
    {
        stopWallClock(instant(oCase.pcNow));
        SZolTimerItem oItem;
        oItem.m_eType = TIMER_DAY;
        oItem.m_ucTaskMgrID = MANAGER;
        oItem.m_uiTimeSecs = oCase.uiTimeSecs;
        oItem.m_lStartTime = instant(oCase.pcStart);
        oItem.m_lEndTime = FAR;
        long lDelay = 0;
        EXPECT_EQ(oCase.pcFirst, textOf(CZolTimerRule::nextFiring(0, lDelay, oItem))) << oCase.pcNow;
        EXPECT_EQ(instant(oCase.pcFirst) - instant(oCase.pcNow), lDelay) << oCase.pcNow;
        oItem.m_ucTaskMgrID = NOBODY;
        EXPECT_EQ(-1, CZolTimerRule::scheduledTime(localTm(now()), oItem));
    }
}

TEST_F(TimerTest, DayTimersEndWithTheirPeriod)
{
    setZone("UTC");
    stopWallClock(instant("2026-01-10 00:00:00"));
    const long lDay = CZolDateUtil::ONE_DAY;
    const unsigned long ulId =
        timer()->setDayPeriod(std::string("2026-01-20 08:00:00"), "2026-01-23 09:00:00", "09:00:00", MANAGER, 1, TASK);
    ASSERT_NE(0U, ulId);
    const long lFirst = instant("2026-01-20 09:00:00");
    for (int iDay = 0; iDay < 4; ++iDay)
    {
        EXPECT_EQ(1U, timer()->getTimerCount()) << iDay;
        fire(ulId, lFirst + iDay * lDay);
    }
    EXPECT_EQ(4U, queued(m_poMgr));
    EXPECT_EQ(0U, timer()->getTimerCount()) << "the last firing is the one that falls on the end";
    fire(ulId, lFirst + 4 * lDay); // under way when it was cancelled
    EXPECT_EQ(4U, queued(m_poMgr));
    stopWallClock(instant("2026-01-10 00:00:00"));
    EXPECT_EQ(0U, timer()->setDayPeriod(std::string("2026-01-20 08:00:00"), "2026-01-20 09:00:00", "09:00:00", MANAGER,
                                        1, TASK));
    stopWallClock(instant("2026-01-20 08:00:00"));
    const unsigned long ulSet = timer()->setDayPeriod(0, lFirst + lDay, 9 * 3600, MANAGER, 1, TASK);
    fire(ulSet, lFirst + 7);
    EXPECT_EQ(ZOL_ERR_NO_DEST, timer()->cancelTimer(ulSet)) << "the clock was set, and goes past the end";
}

// At each firing the instant that follows by the calendar must be the one for which the reactor is armed already.
TEST_F(TimerTest, MonthTimersStayOnTheCalendarForYears)
{
    for (const char *pcZone : {"Europe/Dublin", "Australia/Lord_Howe"})
    {
        setZone(pcZone);
        for (const unsigned int uiTimeSecs : {5400U, 86400U})
        {
            for (const int iDay : {28, 31}) // the 28th is the day of the change in Dublin in March of 2027
            {
                SZolTimerItem oItem;
                oItem.m_eType = TIMER_MONTH;
                oItem.m_ucTaskMgrID = MANAGER;
                oItem.m_uiTimeSecs = uiTimeSecs;
                oItem.m_ucDays = static_cast<unsigned char>(iDay);
                oItem.m_lStartTime = 0;
                oItem.m_lEndTime = FAR;
                stopWallClock(instant("2026-01-03 12:00:00"));
                long lDelay = 0;
                long lArmed = CZolTimerRule::nextFiring(0, lDelay, oItem);
                for (int iFiring = 0; iFiring < 60; ++iFiring)
                {
                    const long lInterval = CZolTimerRule::monthInterval(lArmed, oItem);
                    ASSERT_GT(lInterval, 27 * 86400) << pcZone << " day " << iDay << " " << textOf(lArmed);
                    ASSERT_LT(lInterval, 32 * 86400) << pcZone << " day " << iDay << " " << textOf(lArmed);
                    stopWallClock(iFiring % 2 == 0 ? lArmed : lArmed - 3600); // set back in every other month
                    const long lNext = CZolTimerRule::nextFiring(lArmed, lDelay, oItem);
                    lArmed += lInterval;
                    ASSERT_EQ(textOf(lArmed), textOf(lNext)) << pcZone << " day " << iDay;
                }
            }
        }
    }
}

TEST_F(TimerTest, MonthTimersEndWithTheirPeriod)
{
    setZone("UTC");
    stopWallClock(instant("2026-01-30 00:00:00"));
    const unsigned long ulId =
        timer()->setMonthPeriod("2026-01-01", "2026-06-30 12:00:00", 31, "10:00:00", MANAGER, 1, TASK);
    ASSERT_NE(0U, ulId);
    for (const char *pcFiring : {"2026-01-31 10:00:00", "2026-02-28 10:00:00", "2026-03-31 10:00:00",
                                 "2026-04-30 10:00:00", "2026-05-31 10:00:00", "2026-06-30 10:00:00"})
    {
        EXPECT_EQ(1U, timer()->getTimerCount()) << pcFiring;
        fire(ulId, instant(pcFiring));
    }
    EXPECT_EQ(6U, queued(m_poMgr));
    EXPECT_EQ(0U, timer()->getTimerCount());

    stopWallClock(instant("2026-01-30 00:00:00"));
    const unsigned long ulOnce =
        timer()->setMonthPeriod("2026-01-01", "2026-02-15 00:00:00", 31, "10:00:00", MANAGER, 1, TASK);
    EXPECT_EQ(1U, countOf(dump(), "Interval: 4233600"));
    fire(ulOnce, instant("2026-01-31 10:00:00"));
    EXPECT_EQ(0U, timer()->getTimerCount()) << "a period with one instant fires once";
    EXPECT_EQ(0U, countOf(m_oInstallation.logText(), "CZolTimer::handle_timeout"));
}
