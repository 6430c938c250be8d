// How late timers come: a cycle timer of one second against its grid, and the ticks of a precise clock of 10 ms.
//
//     lateness [SECONDS]     10 by default
//
// Figures of a machine that has nothing else to do; they are no test.

#include "zol.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

namespace
{

const std::uint64_t PERIOD_NS = 10000000;
const std::uint64_t SECOND_NS = 1000000000;

std::uint64_t nowNs()
{
    timespec oNow{};
    clock_gettime(CLOCK_MONOTONIC, &oNow);
    return static_cast<std::uint64_t>(oNow.tv_sec) * SECOND_NS + static_cast<std::uint64_t>(oNow.tv_nsec);
}

void report(const char *pcWho, const char *pcMetric, double dNanoseconds)
{
    std::printf("L5 lateness/zol %s\t%s\t%.4g\tms\n", pcWho, pcMetric, dNanoseconds / 1e6);
}

/// What a firing is behind a grid that begins at the moment of asking.
class CGrid
{
public:
    CGrid(std::uint64_t ulPeriodNs, size_t uiFirings) : m_ulPeriodNs(ulPeriodNs) { m_oLate.reserve(uiFirings); }

    void start() { m_ulDue = nowNs() + m_ulPeriodNs; }
    void fired()
    {
        m_oLate.push_back(static_cast<double>(nowNs()) - static_cast<double>(m_ulDue));
        m_ulDue += m_ulPeriodNs;
    }
    size_t count() const { return m_oLate.size(); }
    void reportTo(const char *pcWho)
    {
        report(pcWho, "first", m_oLate.front());
        report(pcWho, "last", m_oLate.back());
        std::sort(m_oLate.begin(), m_oLate.end());
        report(pcWho, "median", m_oLate[m_oLate.size() / 2]);
        report(pcWho, "p99", m_oLate[m_oLate.size() * 99 / 100]);
        report(pcWho, "worst", m_oLate.back());
    }

private:
    const std::uint64_t m_ulPeriodNs;
    std::uint64_t m_ulDue = 0;
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
    void timerCallBack(unsigned long) override
    {
        m_oCycle.fired();
        if (m_oCycle.count() == m_uiSeconds)
        {
            CZolAppMgr::instance()->exitThreads();
        }
    }
    CGrid &cycle() { return m_oCycle; }

private:
    const unsigned int m_uiSeconds;
    CGrid m_oCycle;
};

} // namespace

int main(int iArgs, char **ppcArgs)
{
    const auto uiSeconds = static_cast<unsigned int>(iArgs > 1 ? std::max(std::atoi(ppcArgs[1]), 1) : 10);
    CZolAppMgr *const poAppMgr = CZolAppMgr::instance();
    auto *const poTaskMgr = new CZolTaskMgr(1, 1);
    auto *const poTask = new CLateness(uiSeconds);
    g_poClock = new CGrid(PERIOD_NS, (uiSeconds + 1) * 100);
    if (poAppMgr->initAppMgr(1, 0, true, "bench-lateness", nullptr) != ZOL_OK ||
        poAppMgr->addTaskMgr(poTaskMgr) != ZOL_OK || poTaskMgr->addStaticTask(poTask, 1) != ZOL_OK || !poTask->start())
    {
        return 2;
    }
    g_poClock->start();
    const unsigned long ulClock = CZolTimer::instance()->registerPreciseClock(10, tick);
    poAppMgr->handleEvents();
    CZolTimer::instance()->cancelPreciseClock(ulClock);
    const timespec oTick{0, 50000000}; // a call may be under way
    nanosleep(&oTick, nullptr);
    poTask->cycle().reportTo("cycle 1 s");
    g_poClock->reportTo("clock 10 ms");
    return 0;
}
