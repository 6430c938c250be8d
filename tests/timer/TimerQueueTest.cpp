#include "timer/ZolTimerQueue.h"

#include "support/WaitUntil.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace
{

/// Notes what fired, and does what the test wants.
class CHandler : public ACE_Event_Handler
{
public:
    int handle_timeout(const ACE_Time_Value &, const void *pvArg) override
    {
        m_oFired.push_back(reinterpret_cast<long>(pvArg));
        return m_fnThen ? m_fnThen() : 0;
    }
    int handle_close(ACE_HANDLE, ACE_Reactor_Mask) override { return ++m_iClosed; }

    std::vector<long> takeFired()
    {
        std::vector<long> oFired;
        oFired.swap(m_oFired);
        return oFired;
    }

    std::vector<long> m_oFired;
    std::function<int()> m_fnThen;
    int m_iClosed = 0;
};

class TimerQueueTest : public testing::Test
{
protected:
    long add(long lArg, double dExpiry, double dInterval = 0)
    {
        ACE_Time_Value oExpiry;
        ACE_Time_Value oInterval;
        oExpiry.set(dExpiry);
        oInterval.set(dInterval);
        ACE_Event_Handler *poHandler = &m_oHandler;
        return m_oQueue.schedule(poHandler, reinterpret_cast<const void *>(lArg), oExpiry, oInterval);
    }
    std::vector<long> firedAt(double dNow)
    {
        ACE_Time_Value oNow;
        oNow.set(dNow);
        m_oQueue.expire(oNow);
        return m_oHandler.takeFired();
    }
    using Args = std::vector<long>;
    CZolTimerQueue m_oQueue;
    CHandler m_oHandler;
};

} // namespace

TEST_F(TimerQueueTest, StaysOnTheGridAndSkipsWhatHasPassed)
{
    add(1, 100, 10);
    EXPECT_EQ(Args{}, firedAt(99.999999));
    EXPECT_EQ(Args{1}, firedAt(100));
    EXPECT_EQ(Args{}, firedAt(109.9));
    EXPECT_EQ(Args{1}, firedAt(137.3)); // once for 110, 120 and 130
    EXPECT_EQ(Args{}, firedAt(139.999999));
    EXPECT_EQ(Args{1}, firedAt(140)); // an expiry right now is due, not passed
    EXPECT_EQ(Args{1}, firedAt(150));
}

TEST_F(TimerQueueTest, ANewIntervalCountsFromTheArmedExpiryOn)
{
    const long lId = add(1, 100, 28);
    m_oHandler.m_fnThen = [&] { return m_oQueue.reset_interval(lId, ACE_Time_Value(31)); };
    EXPECT_EQ(Args{1}, firedAt(100));
    EXPECT_EQ(Args{}, firedAt(127));
    EXPECT_EQ(Args{1}, firedAt(128)); // armed before the change
    EXPECT_EQ(Args{}, firedAt(158));
    EXPECT_EQ(Args{1}, firedAt(159));
}

TEST_F(TimerQueueTest, HandlersMayCancelThemselvesAndOthers)
{
    const long lSelf = add(1, 100, 10);
    const long lOther = add(2, 101, 10);
    m_oHandler.m_fnThen = [&]
    {
        EXPECT_EQ(lSelf, m_oQueue.firingId());
        EXPECT_EQ(1, m_oQueue.cancel(lSelf, nullptr, 1));
        EXPECT_EQ(1, m_oQueue.cancel(lOther, nullptr, 1));
        return 0;
    };
    EXPECT_EQ(Args{1}, firedAt(105));
    EXPECT_TRUE(m_oQueue.is_empty());
    EXPECT_EQ(0, m_oHandler.m_iClosed);
}

TEST_F(TimerQueueTest, AHandlerThatFailsIsClosedAndCalledNoMore)
{
    add(1, 100, 10);
    m_oHandler.m_fnThen = [] { return -1; };
    EXPECT_EQ(Args{1}, firedAt(100));
    EXPECT_EQ(1, m_oHandler.m_iClosed);
    EXPECT_TRUE(m_oQueue.is_empty());
}

// Someone who cancels a timer that has fired its one time must not hit the one that has taken its place.
TEST_F(TimerQueueTest, AnIdIsNeverGivenOutAgain)
{
    std::set<long> oSeen;
    long lLast = -1;
    for (int i = 0; i < 5000; ++i)
    {
        const long lId = add(i, 100);
        EXPECT_TRUE(oSeen.insert(lId).second);
        EXPECT_EQ(0, m_oQueue.cancel(lLast, nullptr, 1));
        EXPECT_EQ(-1, m_oQueue.reset_interval(lLast, ACE_Time_Value(1)));
        if (i % 2 == 0)
        {
            EXPECT_EQ(1, m_oQueue.cancel(lId, nullptr, 1));
        }
        else
        {
            EXPECT_EQ(Args{i}, firedAt(100));
        }
        lLast = lId;
    }
    for (const long lId : {-1L, 1L << 31, 0x7FFFFFFFFFFFFFFFL})
    {
        EXPECT_EQ(0, m_oQueue.cancel(lId, nullptr, 1)) << lId;
    }
}

// Against a model: everything that is neither cancelled nor still to come has fired, in order of expiry, and timers
// with the same expiry in the order in which they were set.
TEST_F(TimerQueueTest, KeepsOrderThroughRandomWork)
{
    std::mt19937 oRandom(4711);
    std::multimap<long, long> oModel;                                           // expiry -> arg
    std::map<long, std::pair<long, std::multimap<long, long>::iterator>> oLive; // arg -> id, place in the model
    long lNow = 1000;
    for (long lArg = 0; lArg < 40000; ++lArg)
    {
        const long lExpiry = lNow + static_cast<long>(oRandom() % 500);
        const long lId = add(lArg, static_cast<double>(lExpiry));
        oLive[lArg] = {lId, oModel.emplace(lExpiry, lArg)};
        if (oRandom() % 3 == 0)
        {
            auto it = oLive.lower_bound(static_cast<long>(oRandom() % static_cast<unsigned long>(lArg + 1)));
            if (it != oLive.end())
            {
                ASSERT_EQ(1, m_oQueue.cancel(it->second.first, nullptr, 1));
                oModel.erase(it->second.second);
                oLive.erase(it);
            }
        }
        if (oRandom() % 50 == 0)
        {
            lNow += 7;
            Args oExpected;
            while (!oModel.empty() && oModel.begin()->first <= lNow)
            {
                oExpected.push_back(oModel.begin()->second);
                oLive.erase(oModel.begin()->second);
                oModel.erase(oModel.begin());
            }
            ASSERT_EQ(oExpected, firedAt(static_cast<double>(lNow)));
        }
    }
}

// A wake-up that is missing makes a timer late; one too many costs a system call for every timer that is set.
TEST_F(TimerQueueTest, WakesTheWaitingThreadForANewEarliestOnly)
{
    const auto fnSet = [this](long lDelaySec)
    { return m_oQueue.scheduleIn(&m_oHandler, nullptr, ACE_Time_Value(lDelaySec), ACE_Time_Value::zero); };
    fnSet(5000);
    EXPECT_EQ(0U, m_oQueue.wakeUps()) << "nobody waits yet";
    std::atomic<bool> bReturned{false};
    std::thread oReactor(
        [&]
        {
            EXPECT_EQ(1, m_oQueue.waitAndExpire(nullptr));
            bReturned = true;
        });
    ASSERT_TRUE(zoltest::waitUntil([this] { return m_oQueue.isWaiting(); }));
    fnSet(6000);
    EXPECT_EQ(0U, m_oQueue.wakeUps());
    fnSet(4000);
    fnSet(4500); // a wake-up is under way, or has been
    EXPECT_EQ(1U, m_oQueue.wakeUps());
    fnSet(3000);
    EXPECT_EQ(2U, m_oQueue.wakeUps());
    EXPECT_FALSE(bReturned) << "woken to wait anew, not to return";
    fnSet(0);
    oReactor.join();
    EXPECT_EQ(1U, m_oHandler.m_oFired.size());
    EXPECT_FALSE(m_oQueue.isWaiting());
}

TEST_F(TimerQueueTest, WaitsNoLongerThanToldAndCanBeWoken)
{
    const ACE_Time_Value oMoment(0, 5000);
    EXPECT_EQ(0, m_oQueue.waitAndExpire(&oMoment));
    m_oQueue.wake(); // also counts for a wait that comes after it
    EXPECT_EQ(0, m_oQueue.waitAndExpire(nullptr));
    std::thread oReactor([this] { EXPECT_EQ(0, m_oQueue.waitAndExpire(nullptr)); });
    ASSERT_TRUE(zoltest::waitUntil([this] { return m_oQueue.isWaiting(); }));
    m_oQueue.wake();
    oReactor.join();
}

TEST_F(TimerQueueTest, TakesAnyDelay)
{
    for (const long lDelay : {0x7FFFFFFFFFFFFFFFL, 9223372036855L, 0x7FFFFFFFL})
    {
        EXPECT_NE(-1, m_oQueue.scheduleIn(&m_oHandler, nullptr, ACE_Time_Value(lDelay), ACE_Time_Value(lDelay)));
    }
    m_oQueue.expire();
    EXPECT_EQ(Args{}, m_oHandler.takeFired());
}
