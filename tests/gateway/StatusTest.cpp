#include "gateway/GatewayFixture.h"
#include "gateway/watch/http/ZolSnapshot.h"

#include <algorithm>
#include <sys/socket.h>

using namespace zoltest;
using namespace std::chrono_literals;

namespace
{

const TZolVekKey A = zolVekKey(7, 1);
const TZolVekKey B = zolVekKey(8, 1);
const TZolVekKey C = zolVekKey(9, 1);

class GatewayStatusTest : public GatewayTest
{
protected:
    void observe()
    {
        gateway().run([this](CZolVekGateway &oGateway) { oGateway.observe(m_oExchange); });
    }

    const SZolGatewaySnapshot &look(bool bWatched = true)
    {
        const SZolGatewaySnapshot *const poSnapshot = m_oExchange.get(0ms, 20s, bWatched);
        if (poSnapshot == nullptr)
        {
            throw std::runtime_error("the routing thread does not answer");
        }
        return *poSnapshot;
    }

    static const SZolPipeView &pipeOf(const SZolGatewaySnapshot &oSnapshot, TZolVekKey uiKey)
    {
        const auto oFound = std::find_if(oSnapshot.m_oPipes.begin(), oSnapshot.m_oPipes.end(),
                                         [=](const SZolPipeView &oPipe)
                                         { return zolVekKey(oPipe.m_usProcID, oPipe.m_usProcHandle) == uiKey; });
        if (oFound == oSnapshot.m_oPipes.end())
        {
            throw std::runtime_error("no such pipe in the snapshot");
        }
        return *oFound;
    }

    static std::uint64_t countOf(const std::vector<SZolNamedCount> &oCounts, const std::string &strName)
    {
        const auto oFound = std::find_if(oCounts.begin(), oCounts.end(),
                                         [&](const SZolNamedCount &oCount) { return strName == oCount.m_pcName; });
        return oFound == oCounts.end() ? 999999 : oFound->m_ulCount;
    }

    /// Frames from one pipe to another one as the snapshot tells them.
    static std::uint64_t flowOf(const SZolGatewaySnapshot &oSnapshot, TZolVekKey uiFrom, TZolVekKey uiTo)
    {
        std::uint64_t ulFrames = 0;
        for (const SZolEdgeView &oEdge : oSnapshot.m_oEdges)
        {
            const SZolPipeView &oFrom = oSnapshot.m_oPipes.at(oEdge.m_uiFrom);
            const SZolPipeView &oTo = oSnapshot.m_oPipes.at(oEdge.m_uiTo);
            if (zolVekKey(oFrom.m_usProcID, oFrom.m_usProcHandle) == uiFrom &&
                zolVekKey(oTo.m_usProcID, oTo.m_usProcHandle) == uiTo)
            {
                ulFrames += oEdge.m_ulFrames;
            }
        }
        return ulFrames;
    }

    void TearDown() override { endGateway(); }

    CZolSnapshotExchange m_oExchange;
};

TEST_F(GatewayStatusTest, CountsWhatPassed)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    EXPECT_EQ(-8, connection().registerAs(0, 5));
    subscribe(oB, 500, 5, 3);
    observe();
    EXPECT_TRUE(look().m_oEdges.empty()) << "nobody had looked before";
    const std::int64_t lSinceMs = pipeOf(look(), A).m_lSinceMs;
    gateway().pass(500ms);
    EXPECT_EQ(lSinceMs, pipeOf(look(), A).m_lSinceMs) << "the page would take it for another one";
    for (int iNumber = 0; iNumber < 5; ++iNumber)
    {
        ASSERT_TRUE(oA.send(frame(1, A, B, "12345").wire()));
        EXPECT_EQ("12345", next(oB).m_strBody);
    }
    ASSERT_TRUE(oA.send(frame(13, A, 0, "published", 500).wire() + frame(1, A, C, "to nobody").wire()));
    EXPECT_EQ("published", next(oB).m_strBody);
    expectSilence(oA); // so that the frame to nobody has been dropped

    const SZolGatewaySnapshot &oSnapshot = look();
    EXPECT_EQ(2u, oSnapshot.m_oPipes.size());
    EXPECT_EQ(8u, pipeOf(oSnapshot, A).m_ulFramesIn);
    EXPECT_EQ(1u, pipeOf(oSnapshot, B).m_ulFramesIn);
    EXPECT_EQ(7u, pipeOf(oSnapshot, B).m_ulFramesOut) << "five, a publication, an answer";
    EXPECT_EQ(0x7F000001u, pipeOf(oSnapshot, A).m_ulAddress);
    EXPECT_FALSE(pipeOf(oSnapshot, B).m_bSlow);
    EXPECT_EQ(6u, flowOf(oSnapshot, A, B));
    EXPECT_EQ(0u, flowOf(oSnapshot, B, A));
    EXPECT_EQ(1u, countOf(oSnapshot.m_oDrops, "no_route"));
    EXPECT_EQ(2u, countOf(oSnapshot.m_oRegistrations, "0"));
    EXPECT_EQ(1u, countOf(oSnapshot.m_oRegistrations, "-8"));
    EXPECT_EQ(3u, oSnapshot.m_ulConnections);
    ASSERT_EQ(1u, oSnapshot.m_oSubscriptions.size());
    EXPECT_EQ(500u, oSnapshot.m_oSubscriptions[0].m_ulCmdID);
    EXPECT_EQ(5u, oSnapshot.m_oSubscriptions[0].m_ucModule);
    std::uint64_t ulTurns = 0;
    for (const std::uint64_t ulCount : oSnapshot.m_oLatency.m_aulCounts)
    {
        ulTurns += ulCount;
    }
    EXPECT_GT(ulTurns, 0u);
    EXPECT_TRUE(std::any_of(oSnapshot.m_oEvents.begin(), oSnapshot.m_oEvents.end(),
                            [](const SZolEventView &oEvent)
                            { return oEvent.m_strText.find("process 7 handle 1") != std::string::npos; }));
}

TEST_F(GatewayStatusTest, MarksWhoIsSlowAndWhoIsHeldBack)
{
    m_oSettings.m_ulPipeQueueBytes = 1 << 20;
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    CRawPipe oC = pipe(9, 1);
    observe();
    const std::string strFrame = frame(1, A, B, std::string(60000, 'x')).wire();
    std::thread oSender(
        [&]
        {
            while (oA.send(strFrame)) // until nobody takes any more, and the test shuts it down
            {
            }
        });
    const SZolGatewaySnapshot *poSnapshot = nullptr;
    EXPECT_TRUE(waitUntil(
        [&]
        {
            poSnapshot = &look();
            return pipeOf(*poSnapshot, B).m_bSlow && pipeOf(*poSnapshot, A).m_bHeld;
        }));
    const SZolGatewaySnapshot &oSnapshot = *poSnapshot;
    shutdown(oA.socket(), SHUT_RDWR);
    oSender.join();
    EXPECT_GE(pipeOf(oSnapshot, B).m_ulQueueBytes, 1u << 20);
    EXPECT_GE(oSnapshot.m_ulQueueBytes, 1u << 20);
    EXPECT_FALSE(pipeOf(oSnapshot, A).m_bSlow);
    EXPECT_FALSE(pipeOf(oSnapshot, C).m_bSlow);
    EXPECT_FALSE(pipeOf(oSnapshot, C).m_bHeld);
}

TEST_F(GatewayStatusTest, CountsDropsForWhomTheyWereMeant)
{
    m_oSettings.m_ulPipeQueueBytes = 1 << 16;
    m_oSettings.m_eSlowConsumer = VEK_SLOW_DROP;
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    observe();
    const std::string strFrame = frame(1, A, B, std::string(60000, 'x')).wire();
    ASSERT_TRUE(waitUntil(
        [&]
        {
            EXPECT_TRUE(oA.send(strFrame));
            return pipeOf(look(), B).m_ulFramesDropped >= 3;
        }));
    const SZolGatewaySnapshot &oSnapshot = look();
    EXPECT_EQ(pipeOf(oSnapshot, B).m_ulFramesDropped, countOf(oSnapshot.m_oDrops, "slow_consumer"));
    EXPECT_EQ(0u, pipeOf(oSnapshot, A).m_ulFramesDropped);
}

// A frame counts as sent once it has left. Those that never do are dropped, and nothing else.
TEST_F(GatewayStatusTest, CountsEachFrameAsSentOrDropped)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    observe();
    const std::uint64_t ulFrames = 1200; // far more than sockets take
    const std::uint64_t ulRead = 200;
    for (std::uint64_t i = 0; i < ulFrames; ++i)
    {
        ASSERT_TRUE(oA.send(frame(1, A, B, std::string(i % 2 == 0 ? 60000 : 20, 'x')).wire()));
    }
    ASSERT_TRUE(waitUntil([&] { return look().m_ulFramesIn == ulFrames; }));
    EXPECT_EQ(pipeOf(look(), B).m_ulFramesOut, look().m_ulFramesOut);
    EXPECT_GT(look().m_ulFramesOut, 0u);
    EXPECT_LT(look().m_ulFramesOut, ulFrames);
    for (std::uint64_t i = 0; i < ulRead; ++i) // so that the backlog moves, chunk by chunk
    {
        (void)next(oB);
    }
    oB.close();
    ASSERT_TRUE(waitUntil([&] { return look().m_oPipes.size() == 1; }));
    const SZolGatewaySnapshot &oSnapshot = look();
    EXPECT_GE(oSnapshot.m_ulFramesOut, ulRead);
    EXPECT_GT(countOf(oSnapshot.m_oDrops, "pipe_closed"), 0u);
    EXPECT_EQ(ulFrames, oSnapshot.m_ulFramesOut + countOf(oSnapshot.m_oDrops, "pipe_closed"));
}

// A stopped process takes what its kernel has room for. What tells it from one that has nothing to say is a hello.
TEST_F(GatewayStatusTest, MarksWhoDoesNotAnswer)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    CRawPipe oC = pipe(9, 1);
    observe();
    (void)look();
    gateway().pass(50ms);
    ASSERT_TRUE(oA.send(frame(1, A, B, "b").wire() + frame(1, A, C, "c").wire()));
    EXPECT_EQ("c", next(oC).m_strBody);
    EXPECT_FALSE(pipeOf(look(), B).m_bSilent);
    gateway().pass(4s);
    SFrame oHello;
    ASSERT_TRUE(oC.readFrame(oHello));
    EXPECT_EQ(4, oHello.m_ucType);
    ASSERT_TRUE(oC.send(oHello.wire()));
    expectSilence(oA);
    gateway().pass(4s);
    ASSERT_TRUE(waitUntil([&] { return pipeOf(look(), B).m_bSilent; }));
    EXPECT_FALSE(pipeOf(look(), C).m_bSilent) << "it answers";
    EXPECT_FALSE(pipeOf(look(), A).m_bSilent) << "nobody sends to it";
    ASSERT_TRUE(oB.send(oHello.wire()));
    EXPECT_TRUE(waitUntil([&] { return !pipeOf(look(), B).m_bSilent; }));
}

// What a scrape asks for is little, and whoever has gone is no longer pointed to.
TEST_F(GatewayStatusTest, KeepsFlowsOnlyWhileSomebodyWatches)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    CRawPipe oC = pipe(9, 1);
    observe();
    const auto exchangeFrames = [&]
    {
        ASSERT_TRUE(oA.send(frame(1, A, B, "b").wire() + frame(1, A, C, "c").wire()));
        EXPECT_EQ("b", next(oB).m_strBody);
        EXPECT_EQ("c", next(oC).m_strBody);
    };
    (void)look(false);
    exchangeFrames();
    EXPECT_TRUE(look(false).m_oEdges.empty());
    (void)look(true);
    exchangeFrames();
    EXPECT_EQ(1u, flowOf(look(), A, B));
    oB.close();
    ASSERT_TRUE(waitUntil([&] { return look().m_oPipes.size() == 2; }));
    EXPECT_EQ(1u, look().m_oEdges.size()) << "only the one to the pipe that is still there";
    EXPECT_EQ(1u, flowOf(look(), A, C));
    oB = pipe(8, 1);
    EXPECT_EQ(0u, flowOf(look(), A, B)) << "the flow of the pipe before it";

    gateway().pass(60s); // nobody looks for a while
    (void)look(false);
    ASSERT_TRUE(waitUntil([&] { return look(false).m_oEvents.empty(); }));
    exchangeFrames();
    EXPECT_EQ(0u, flowOf(look(), A, C)) << "what was counted is forgotten, and nothing counted while nobody watched";
}

// However many pairs there are, the list of them has an end, and what it leaves out is counted.
TEST_F(GatewayStatusTest, BoundsTheEdges)
{
    std::vector<CRawPipe> oPipes;
    const unsigned int uiPipes = 150;
    for (unsigned short i = 1; i <= uiPipes; ++i)
    {
        oPipes.push_back(pipe(7, i));
    }
    observe();
    look();
    for (unsigned short i = 1; i <= uiPipes; ++i)
    {
        ASSERT_TRUE(oPipes[i - 1u].send(frame(1, zolVekKey(7, i), 0xFFFFFFFF, "").wire()));
    }
    const std::uint64_t ulMore = std::uint64_t{uiPipes} * (uiPipes - 1) - SZolVekFlowBudget::MOST_FLOWS;
    EXPECT_TRUE(waitUntil([&] { return look().m_ulEdgeFramesLeftOut == ulMore; }));
    EXPECT_EQ(SZolVekFlowBudget::MOST_FLOWS, look().m_oEdges.size());
}

} // namespace
