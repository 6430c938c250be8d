#include "timer/TimerFixture.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

// The machine's clock as this process sees it, ACE included, is the real one plus these seconds: the functions below
// stand in front of those of the C library. The monotonic clock is left as it is.
namespace
{
std::atomic<long> g_lStep{0};
}

extern "C"
{

    int clock_gettime(clockid_t iClock, struct timespec *poTime) noexcept
    {
        const long lResult = syscall(SYS_clock_gettime, iClock, poTime);
        poTime->tv_sec += iClock == CLOCK_REALTIME ? g_lStep.load() : 0;
        return static_cast<int>(lResult);
    }

    int gettimeofday(struct timeval *__restrict poTime, void *__restrict) noexcept
    {
        struct timespec oNow = {};
        clock_gettime(CLOCK_REALTIME, &oNow);
        *poTime = {oNow.tv_sec, oNow.tv_nsec / 1000};
        return 0;
    }

    time_t time(time_t *plTime) noexcept
    {
        struct timespec oNow = {};
        clock_gettime(CLOCK_REALTIME, &oNow);
        if (plTime != nullptr)
        {
            *plTime = oNow.tv_sec;
        }
        return oNow.tv_sec;
    }

} // extern "C"

using namespace zoltest;

namespace
{

std::atomic<unsigned int> g_uiTicks{0};

class ClockStepTest : public TimerFixture
{
protected:
    /// Whether a cycle timer and a clock that run already go on for another while.
    bool goOn(unsigned long ulCycle)
    {
        const unsigned int uiTicks = g_uiTicks;
        const unsigned int uiFirings = m_poTask->callbacks(ulCycle);
        return waitUntil([&] { return g_uiTicks >= uiTicks + 20 && m_poTask->callbacks(ulCycle) >= uiFirings + 2; });
    }
};

} // namespace

TEST_F(ClockStepTest, SettingTheClockStallsNothingAndFiresNothingEarly)
{
    runApplication(
        [this]
        {
            const unsigned long ulCycle = m_poTask->setTimer(1);
            timer()->registerPreciseClock(10, [](unsigned long) { ++g_uiTicks; });
            const unsigned long ulDate = timer()->setDatePeriod(time(nullptr) + 1800, MANAGER, 1, TASK);
            EXPECT_TRUE(goOn(ulCycle));
            g_lStep = -3600;
            EXPECT_TRUE(goOn(ulCycle)) << "the clock was set back an hour";
            const unsigned long ulSoon = timer()->setDatePeriod(time(nullptr) + 1, MANAGER, 1, TASK);
            EXPECT_TRUE(waitUntil([&] { return m_poTask->requests(ulSoon) == 1; })) << "by the clock as it is now";
            g_lStep = 7200;
            const unsigned int uiBefore = m_poTask->callbacks(ulCycle);
            EXPECT_TRUE(goOn(ulCycle)) << "the clock was set forward";
            EXPECT_LE(m_poTask->callbacks(ulCycle), uiBefore + 1000) << "the hours are not made up for";
            EXPECT_EQ(0U, m_poTask->requests(ulDate)) << "what is armed stays armed";
            EXPECT_EQ(0U, timer()->setDatePeriod(time(nullptr) - 3600, MANAGER, 1, TASK));
        });
}
