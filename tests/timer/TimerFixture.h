#ifndef ZOL_TESTS_TIMER_TIMER_FIXTURE_H
#define ZOL_TESTS_TIMER_TIMER_FIXTURE_H

#include "ZolTimer.h"
#include "support/Application.h"
#include "support/Installation.h"
#include "timer/ZolWallClock.h"
#include "zol.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <vector>

namespace zoltest
{

const unsigned char MANAGER = 3;
const unsigned char OTHER_MANAGER = 4;
const unsigned short TASK = 1;

/// Counts what reaches it, by timer id.
class CTimerTask : public CZolTask
{
public:
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        ACE_UINT32 ulTimerId = 0;
        ASSERT_EQ(sizeof ulTimerId, poMsg->m_ulDataLength);
        std::memcpy(&ulTimerId, zolPayload(poMsg), sizeof ulTimerId);
        const std::lock_guard<std::mutex> oGuard(m_oLock);
        ++m_oRequests[ulTimerId];
        m_ulCmd = poMsg->m_ulCmdID;
        ++m_uiTotal;
    }
    void timerCallBack(unsigned long ulTimerID) override
    {
        const std::lock_guard<std::mutex> oGuard(m_oLock);
        ++m_oCallbacks[ulTimerID];
        ++m_uiTotal;
    }
    unsigned int requests(unsigned long ulTimerId)
    {
        const std::lock_guard<std::mutex> oGuard(m_oLock);
        return m_oRequests[ulTimerId];
    }
    unsigned int callbacks(unsigned long ulTimerId)
    {
        const std::lock_guard<std::mutex> oGuard(m_oLock);
        return m_oCallbacks[ulTimerId];
    }

    std::atomic<unsigned int> m_uiTotal{0};
    std::atomic<unsigned int> m_ulCmd{0};

private:
    std::mutex m_oLock;
    std::map<unsigned long, unsigned int> m_oRequests, m_oCallbacks;
};

inline std::atomic<long> g_lWallTime{0};

/// A process at its initial stage with two managers, and a task in the first; run() takes it on from there.
class TimerFixture : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->initAppMgr(1, 0, true, "timer", nullptr));
        CZolRunLog::logLevel(CZolRunLog::LEVEL_WARNING);
        m_poMgr = new CZolTaskMgr(MANAGER, 1);
        ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->addTaskMgr(m_poMgr));
        ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->addTaskMgr(new CZolTaskMgr(OTHER_MANAGER, 1)));
        m_poTask = new CTimerTask;
        ASSERT_EQ(ZOL_OK, m_poMgr->addStaticTask(m_poTask, TASK));
    }

    /// The service from now on sees lNow and whatever is stored in g_lWallTime after it. What the reactor has armed
    /// goes by its own clock.
    static void stopWallClock(long lNow)
    {
        g_lWallTime = lNow;
        CZolWallClock::replace([] { return g_lWallTime.load(); });
    }

    static std::string dump()
    {
        std::string strText = "text that goes";
        timer()->printf(strText);
        return strText;
    }

    static CZolTimer *timer() { return CZolTimer::instance(); }

    CInstallation m_oInstallation;
    CZolTaskMgr *m_poMgr = nullptr;
    CTimerTask *m_poTask = nullptr;
};

} // namespace zoltest

#endif
