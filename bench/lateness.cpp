// How late timers come: a cycle timer of one second against its grid, and the ticks of a precise clock of 10 ms.
//
//     lateness [SECONDS]     10 by default
//
// Figures of a machine that has nothing else to do; they are no test.

#include "BenchSupport.h"

#include <algorithm>
#include <future>
#include <vector>

using namespace zolbench;

namespace
{

const std::uint64_t PERIOD_NS = 10000000;
const std::uint64_t SECOND_NS = 1000000000;

/// What a firing is behind a grid that begins at the moment of asking.
class CGrid
{
public:
    CGrid(std::uint64_t ulPeriodNs, size_t uiFirings) : m_ulPeriodNs(ulPeriodNs) { m_oLate.reserve(uiFirings); }

    void start() { m_ulDue = nowNs() + m_ulPeriodNs; }
    void fired()
    {
        const std::uint64_t ulNow = nowNs();
        for (; ulNow >= m_ulDue + m_ulPeriodNs; ++m_uiSkipped) // firings that are over are not made up for
        {
            m_ulDue += m_ulPeriodNs;
        }
        m_oLate.push_back(static_cast<double>(ulNow) - static_cast<double>(m_ulDue));
        m_ulDue += m_ulPeriodNs;
    }
    size_t count() const { return m_oLate.size(); }
    void reportAs(const std::string &strWho)
    {
        const auto report = [&](const char *pcMetric, double dLateNs)
        { zolbench::report("L5 lateness/zol " + strWho, pcMetric, dLateNs / 1e6, "ms"); };
        report("first", m_oLate.front());
        report("last", m_oLate.back());
        std::sort(m_oLate.begin(), m_oLate.end());
        report("median", m_oLate[m_oLate.size() / 2]);
        report("p99", m_oLate[m_oLate.size() * 99 / 100]);
        report("worst", m_oLate.back());
        zolbench::report("L5 lateness/zol " + strWho, "skipped", m_uiSkipped, "firings");
    }

private:
    const std::uint64_t m_ulPeriodNs;
    std::uint64_t m_ulDue = 0;
    unsigned int m_uiSkipped = 0;
    std::vector<double> m_oLate;
};

CGrid *g_poClock = nullptr; // the timer thread's while the clock runs

void tick(unsigned long)
{
    g_poClock->fired();
}

class CLateness : public CZolTask
{
public:
    explicit CLateness(unsigned int uiSeconds) : m_uiSeconds(uiSeconds), m_oCycle(SECOND_NS, uiSeconds + 1) {}

    bool start()
    {
        m_oCycle.start();
        return setTimer(1) != 0;
    }
    void timerCallBack(unsigned long ulTimerID) override
    {
        if (m_oCycle.count() == m_uiSeconds)
        {
            return; // it was in the queue already
        }
        m_oCycle.fired();
        if (m_oCycle.count() == m_uiSeconds)
        {
            cancelTimer(ulTimerID);
            m_oDone.set_value();
        }
    }
    CGrid &cycle() { return m_oCycle; }
    void awaitEnd() { m_oDone.get_future().wait(); }

private:
    std::promise<void> m_oDone;
    const unsigned int m_uiSeconds;
    CGrid m_oCycle;
};

} // namespace

int main(int argc, char **argv)
{
    const unsigned int uiSeconds = std::max(argument(argc, argv, 1, 10), 1U);
    CProcess oProcess(uiSeconds + 60);
    auto *const poTaskMgr = new CZolTaskMgr(1, 1);
    auto *const poTask = new CLateness(uiSeconds);
    CProcess::add(poTaskMgr);
    need(poTaskMgr->addStaticTask(poTask, 1) == ZOL_OK, "the task of the bench");
    g_poClock = new CGrid(PERIOD_NS, (uiSeconds + 10) * 100);
    oProcess.run(
        [&]
        {
            need(poTask->start(), "the cycle timer");
            g_poClock->start();
            const unsigned long ulClock = CZolTimer::instance()->registerPreciseClock(10, tick);
            poTask->awaitEnd();
            CZolTimer::instance()->cancelPreciseClock(ulClock);
            std::this_thread::sleep_for(std::chrono::milliseconds(100)); // a call may be under way
            poTask->cycle().reportAs("cycle 1 s");
            g_poClock->reportAs("clock 10 ms");
        });
    return 0;
}
