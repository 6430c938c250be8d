// L4: what a task costs that is created by a message, alone and among many of the same manager.
//
//     tasks [N]     N tasks exist at once, 59000 by default; rows for 1000, 10000 and N
//
// Each task is made for one message, stays, gets a second one and ends with it. Two threads serve the manager.

#include "BenchSupport.h"

#include <algorithm>
#include <atomic>
#include <semaphore.h>
#include <vector>

using namespace zolbench;

namespace
{

constexpr unsigned char MANAGER = 1;
constexpr unsigned int BURST = 1000;

std::atomic<unsigned int> g_uiDone{0}; // first or second messages that were handled
unsigned int g_uiCount = 0;            // of them; fixed while they are under way
sem_t g_oBurstDone;
std::atomic<std::uint64_t> g_ulSum{0}; // numbers of the first messages less those of the second ones
std::vector<unsigned short> g_oIds;    // by number of the first message; written by the task's handler

void countOne()
{
    const unsigned int uiDone = g_uiDone.fetch_add(1) + 1;
    if (uiDone % BURST == 0 || uiDone == g_uiCount)
    {
        sem_post(&g_oBurstDone);
    }
}

class CShortTask : public CZolTask
{
public:
    void reqMsgProcess(const CZolMsgPdu *poMsg) override
    {
        check(*poMsg, poMsg->m_ulCmdID);
        g_ulSum.fetch_add(poMsg->m_ulCmdID, std::memory_order_relaxed);
        g_oIds[poMsg->m_ulCmdID] = getTaskID();
        countOne();
    }
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        check(*poMsg, poMsg->m_ulCmdID);
        g_ulSum.fetch_sub(poMsg->m_ulCmdID, std::memory_order_relaxed);
        exitTask();
        countOne();
    }
};

class CMaker : public CZolTaskMgr
{
public:
    CMaker() : CZolTaskMgr(MANAGER, 2) {}
    CZolTask *createTask(CZolMsgPdu * /*poMsg*/) override { return new CShortTask; }
};

/// Messages come in bursts of BURST: what is compared is the number of tasks, not the length of the queue.
void awaitAtBursts(unsigned int uiSent, unsigned int uiCount)
{
    if (uiSent % BURST == 0 || uiSent == uiCount)
    {
        while (sem_wait(&g_oBurstDone) != 0)
        {
        }
    }
}

struct SCost
{
    double m_dCreateNs;
    double m_dAllNs;
    double m_dIdleBytes;
    double m_dCpuNs; // of all threads, for creation, both messages and the end: does not depend on who else is running
};

double processCpuNs()
{
    timespec oUsed{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &oUsed);
    return static_cast<double>(oUsed.tv_sec) * 1e9 + static_cast<double>(oUsed.tv_nsec);
}

SCost measure(unsigned int uiCount)
{
    g_uiDone = 0;
    g_uiCount = uiCount;
    g_oIds.assign(uiCount, 0);
    const double dBefore = memoryBytes("VmRSS:");
    const double dCpuBefore = processCpuNs();
    const std::uint64_t ulBegin = nowNs();
    for (unsigned int uiNumber = 0; uiNumber < uiCount; ++uiNumber)
    {
        send(makeMsg(CZolMsgPdu::MSG_REQUEST, MANAGER, 0, uiNumber));
        awaitAtBursts(uiNumber + 1, uiCount);
    }
    g_uiDone = 0;
    const std::uint64_t ulCreated = nowNs();
    const double dIdle = memoryBytes("VmRSS:");
    const std::uint64_t ulSecond = nowNs();
    for (unsigned int uiNumber = 0; uiNumber < uiCount; ++uiNumber)
    {
        send(makeMsg(CZolMsgPdu::MSG_REQUEST, MANAGER, g_oIds[uiNumber], uiNumber));
        awaitAtBursts(uiNumber + 1, uiCount);
    }
    const std::uint64_t ulEnd = nowNs();
    need(g_ulSum == 0, "the sum of the messages");
    return {static_cast<double>(ulCreated - ulBegin) / uiCount,
            static_cast<double>(ulCreated - ulBegin + ulEnd - ulSecond) / uiCount, (dIdle - dBefore) / uiCount,
            (processCpuNs() - dCpuBefore) / uiCount};
}

/// The median of several turns, of which a small number of tasks needs more.
void measureAndReport(const std::string &strWho, unsigned int uiCount)
{
    std::vector<SCost> oCosts;
    for (unsigned int uiTurn = 0; uiTurn < std::clamp(100000U / uiCount, 3U, 25U); ++uiTurn)
    {
        oCosts.push_back(measure(uiCount));
    }
    const double dIdleBytes = oCosts.front().m_dIdleBytes; // later turns find the memory of the first
    const auto fnMedian = [&oCosts](double SCost::*pdCost)
    {
        std::sort(oCosts.begin(), oCosts.end(),
                  [pdCost](const SCost &oLeft, const SCost &oRight) { return oLeft.*pdCost < oRight.*pdCost; });
        return oCosts[oCosts.size() / 2].*pdCost;
    };
    report(strWho, "create", fnMedian(&SCost::m_dCreateNs), "ns/actor");
    report(strWho, "create+msg+end", fnMedian(&SCost::m_dAllNs), "ns/actor");
    report(strWho, "cpu", fnMedian(&SCost::m_dCpuNs), "ns/actor");
    if (uiCount > 10000)
    {
        report(strWho, "rss idle", dIdleBytes, "B/actor");
    }
}

} // namespace

int main(int argc, char **argv)
{
    const unsigned int uiCount = argument(argc, argv, 1, 59000);
    need(sem_init(&g_oBurstDone, 0, 0) == 0, "a semaphore");
    CProcess oProcess(120);
    CProcess::add(new CMaker);
    oProcess.run(
        [uiCount]
        {
            measureAndReport("L4/zol", uiCount);
            measureAndReport("L4/zol 10k", 10000);
            measureAndReport("L4/zol 1k", 1000);
        });
    return 0;
}
