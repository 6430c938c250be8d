#include "timer/TimerFixture.h"
#include "timer/ZolTimerTask.h"

#include <stdexcept>
#include <thread>

using namespace zoltest;

namespace
{

std::atomic<unsigned int> g_uiCalls{0};
std::atomic<unsigned int> g_uiOtherCalls{0};
std::atomic<unsigned long> g_ulSeen{0};
std::atomic<unsigned long> g_ulChild{0};

void count(unsigned long)
{
    ++g_uiCalls;
}

void countOther(unsigned long)
{
    ++g_uiOtherCalls;
}

class PreciseClockTest : public TimerFixture
{
};

} // namespace

TEST_F(PreciseClockTest, RefusesWhatMakesNoSense)
{
    EXPECT_EQ(0U, timer()->registerPreciseClock(0, count));
    EXPECT_EQ(0U, timer()->registerPreciseClock(100, nullptr));
    const unsigned long ulTimer = timer()->setCycleInterval(1000, MANAGER, 1, TASK);
    EXPECT_EQ(1U, ulTimer) << "a refusal has drawn an id";
    timer()->cancelPreciseClock(ulTimer);
    timer()->cancelPreciseClock(0);
    EXPECT_EQ(1U, timer()->getTimerCount()) << "an id of a timer is none of a clock";
    EXPECT_EQ(ZOL_ERR_NO_DEST, timer()->cancelTimer(timer()->registerPreciseClock(100000, count)));
}

TEST_F(PreciseClockTest, CallsWithItsIdUntilCancelled)
{
    static std::atomic<unsigned long> ulOne, ulTwo;
    const auto note = [](unsigned long ulId)
    {
        ulOne = ulId == 1 ? ulOne + 1 : ulOne.load();
        ulTwo = ulId == 2 ? ulTwo + 1 : ulTwo.load();
    };
    ASSERT_EQ(1U, timer()->registerPreciseClock(3, note));
    ASSERT_EQ(2U, timer()->registerPreciseClock(5, note));
    EXPECT_TRUE(waitUntil([] { return ulOne >= 5 && ulTwo >= 5; }));
    EXPECT_EQ("zOL Timer List:\n", dump());
    timer()->cancelPreciseClock(1);
    const unsigned long ulBefore = ulOne;
    const unsigned long ulTwoBefore = ulTwo;
    EXPECT_TRUE(waitUntil([&] { return ulTwo >= ulTwoBefore + 5; }));
    EXPECT_LE(ulOne, ulBefore + 1); // a call may have been under way
}

TEST_F(PreciseClockTest, ACallbackMayCancelItselfAndRegisterAnother)
{
    g_ulSeen = timer()->registerPreciseClock(1,
                                             [](unsigned long ulId)
                                             {
                                                 ++g_uiCalls;
                                                 CZolTimer::instance()->cancelPreciseClock(ulId);
                                                 g_ulChild = CZolTimer::instance()->registerPreciseClock(2, countOther);
                                             });
    EXPECT_TRUE(waitUntil([] { return g_uiOtherCalls >= 5; }));
    EXPECT_EQ(1U, g_uiCalls);
    EXPECT_NE(g_ulSeen, g_ulChild);
}

TEST_F(PreciseClockTest, ACallbackThatThrowsLeavesALineAndGoesOn)
{
    timer()->registerPreciseClock(2,
                                  [](unsigned long)
                                  {
                                      ++g_uiCalls;
                                      throw std::runtime_error("no more coffee");
                                  });
    timer()->registerPreciseClock(2,
                                  [](unsigned long)
                                  {
                                      ++g_uiOtherCalls;
                                      throw 42;
                                  });
    EXPECT_TRUE(waitUntil([] { return g_uiCalls >= 3 && g_uiOtherCalls >= 3; }));
    EXPECT_TRUE(waitUntil([this] { return countOf(m_oInstallation.logText(), "no more coffee") >= 3; }));
    EXPECT_LE(3U, countOf(m_oInstallation.logText(), "clock 2 threw"));
}

// Whoever holds a lock that a handler of the timer thread wants must be able to set and cancel timers all the same.
TEST_F(PreciseClockTest, SettingATimerNeverWaitsForACallback)
{
    static std::mutex oGate;
    std::unique_lock<std::mutex> oHeld(oGate);
    timer()->registerPreciseClock(1,
                                  [](unsigned long)
                                  {
                                      ++g_uiCalls;
                                      const std::lock_guard<std::mutex> oGuard(oGate);
                                  });
    EXPECT_TRUE(waitUntil([] { return g_uiCalls >= 1; })); // it sits at the gate now
    const unsigned long ulId = timer()->setCycleInterval(1000, MANAGER, 1, TASK);
    const unsigned long ulClock = timer()->registerPreciseClock(1, countOther);
    EXPECT_EQ(ZOL_OK, timer()->cancelTimer(ulId));
    EXPECT_EQ(ZOL_OK, timer()->cancelTimer(MANAGER, TASK));
    oHeld.unlock();
    EXPECT_TRUE(waitUntil([] { return g_uiOtherCalls >= 3; }));
    timer()->cancelPreciseClock(ulClock);
}

TEST_F(PreciseClockTest, ClocksComeAndGoOnManyThreads)
{
    std::vector<std::thread> oThreads;
    for (int iThread = 0; iThread < 4; ++iThread)
    {
        oThreads.emplace_back(
            []
            {
                for (unsigned int ui = 0; ui < 2000; ++ui)
                {
                    const unsigned long ulId = timer()->registerPreciseClock(1 + ui % 3, count);
                    EXPECT_NE(0U, ulId);
                    timer()->cancelPreciseClock(ulId);
                }
            });
    }
    for (std::thread &oThread : oThreads)
    {
        oThread.join();
    }
    g_uiCalls = 0;
    const unsigned long ulLast = timer()->registerPreciseClock(1, countOther);
    EXPECT_TRUE(waitUntil([] { return g_uiOtherCalls >= 5; }));
    timer()->cancelPreciseClock(ulLast);
    EXPECT_LE(g_uiCalls, 1U) << "a cancelled clock is still called";
}

// The timer thread serves handlers of other modules, which have no id and stand in no list.
TEST_F(PreciseClockTest, OtherHandlersMayUseTheTimerThread)
{
    class CHandler : public ACE_Event_Handler
    {
    public:
        int handle_timeout(const ACE_Time_Value &, const void *) override { return ++m_uiCalls, 0; }
        std::atomic<unsigned int> m_uiCalls{0};
    };
    static CHandler oHandler; // may be under way when it is cancelled
    ASSERT_EQ(&CZolTimerTask::instance()->timerReactor(), timer()->reactor());
    const ACE_Time_Value oPeriod(0, 2000);
    const long lId = timer()->reactor()->schedule_timer(&oHandler, nullptr, oPeriod, oPeriod);
    EXPECT_TRUE(waitUntil([] { return oHandler.m_uiCalls >= 3; }));
    EXPECT_EQ(1, timer()->reactor()->cancel_timer(lId));
    EXPECT_EQ(1U, timer()->setCycleInterval(1000, MANAGER, 1, TASK));
}
