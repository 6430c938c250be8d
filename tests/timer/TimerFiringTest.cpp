#include "timer/TimerFixture.h"

#include <malloc.h>
#include <thread>

using namespace zoltest;

namespace
{

long now()
{
    return CZolWallClock::now();
}

class TimerFiringTest : public TimerFixture
{
protected:
    static unsigned int queued(CZolTaskMgr *poMgr) { return poMgr->getLengthOfBufferMsg(); }
};

} // namespace

TEST_F(TimerFiringTest, CycleTimersReachTheTaskUntilCancelled)
{
    runApplication(
        [this]
        {
            const unsigned long ulId = m_poTask->setTimer(1);
            const unsigned long ulDirect = timer()->setCycleInterval(1, MANAGER, 99, TASK);
            EXPECT_TRUE(
                waitUntil([&] { return m_poTask->callbacks(ulId) >= 2 && m_poTask->callbacks(ulDirect) >= 2; }));
            m_poTask->cancelTimer(ulId);
            timer()->cancelTimer(ulDirect);
            const unsigned int uiBefore = m_poTask->callbacks(ulId);
            const unsigned long ulNext = timer()->setCycleInterval(2, MANAGER, 99, TASK);
            EXPECT_TRUE(waitUntil([&] { return m_poTask->callbacks(ulNext) >= 1; }));
            EXPECT_LE(m_poTask->callbacks(ulId), uiBefore + 1); // one may have been in the queue
            EXPECT_EQ(0U, m_poTask->requests(ulId));
        });
}

TEST_F(TimerFiringTest, TenThousandDatesOfTheRunningSecondFireOnceEach)
{
    runApplication(
        [this]
        {
            std::vector<unsigned long> oIds;
            while (oIds.size() < 10000)
            {
                const unsigned long ulId = timer()->setDatePeriod(now(), MANAGER, 4711, TASK);
                if (ulId != 0) // the second may have turned between the two looks at the clock
                {
                    oIds.push_back(ulId);
                }
            }
            EXPECT_TRUE(waitUntil([this] { return m_poTask->m_uiTotal >= 10000; }));
            EXPECT_TRUE(waitUntil([] { return timer()->getTimerCount() == 0; }));
            EXPECT_EQ(10000U, m_poTask->m_uiTotal);
            EXPECT_EQ(4711U, m_poTask->m_ulCmd);
            for (const unsigned long ulId : oIds)
            {
                EXPECT_EQ(1U, m_poTask->requests(ulId)) << ulId;
            }
        });
}

// A cancel that says 0 may come too late for the message, one that says -6 must have been preceded by it.
TEST_F(TimerFiringTest, CancelAgainstFiring)
{
    runApplication(
        [this]
        {
            std::vector<std::thread> oThreads;
            std::mutex oLock;
            std::vector<unsigned long> oFired;
            for (int iThread = 0; iThread < 4; ++iThread)
            {
                oThreads.emplace_back(
                    [&]
                    {
                        for (int i = 0; i < 3000; ++i)
                        {
                            const unsigned long ulId = timer()->setDatePeriod(now(), MANAGER, 1, TASK);
                            if (ulId != 0 && timer()->cancelTimer(ulId) == ZOL_ERR_NO_DEST)
                            {
                                const std::lock_guard<std::mutex> oGuard(oLock);
                                oFired.push_back(ulId);
                            }
                            timer()->setCycleInterval(1, MANAGER, 1, static_cast<unsigned short>(100 + i % 7));
                            timer()->cancelTimer(MANAGER, static_cast<unsigned short>(100 + (i + 3) % 7));
                        }
                    });
            }
            for (std::thread &oThread : oThreads)
            {
                oThread.join();
            }
            for (unsigned short us = 100; us < 107; ++us)
            {
                timer()->cancelTimer(MANAGER, us);
            }
            EXPECT_EQ("zOL Timer List:\n", dump());
            EXPECT_TRUE(waitUntil([&] { return queued(m_poMgr) == 0; }));
            for (const unsigned long ulId : oFired)
            {
                EXPECT_TRUE(waitUntil([&] { return m_poTask->requests(ulId) == 1; })) << ulId;
            }
        });
}

namespace
{

/// Made for a message, it arms timers and ends.
class CShortLived : public CZolTask
{
    void reqMsgProcess(const CZolMsgPdu *) override
    {
        for (unsigned int ui = 1; ui <= 5; ++ui)
        {
            setTimer(ui);
            CZolTimer::instance()->setDatePeriod(now() + 1, getTaskMgr()->getTaskMgrID(), 1, getTaskID());
        }
        exitTask();
    }
};

class CShortLivedMgr : public CZolTaskMgr
{
public:
    CShortLivedMgr() : CZolTaskMgr(9, 2) {}
    CZolTask *createTask(CZolMsgPdu *) override { return new CShortLived; }
};

} // namespace

TEST_F(TimerFiringTest, ATaskThatEndsTakesItsTimersAlong)
{
    auto *const poMgr = new CShortLivedMgr;
    ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->addTaskMgr(poMgr));
    runApplication(
        [&]
        {
            for (int i = 0; i < 500; ++i)
            {
                CZolMsgPdu *poMsg = new (28) CZolMsgPdu;
                poMsg->init();
                poMsg->m_ucMsgType = CZolMsgPdu::MSG_REQUEST;
                poMsg->m_ucDestModule = 9;
                EXPECT_EQ(ZOL_OK, CZolAppMgr::instance()->sendLocalAsynMsg(poMsg, 9));
            }
            EXPECT_TRUE(waitUntil([&] { return queued(poMgr) == 0 && timer()->getTimerCount() == 0; }));
            const unsigned long ulId =
                timer()->setDatePeriod(now() + 1, MANAGER, 1, TASK); // all others are over by then
            EXPECT_TRUE(waitUntil([&] { return m_poTask->requests(ulId) == 1; }));
            EXPECT_TRUE(waitUntil([] { return timer()->getTimerCount() == 0; })); // its record goes after its message
        });
}

namespace
{

std::mutex g_oGate; // a handler of CStuck waits for it

class CStuck : public CTimerTask
{
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        const std::lock_guard<std::mutex> oGuard(g_oGate);
        CTimerTask::respMsgProcess(poMsg);
    }
};

} // namespace

TEST_F(TimerFiringTest, AHandlerThatIsStuckHoldsNoOtherTimerUp)
{
    auto *const poStuck = new CStuck;
    CZolTaskMgr *const poOther = CZolAppMgr::instance()->findTaskMgr(OTHER_MANAGER);
    ASSERT_EQ(ZOL_OK, poOther->addStaticTask(poStuck, TASK));
    runApplication(
        [&]
        {
            std::unique_lock<std::mutex> oHeld(g_oGate);
            g_ulQueueSize = 100; // bytes: what is due for the stuck manager goes past its limit all the same
            unsigned int uiSet = 0;
            for (int i = 0; i < 1000; ++i)
            {
                uiSet += timer()->setDatePeriod(now(), OTHER_MANAGER, 1, TASK) != 0 ? 1 : 0;
            }
            const unsigned long ulId = timer()->setCycleInterval(1, MANAGER, 1, TASK);
            EXPECT_TRUE(waitUntil([&] { return m_poTask->callbacks(ulId) >= 2; }));
            EXPECT_EQ(0U, poStuck->m_uiTotal);
            oHeld.unlock();
            EXPECT_TRUE(waitUntil([&] { return poStuck->m_uiTotal == uiSet; }));
        });
}

namespace
{
std::atomic<long> g_lHeldUntil{0};
}

// The last firing falls right on the end. The one before it must not take its own lateness for a clock that is ahead.
TEST_F(TimerFiringTest, ALateDayTimerKeepsItsLastFiring)
{
    unsigned long ulId = 0;
    long lDue = 0;
    while (ulId == 0) // if this thread is held up, the instant is past and there is none before the end
    {
        lDue = now() + 2;
        const auto uiTimeSecs = (CZolDateUtil::getTimeInSeconds() + 2) % CZolDateUtil::ONE_DAY;
        ulId = timer()->setDayPeriod(0, lDue + CZolDateUtil::ONE_DAY, uiTimeSecs, MANAGER, 1, TASK);
    }
    runApplication(
        [&]
        {
            g_lHeldUntil = lDue + 2;
            timer()->registerPreciseClock(1,
                                          [](unsigned long ulClock)
                                          {
                                              waitUntil([] { return now() >= g_lHeldUntil; });
                                              timer()->cancelPreciseClock(ulClock);
                                          });
            EXPECT_TRUE(waitUntil([&] { return m_poTask->requests(ulId) == 1; }));
            const unsigned long ulAfter = timer()->setDatePeriod(now() + 1, MANAGER, 1, TASK);
            EXPECT_TRUE(waitUntil([&] { return m_poTask->requests(ulAfter) == 1; })); // the firing has come to its end
            EXPECT_EQ(ZOL_OK, timer()->cancelTimer(ulId));
        });
}

#ifndef ZOL_SANITIZED // whose allocators count differently
TEST_F(TimerFiringTest, ALiveTimerTakesAtMost250Bytes)
{
    const unsigned int uiTimers = 100000;
    const size_t uiBefore = mallinfo2().uordblks + mallinfo2().hblkhd;
    for (unsigned int ui = 0; ui < uiTimers; ++ui)
    {
        ASSERT_NE(0U, timer()->setCycleInterval(100000, MANAGER, 1, static_cast<unsigned short>(33 + ui % 1000)));
    }
    const size_t uiAfter = mallinfo2().uordblks + mallinfo2().hblkhd;
    EXPECT_LE((uiAfter - uiBefore) / uiTimers, 250U);
}
#endif
