#include "gateway/GatewayFixture.h"
#include "gateway/watch/ZolVekLog.h"

using namespace zoltest;
using namespace std::chrono_literals;

namespace
{

const TZolVekKey A = zolVekKey(7, 1);
const TZolVekKey B = zolVekKey(8, 1);
const std::uint32_t NEWS = 4000;

class PublicationTest : public GatewayTest
{
protected:
    /// The last line of the log.
    SZolVekEvent lastLine()
    {
        SZolVekEvent oLast;
        gateway().run([&](CZolVekGateway &)
                      { CZolVekEvents::forEach([&](const SZolVekEvent &oEvent) { oLast = oEvent; }); });
        return oLast;
    }

    /// Publishes in the two forms that there are: as a multicast, and as a request to nobody.
    static SFrame publication(std::uint8_t ucType, const std::string &strBody, std::uint32_t ulCmd = NEWS)
    {
        return frame(ucType, A, 0, strBody, ulCmd);
    }

    /// Block usSegment of a big message.
    static SFrame block(std::uint8_t ucType, TZolVekKey uiFrom, TZolVekKey uiTo, std::uint16_t usSegment,
                        const std::string &strBody)
    {
        SFrame oFrame = frame(ucType, uiFrom, uiTo, strBody, NEWS);
        oFrame.m_usSegment = usSegment;
        return oFrame;
    }

    static void expectDelivered(CRawPipe &oPipe, std::uint8_t ucType, unsigned int uiModule, unsigned int uiTask,
                                const std::string &strBody, std::uint16_t usSegment = 0)
    {
        const SFrame oGot = next(oPipe);
        EXPECT_EQ(ucType, oGot.m_ucType);
        EXPECT_EQ(8, oGot.m_usDestProc);
        EXPECT_EQ(7, oGot.m_usSrcProc);
        EXPECT_EQ(uiModule, oGot.m_ucDestModule);
        EXPECT_EQ(uiTask, oGot.m_usDestTask);
        EXPECT_EQ(usSegment, oGot.m_usSegment);
        EXPECT_EQ(strBody, oGot.m_strBody);
    }
};

TEST_F(PublicationTest, ReachesEverySubscriberOfItsCommandOnce)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    CRawPipe oC = pipe(8, 2);
    CRawPipe oD = pipe(8, 3);
    subscribe(oB, NEWS, 1, 40);
    subscribe(oB, NEWS, 1, 40); // a second time
    subscribe(oB, NEWS, 2, 50);
    subscribe(oC, NEWS, 3, 60);
    subscribe(oD, NEWS + 1, 3, 60);
    for (const std::uint8_t ucType : std::initializer_list<std::uint8_t>{13, 1})
    {
        for (const std::size_t ulSize : std::initializer_list<std::size_t>{0, 10, 200000})
        {
            const std::string strBody(ulSize, 'n');
            ASSERT_TRUE(oA.send(publication(ucType, strBody).wire()));
            expectDelivered(oB, 1, 1, 40, strBody);
            expectDelivered(oB, 1, 2, 50, strBody);
            expectDelivered(oC, 1, 3, 60, strBody);
        }
    }
    subscribe(oB, NEWS, 1, 40, 12); // no longer
    ASSERT_TRUE(oA.send(publication(13, "after").wire()));
    expectDelivered(oB, 1, 2, 50, "after");
    expectDelivered(oC, 1, 3, 60, "after");
    subscribe(oC, NEWS, 3, 60, 12);
    ASSERT_TRUE(oA.send(publication(13, "last").wire()));
    expectDelivered(oB, 1, 2, 50, "last");
    expectSilence(oB);
    expectSilence(oC);
    expectSilence(oD);
    expectSilence(oA);
}

TEST_F(PublicationTest, RefusesSubscriptionsThatNameNoTask)
{
    CRawPipe oA = pipe(7, 1);
    const std::string strBuiltIn = word32(254) + word32(1); // what it does, no process has done to another one
    for (const std::string &strBody :
         {word32(256) + word32(1) + word32(NEWS), word32(1) + word32(65536) + word32(NEWS), word32(1) + word32(1),
          std::string(), strBuiltIn + word32(0x10001), strBuiltIn + word32(0x10003), strBuiltIn + word32(0x10004)})
    {
        ASSERT_TRUE(oA.send(frame(11, A, 0, strBody, NEWS).wire()));
        EXPECT_NE(0, next(oA).status());
    }
    ASSERT_TRUE(oA.send(publication(13, "x").wire()));
    expectSilence(oA);
    subscribe(oA, 0x10001, 5, 1);
    oA.close();
    ASSERT_TRUE(waitUntil([&] { return gateway().pipes() == 0; }));
    oA = pipe(7, 1);
    ASSERT_TRUE(oA.send(publication(13, "x", 0x10001).wire()));
    expectSilence(oA); // the subscription has gone with its pipe
}

// The blocks of a big publication reach those who had subscribed at its first block, all of them or none. Two tasks of
// one process get it one after the other, since blocks are joined by their source alone.
TEST_F(PublicationTest, KeepsTheBlocksOfABigOneTogether)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    CRawPipe oLate = pipe(8, 2);
    subscribe(oB, NEWS, 1, 40);
    subscribe(oB, NEWS, 2, 50);
    for (const std::uint8_t ucType : std::initializer_list<std::uint8_t>{14, 6})
    {
        ASSERT_TRUE(oA.send(block(ucType, A, 0, 1, "one").wire()));
        expectDelivered(oB, 6, 1, 40, "one", 1);
        subscribe(oLate, NEWS, 1, 1);
        ASSERT_TRUE(oA.send(block(ucType, A, 0, 2, "two").wire() + block(ucType, A, 0, 0, "end").wire()));
        expectDelivered(oB, 6, 1, 40, "two", 2);
        expectDelivered(oB, 6, 1, 40, "end", 0);
        expectDelivered(oB, 6, 2, 50, "one", 1);
        expectDelivered(oB, 6, 2, 50, "two", 2);
        expectDelivered(oB, 6, 2, 50, "end", 0);
        expectSilence(oLate);
        subscribe(oLate, NEWS, 1, 1, 12);
    }
}

// Blocks are joined by their source fields alone: while a big message of one pipe is under way to a process, blocks of
// another pipe under the same source wait until block 0 has gone. Whole frames never do.
TEST_F(PublicationTest, HoldsTheSecondOfTwoBigMessagesUnderOneSource)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oForwarder = pipe(9, 1);
    CRawPipe oB = pipe(8, 1);
    CRawPipe oC = pipe(8, 2);
    const std::uint64_t ulLines = lastLine().m_ulNumber;
    ASSERT_TRUE(oA.send(block(6, A, B, 1, "a1").wire()));
    EXPECT_EQ("a1", next(oB).m_strBody);
    ASSERT_TRUE(oForwarder.send(block(6, zolVekKey(9, 1), B, 1, "other source").wire()));
    EXPECT_EQ("other source", next(oB).m_strBody) << "blocks of different sources may alternate";
    ASSERT_TRUE(oForwarder.send(frame(1, A, zolVekKey(8, 2), "elsewhere").wire() + frame(1, A, B, "passes").wire() +
                                block(6, A, B, 1, "f1").wire() + block(6, A, B, 0, "f0").wire() +
                                frame(1, A, B, "behind").wire()));
    EXPECT_EQ("elsewhere", next(oC).m_strBody);
    EXPECT_EQ("passes", next(oB).m_strBody);
    expectSilence(oB);
    ASSERT_TRUE(oA.send(block(6, A, B, 2, "a2").wire() + frame(1, A, B, "whole").wire()));
    EXPECT_EQ("a2", next(oB).m_strBody);
    EXPECT_EQ("whole", next(oB).m_strBody) << "its own pipe keeps its order";
    expectSilence(oB);
    ASSERT_TRUE(oA.send(block(6, A, B, 0, "a0").wire()));
    for (const char *pcBody : {"a0", "f1", "f0", "behind"})
    {
        EXPECT_EQ(pcBody, next(oB).m_strBody);
    }
    EXPECT_EQ(0u, gateway().statistics().m_ulRunAborts);
    EXPECT_EQ(ulLines, lastLine().m_ulNumber) << "nobody was slow: " << lastLine().m_strText;
}

// One block under the source of another process, forged or forwarded, holds that process up in nothing: its own block
// ends what the other pipe began, wherever it goes.
TEST_F(PublicationTest, LetsNobodyHoldUpTheProcessWhoseSourceTheyUse)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oForger = pipe(9, 1);
    CRawPipe oB = pipe(8, 1);
    subscribe(oB, NEWS, 1, 40);
    unsigned int uiRounds = 0;
    for (const std::uint8_t ucType : std::initializer_list<std::uint8_t>{6, 7, 14})
    {
        const TZolVekKey uiTo = ucType == 14 ? 0 : B;
        for (const std::uint16_t usFirst : std::initializer_list<std::uint16_t>{1, 2})
        {
            SCOPED_TRACE(testing::Message() << "type " << int{ucType} << ", first block " << usFirst);
            ASSERT_TRUE(oForger.send(block(6, A, B, 1, "f1").wire()));
            EXPECT_EQ("f1", next(oB).m_strBody);
            ASSERT_TRUE(oA.send(frame(1, A, B, "whole").wire() + block(ucType, A, uiTo, usFirst, "a").wire()));
            EXPECT_EQ("whole", next(oB).m_strBody);
            const SFrame oAbort = next(oB);
            EXPECT_EQ(28u, oAbort.wire().size());
            EXPECT_GT(oAbort.m_usSegment, 2);
            EXPECT_EQ("a", next(oB).m_strBody);
            EXPECT_EQ(++uiRounds, gateway().statistics().m_ulRunAborts);
            if (usFirst == 1)
            {
                ASSERT_TRUE(oForger.send(block(6, A, B, 2, "f2").wire()));
                expectSilence(oB);
            }
            ASSERT_TRUE(oA.send(block(ucType, A, uiTo, 0, "a0").wire()));
            EXPECT_EQ("a0", next(oB).m_strBody);
            if (usFirst == 1)
            {
                EXPECT_EQ("f2", next(oB).m_strBody) << "its time has come; the receiver drops it";
            }
        }
    }
}

// A block whose number does not follow makes the receiver drop its part: nobody waits for the rest.
TEST_F(PublicationTest, HoldsNobodyForABigMessageThatBroke)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oForwarder = pipe(9, 1);
    CRawPipe oB = pipe(8, 1);
    for (const std::uint16_t usBroken : std::initializer_list<std::uint16_t>{1, 3, 65535})
    {
        SCOPED_TRACE(usBroken);
        ASSERT_TRUE(oA.send(block(6, A, B, 1, "a1").wire() + block(6, A, B, usBroken, "broken").wire()));
        EXPECT_EQ("a1", next(oB).m_strBody);
        EXPECT_EQ("broken", next(oB).m_strBody);
        ASSERT_TRUE(oForwarder.send(block(6, A, B, 1, "f1").wire() + block(6, A, B, 0, "f0").wire()));
        EXPECT_EQ("f1", next(oB).m_strBody);
        EXPECT_EQ("f0", next(oB).m_strBody);
    }
}

// A source that goes in the middle leaves a part at the receiver. An empty block whose number does not follow frees it,
// and whoever waited goes on.
TEST_F(PublicationTest, EndsABigMessageWhoseSourceHasGone)
{
    CRawPipe oB = pipe(8, 1);
    CRawPipe oForwarder = pipe(9, 1);
    CRawPipe oA = pipe(7, 1);
    for (const std::uint16_t usLast : std::initializer_list<std::uint16_t>{1, 2, 65534, 65535})
    {
        SCOPED_TRACE(usLast);
        oA.close();
        oA = pipe(7, 1);
        std::string strBlocks;
        for (unsigned int i = 1; i <= usLast; ++i)
        {
            strBlocks += block(7, A, B, static_cast<std::uint16_t>(i), "").wire();
        }
        ASSERT_TRUE(oA.send(strBlocks));
        EXPECT_TRUE(strBlocks == oB.read(strBlocks.size()));
        ASSERT_TRUE(oForwarder.send(block(7, A, B, 1, "held").wire() + block(7, A, B, 0, "end").wire()));
        oA.close();
        const SFrame oAbort = next(oB);
        EXPECT_EQ(7, oAbort.m_ucType);
        EXPECT_EQ(28u, oAbort.wire().size());
        EXPECT_EQ(7, oAbort.m_usSrcProc);
        EXPECT_EQ(1, oAbort.m_usSrcHandle);
        EXPECT_NE(static_cast<std::uint16_t>(usLast + 1), oAbort.m_usSegment) << "would be taken for the next block";
        EXPECT_GT(oAbort.m_usSegment, 1) << "would end a message, or begin one";
        EXPECT_EQ("held", next(oB).m_strBody);
        EXPECT_EQ("end", next(oB).m_strBody);
    }
}

// Two that forward under the same two sources may each wait for what the other one has begun.
TEST_F(PublicationTest, EndsBigMessagesThatWaitForEachOther)
{
    const TZolVekKey uiC = zolVekKey(8, 2);
    const TZolVekKey uiOther = zolVekKey(7, 2);
    CRawPipe oOne = pipe(9, 1);
    CRawPipe oTwo = pipe(9, 2);
    CRawPipe oB = pipe(8, 1);
    CRawPipe oC = pipe(8, 2);
    ASSERT_TRUE(oOne.send(block(6, A, B, 1, "one").wire()));
    ASSERT_TRUE(oTwo.send(block(6, uiOther, uiC, 1, "two").wire()));
    EXPECT_EQ("one", next(oB).m_strBody);
    EXPECT_EQ("two", next(oC).m_strBody);
    ASSERT_TRUE(oOne.send(block(6, uiOther, uiC, 1, "one").wire()));
    ASSERT_TRUE(oTwo.send(block(6, A, B, 1, "two").wire()));
    ASSERT_TRUE(waitUntil([&] { return gateway().statistics().m_ulStalls == 2; }));
    gateway().pass(std::chrono::seconds(m_oSettings.m_uiStuckSeconds + 1));
    EXPECT_EQ("", next(oB).m_strBody);
    EXPECT_EQ("two", next(oB).m_strBody);
    EXPECT_EQ("", next(oC).m_strBody);
    EXPECT_EQ("one", next(oC).m_strBody);
    EXPECT_EQ(2u, gateway().statistics().m_ulRunAborts);
}

// Sources that are made up could leave behind as many begun messages as there are numbers.
TEST_F(PublicationTest, ClosesAPipeThatBeginsBigMessagesWithoutEnd)
{
    CRawPipe oB = pipe(8, 1);
    subscribe(oB, NEWS, 1, 40);
    subscribe(oB, NEWS, 2, 50);
    for (const std::uint8_t ucType : std::initializer_list<std::uint8_t>{6, 14})
    {
        CRawPipe oA = pipe(7, 1);
        const TZolVekKey uiTo = ucType == 6 ? B : TZolVekKey{0};
        std::string strBlocks;
        for (std::uint32_t i = 0; i < 6000; ++i)
        {
            strBlocks += block(ucType, 0x10000 + i, uiTo, 1, "").wire();
        }
        oA.send(strBlocks);
        EXPECT_TRUE(oA.waitClosed());
    }
    EXPECT_TRUE(oB.isOpen());
    oB.close();
    EXPECT_TRUE(waitUntil([&] { return gateway().memoryBytes() == 0; }));
}

TEST_F(PublicationTest, BoundsTheSubscriptionsOfAPipe)
{
    CRawPipe oA = pipe(7, 1);
    const unsigned int uiBound = 65536;
    std::string strAsk;
    for (unsigned int i = 0; i <= uiBound; ++i)
    {
        strAsk += frame(11, A, 0, word32(1) + word32(1) + word32(i), i).wire();
    }
    std::thread oSender([&] { EXPECT_TRUE(oA.send(strAsk)); });
    for (unsigned int i = 0; i < uiBound; ++i)
    {
        ASSERT_EQ(0, next(oA).status()) << i;
    }
    EXPECT_NE(0, next(oA).status());
    oSender.join();
    subscribe(oA, 5, 1, 1, 12);
    subscribe(oA, uiBound + 1, 1, 1);
}

TEST_F(PublicationTest, WaitsForSubscribersInTheGraceAfterAStart)
{
    m_oSettings.m_uiGraceSeconds = 30;
    CRawPipe oA = pipe(7, 1);
    ASSERT_TRUE(oA.send(publication(13, "early").wire() + block(14, A, 0, 1, "b1").wire() +
                        block(14, A, 0, 0, "b0").wire() + frame(1, A, A, "direct").wire()));
    EXPECT_EQ("direct", next(oA).m_strBody) << "only publications wait";
    CRawPipe oGone = pipe(7, 2);
    ASSERT_TRUE(oGone.send(frame(13, A, 0, "from one that has gone", NEWS).wire()));
    expectSilence(oGone);
    oGone.close();
    CRawPipe oB = pipe(8, 1);
    subscribe(oB, NEWS, 1, 40);
    expectSilence(oB);
    gateway().pass(31s);
    ASSERT_TRUE(oA.send(publication(13, "late").wire()));
    expectDelivered(oB, 1, 1, 40, "early");
    expectDelivered(oB, 6, 1, 40, "b1", 1);
    expectDelivered(oB, 6, 1, 40, "b0", 0);
    expectDelivered(oB, 1, 1, 40, "from one that has gone");
    expectDelivered(oB, 1, 1, 40, "late");
}

} // namespace
