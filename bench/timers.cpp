// Timers that are set and cancelled on a task's thread while the service runs: what one costs, alone and among many.
//
//     timers [N]     N timers in the rows that carry no number, 100000 by default
//
// schedule and cancel without a number: N timers are set in order, then cancelled in random order, as the rows of other
// libraries have it. With a number: so many timers stay alive on 1000 tasks, and more come and go beside them.

#include "BenchSupport.h"

#include <algorithm>
#include <future>
#include <numeric>
#include <random>
#include <vector>

using namespace zolbench;

namespace
{

const unsigned char MANAGER = 1;
const unsigned char CROWD = 2; // the manager of the tasks that the timers are set for; nothing is sent to it
const unsigned int TASKS = 1000;
const unsigned int FAR_AWAY = 100000; // seconds: none of these fires

unsigned short taskOf(unsigned int uiIndex)
{
    return static_cast<unsigned short>(33 + uiIndex % TASKS);
}

/// Sets oIds.size() timers, one task after the other; the time of one.
double scheduleAll(std::vector<unsigned long> &oIds)
{
    CZolTimer *const poTimer = CZolTimer::instance();
    const std::uint64_t ulStart = nowNs();
    for (unsigned int ui = 0; ui < oIds.size(); ++ui)
    {
        oIds[ui] = poTimer->setCycleInterval(FAR_AWAY, CROWD, ui, taskOf(ui));
    }
    const std::uint64_t ulEnd = nowNs();
    need(std::find(oIds.begin(), oIds.end(), 0U) == oIds.end(), "a timer was refused");
    return static_cast<double>(ulEnd - ulStart) / static_cast<double>(oIds.size());
}

/// Cancels them in the order given; the time of one.
double cancelAll(const std::vector<unsigned long> &oIds, const std::vector<unsigned int> &oOrder)
{
    CZolTimer *const poTimer = CZolTimer::instance();
    bool bAll = true;
    const std::uint64_t ulStart = nowNs();
    for (const unsigned int uiIndex : oOrder)
    {
        bAll = poTimer->cancelTimer(oIds[uiIndex]) == ZOL_OK && bAll;
    }
    const std::uint64_t ulEnd = nowNs();
    need(bAll, "a timer could not be cancelled");
    return static_cast<double>(ulEnd - ulStart) / static_cast<double>(oOrder.size());
}

std::vector<unsigned int> shuffled(unsigned int uiCount)
{
    std::vector<unsigned int> oOrder(uiCount);
    std::iota(oOrder.begin(), oOrder.end(), 0U);
    std::shuffle(oOrder.begin(), oOrder.end(), std::mt19937(42));
    return oOrder;
}

void benchBulk(unsigned int uiTimers)
{
    std::vector<unsigned long> oIds(uiTimers);
    const std::vector<unsigned int> oOrder = shuffled(uiTimers);
    const double dBefore = memoryBytes("VmRSS:");
    report("L5/zol", "schedule", scheduleAll(oIds), "ns/op");
    report("L5/zol", "memory of a timer", (memoryBytes("VmRSS:") - dBefore) / uiTimers, "bytes");
    report("L5/zol", "cancel", cancelAll(oIds, oOrder), "ns/op");
}

double median(std::vector<double> oValues)
{
    std::nth_element(oValues.begin(), oValues.begin() + static_cast<long>(oValues.size() / 2), oValues.end());
    return oValues[oValues.size() / 2];
}

/// Beside uiLive timers that stay, a thousand at a time come and go, one for each task; then tasks end that have ten
/// each. Medians of the turns, since others may take the processor in one of them.
void benchAmong(unsigned int uiLive)
{
    const unsigned int uiTurns = 101;
    std::vector<unsigned long> oLive(uiLive);
    scheduleAll(oLive);
    std::vector<unsigned long> oIds(TASKS);
    const std::vector<unsigned int> oOrder = shuffled(TASKS);
    std::vector<double> oSchedule;
    std::vector<double> oCancel;
    std::vector<double> oCancelTask;
    for (unsigned int ui = 0; ui < uiTurns; ++ui)
    {
        oSchedule.push_back(scheduleAll(oIds));
        oCancel.push_back(cancelAll(oIds, oOrder));
        for (unsigned int uiOwn = 0; uiOwn < 10; ++uiOwn)
        {
            CZolTimer::instance()->setCycleInterval(FAR_AWAY, CROWD, 1, 7);
        }
        const std::uint64_t ulStart = nowNs();
        CZolTimer::instance()->cancelTimer(CROWD, 7);
        oCancelTask.push_back(static_cast<double>(nowNs() - ulStart));
    }
    const std::string strWho = "L5/zol among " + std::to_string(uiLive);
    report(strWho, "schedule", median(oSchedule), "ns/op");
    report(strWho, "cancel", median(oCancel), "ns/op");
    report(strWho, "cancel ten of a task", median(oCancelTask), "ns/op");
    need(CZolTimer::instance()->getTimerCount() == uiLive + 1, "timers have gone astray"); // one is the bench's own
    cancelAll(oLive, shuffled(uiLive));
}

/// All due in the same second: from the first of them to the last, each delivered to a task, and each once. The bench's
/// own task takes them, on a thread of its own manager.
class CFiring
{
public:
    void arm(unsigned int uiTimers, unsigned short usTaskID)
    {
        m_oSeen.assign(uiTimers, 0);
        // Delays are whole seconds from the moment of asking, so all are asked for within one second.
        const long lStart = time(nullptr);
        while (time(nullptr) == lStart)
        {
        }
        const long lDue = lStart + 3;
        for (unsigned int ui = 0; ui < uiTimers; ++ui)
        {
            need(CZolTimer::instance()->setDatePeriod(lDue, MANAGER, ui, usTaskID) != 0, "a date was refused");
        }
        need(time(nullptr) == lStart + 1, "the machine is too slow to set so many timers in a second");
    }
    /// True when all have come.
    bool take(unsigned int uiIndex)
    {
        need(uiIndex < m_oSeen.size() && m_oSeen[uiIndex]++ == 0, "a timer has fired twice");
        m_ulFirst = m_uiCount == 0 ? nowNs() : m_ulFirst;
        if (++m_uiCount < m_oSeen.size())
        {
            return false;
        }
        report("L5/zol", "fire all of one second", static_cast<double>(nowNs() - m_ulFirst) / 1e6, "ms");
        return true;
    }

private:
    std::vector<unsigned char> m_oSeen;
    unsigned int m_uiCount = 0;
    std::uint64_t m_ulFirst = 0;
};

class CBench : public CZolTask
{
public:
    explicit CBench(unsigned int uiTimers) : m_uiTimers(uiTimers) {}

    void timerCallBack(unsigned long ulTimerID) override
    {
        if (m_bStarted)
        {
            return;
        }
        m_bStarted = true;
        benchBulk(m_uiTimers);
        for (const unsigned int uiLive : {1000U, 10000U, 100000U})
        {
            benchAmong(uiLive);
        }
        cancelTimer(ulTimerID);
        m_oFiring.arm(m_uiTimers, getTaskID());
    }

    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        if (m_oFiring.take(poMsg->m_ulCmdID))
        {
            m_oDone.set_value();
        }
    }

    void awaitEnd() { m_oDone.get_future().wait(); }

private:
    const unsigned int m_uiTimers;
    std::promise<void> m_oDone;
    bool m_bStarted = false;
    CFiring m_oFiring;
};

} // namespace

int main(int argc, char **argv)
{
    CProcess oProcess(120);
    CZolRunLog::logLevel(CZolRunLog::LEVEL_ERROR);
    auto *const poTaskMgr = new CZolTaskMgr(MANAGER, 1);
    auto *const poBench = new CBench(argument(argc, argv, 1, 100000));
    CProcess::add(poTaskMgr);
    CProcess::add(new CZolTaskMgr(CROWD, 1));
    need(poTaskMgr->addStaticTask(poBench, 1) == ZOL_OK && poBench->setTimer(1) != 0, "the task of the bench");
    oProcess.run([&] { poBench->awaitEnd(); });
    return 0;
}
