// The way in: what a peer writes on a pipe, made by hand, and what reaches a task.

#include "transport/TransportTest.h"

#include <gtest/gtest.h>

using namespace zoltest;

namespace
{

class ReceivePathTest : public TransportTest
{
protected:
    // Sends one more message behind whatever was sent and waits for it alone: what came before it is settled by then.
    void settle(CRawPipe &oPeer)
    {
        const std::size_t uiBefore = m_oInbox.count();
        ASSERT_TRUE(oPeer.send(toSink(999999).wire()));
        ASSERT_TRUE(waitUntil([&] { return !m_oInbox.all().empty() && m_oInbox.all().back().m_ulCmd == 999999; }))
            << "nothing came after " << uiBefore << " messages";
    }
};

SFrame block(unsigned short usSegment, const std::string &strBody, unsigned short usSource = 9)
{
    SFrame oFrame = toSink(50, strBody);
    oFrame.m_ucType = 6;
    oFrame.m_usSegment = usSegment;
    oFrame.m_usSrcProc = usSource;
    return oFrame;
}

} // namespace

TEST_F(ReceivePathTest, KeepsEveryFieldAndByteOfAMessage)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            SFrame oSent = toSink(0xA1B2C3D4, pattern(300));
            oSent.m_ucVersion = 77; // not looked at
            oSent.m_usSrcProc = 0x1234;
            oSent.m_usSrcHandle = 0x5678;
            oSent.m_usDestProc = 0x9ABC; // neither is whom it was meant for
            oSent.m_usDestHandle = 0xDEF0;
            oSent.m_ucSrcModule = 200;
            oSent.m_usSrcTask = 0xFEDC;
            oSent.m_usSegment = 0x0102;
            ASSERT_TRUE(oPeer.send(oSent.wire()));
            ASSERT_TRUE(m_oInbox.waitFor(1));
            EXPECT_EQ(oSent.wire(), m_oInbox.all().at(0).wire());
        });
}

// The stream is cut where the lengths say, wherever TCP cuts it.
TEST_F(ReceivePathTest, JoinsAMessageThatIsCutAtAnyByte)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            const std::string strTwo = toSink(1, "first").wire() + toSink(2, "").wire() + toSink(3, "x").wire();
            for (std::size_t uiCut = 1; uiCut < strTwo.size(); ++uiCut)
            {
                m_oInbox.clear();
                // The part before the cut is read for itself: a whole message in front of it says when.
                ASSERT_TRUE(oPeer.send(toSink(100).wire() + strTwo.substr(0, uiCut)));
                ASSERT_TRUE(m_oInbox.waitFor(1)) << "cut at " << uiCut;
                ASSERT_TRUE(oPeer.send(strTwo.substr(uiCut)));
                ASSERT_TRUE(m_oInbox.waitFor(4)) << "cut at " << uiCut;
                const auto oAll = m_oInbox.all();
                EXPECT_EQ("first", oAll[1].m_strBody) << "cut at " << uiCut;
                EXPECT_EQ(2U, oAll[2].m_ulCmd) << "cut at " << uiCut;
                EXPECT_EQ("x", oAll[3].m_strBody) << "cut at " << uiCut;
            }
        });
}

// What a damaged or hostile peer can announce. Lengths that cannot be end that pipe and nothing else; a header that is
// longer than ours is somebody's newer one and passes.
TEST_F(ReceivePathTest, ClosesOnlyThePipeOfImpossibleLengths)
{
    serve(
        [&]
        {
            CRawPipe oOther = peer(10, 1);
            for (const std::uint16_t usHeader : std::initializer_list<std::uint16_t>{0, 1, 27, 28, 29, 40, 65535})
            {
                for (const unsigned int uiData : {0U, 1U, 28U, 0xFFFFFFFFU})
                {
                    SCOPED_TRACE(testing::Message() << "header " << usHeader << ", data " << uiData);
                    m_oInbox.clear();
                    CRawPipe oPeer = peer();
                    SFrame oFrame = toSink(5);
                    oFrame.m_usHeader = usHeader;
                    oFrame.m_ulData = uiData;
                    // the extra bytes of the header, and the data
                    const bool bHuge = uiData == 0xFFFFFFFFU;
                    const std::size_t uiRest = usHeader > 28 ? usHeader - 28U : 0U;
                    oFrame.m_strBody = std::string(uiRest, 'h') + std::string(bHuge ? 0 : uiData, 'd');
                    ASSERT_TRUE(oPeer.send(oFrame.wire()));
                    if (usHeader < 28 || (bHuge && usHeader >= 28))
                    {
                        ASSERT_TRUE(oPeer.waitClosed());
                        EXPECT_EQ(0U, m_oInbox.count());
                    }
                    else
                    {
                        ASSERT_TRUE(m_oInbox.waitFor(1));
                        EXPECT_EQ(std::string(uiData, 'd'), m_oInbox.all()[0].m_strBody);
                        oPeer.close();
                    }
                    ASSERT_TRUE(waitConnected(9, 1, false));
                }
            }
            settle(oOther);
        });
}

TEST_F(ReceivePathTest, DropsWhatAPipeIsNotFor)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            for (const unsigned int uiType : {0U, 8U, 9U, 10U, 11U, 12U, 13U, 14U, 15U, 16U, 255U, 3U, 5U})
            {
                SFrame oFrame = toSink(uiType, "body");
                oFrame.m_ucType = static_cast<std::uint8_t>(uiType);
                ASSERT_TRUE(oPeer.send(oFrame.wire()));
            }
            SFrame oNowhere = toSink(1);
            oNowhere.m_ucDestModule = 77;
            ASSERT_TRUE(oPeer.send(oNowhere.wire()));
            SFrame oInitial = toSink(2); // the address of a call of the initial stage, which is over
            oInitial.m_ucDestModule = 255;
            oInitial.m_usDestTask = 65535;
            ASSERT_TRUE(oPeer.send(oInitial.wire()));
            settle(oPeer);
            EXPECT_EQ(1U, m_oInbox.count()) << "something that should be dropped was delivered";
            EXPECT_TRUE(logHas("DstMod:255"));
            EXPECT_EQ(11U, logCount("invalid message type, Ver:1"));
            EXPECT_EQ(2U, logCount("dest not found!"));
            EXPECT_EQ(2U, logCount("dispatch message failed, Ver:1"));
        });
}

TEST_F(ReceivePathTest, AnswersAHelloOnceOnAPassivePipe)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            SFrame oHello;
            oHello.m_ucType = 4;
            ASSERT_TRUE(oPeer.send(oHello.wire()));
            SFrame oEcho;
            ASSERT_TRUE(oPeer.readFrame(oEcho));
            SFrame oExpected;
            oExpected.m_ucType = 4;
            oExpected.m_usSrcProc = OWN_PROC;
            oExpected.m_usSrcHandle = OWN_HANDLE;
            oExpected.m_usDestProc = 9;
            oExpected.m_usDestHandle = 1;
            EXPECT_EQ(oExpected.wire(), oEcho.wire());
            settle(oPeer);
            EXPECT_EQ("", oPeer.read(1, Milliseconds(0)));
        });
}

// The command of a direct request carries an address of this process. A peer that makes one up must not be followed.
TEST_F(ReceivePathTest, IgnoresForgedDirectRequests)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            for (const std::size_t uiLength : {0U, 4U, 8U, 16U})
            {
                SFrame oForged = toSink(0x10004, std::string(uiLength, '\x41'));
                oForged.m_ucDestModule = 254;
                oForged.m_usDestTask = 0;
                ASSERT_TRUE(oPeer.send(oForged.wire()));
                oForged.m_ucType = 6; // the same in blocks
                oForged.m_usSegment = 1;
                ASSERT_TRUE(oPeer.send(oForged.wire()));
                oForged.m_usSegment = 0;
                ASSERT_TRUE(oPeer.send(oForged.wire()));
            }
            settle(oPeer);
            EXPECT_TRUE(logHas("createTask() return NULL when process message, src: 9,1,0,0, dst:254,0, cmd:65540"));
        });
}

TEST_F(ReceivePathTest, JoinsBlocksOfSeveralSourcesWithMessagesInBetween)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            const std::string strBytes = pattern(4000);
            ASSERT_TRUE(oPeer.send(block(1, strBytes.substr(0, 1000)).wire() + block(1, "A", 11).wire() +
                                   toSink(7, "whole").wire() + block(2, strBytes.substr(1000, 2000)).wire() +
                                   block(0, "B", 11).wire() + block(3, strBytes.substr(3000, 900)).wire() +
                                   block(0, strBytes.substr(3900)).wire()));
            ASSERT_TRUE(m_oInbox.waitFor(3));
            const auto oAll = m_oInbox.all();
            EXPECT_EQ("whole", oAll[0].m_strBody);
            EXPECT_EQ("AB", oAll[1].m_strBody);
            EXPECT_TRUE(oAll[2].m_strBody == strBytes);
            EXPECT_EQ(1, oAll[2].m_ucType);
            EXPECT_EQ(0, oAll[2].m_usSegment);
            EXPECT_EQ(28, oAll[2].m_usHeader);
        });
}

TEST_F(ReceivePathTest, JoinsBlocksWithHeadersOfDifferentLengths)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            SFrame oFirst = block(1, "");
            oFirst.m_usHeader = 60;
            oFirst.m_ulData = 3;
            oFirst.m_strBody = std::string(32, 'h') + "abc";
            SFrame oLast = block(0, "");
            oLast.m_usHeader = 29;
            oLast.m_ulData = 2;
            oLast.m_strBody = "hde";
            ASSERT_TRUE(oPeer.send(oFirst.wire() + oLast.wire()));
            ASSERT_TRUE(m_oInbox.waitFor(1));
            EXPECT_EQ("abcde", m_oInbox.all()[0].m_strBody);
            EXPECT_EQ(29, m_oInbox.all()[0].m_usHeader);
        });
}

TEST_F(ReceivePathTest, DropsBigMessagesOutOfOrderAndGoesOn)
{
    serve(
        [&]
        {
            const struct
            {
                const char *pcName;
                std::vector<unsigned short> oSegments;
                unsigned int uiDisordered;
                unsigned int uiAlone;
            } aCases[] = {
                {"a last block alone", {0}, 0, 1},
                {"begins with 2", {2, 0}, 1, 1},
                {"3 after 1", {1, 3, 0}, 1, 1},
                {"1 again drops both", {1, 2, 1, 3, 0}, 2, 1},
                {"65535 out of nowhere", {1, 65535, 0}, 1, 1},
            };
            CRawPipe oPeer = peer();
            unsigned int uiDisordered = 0;
            unsigned int uiAlone = 0;
            for (const auto &oCase : aCases)
            {
                SCOPED_TRACE(oCase.pcName);
                for (const unsigned short usSegment : oCase.oSegments)
                {
                    ASSERT_TRUE(oPeer.send(block(usSegment, "x").wire()));
                }
                m_oInbox.clear();
                settle(oPeer);
                EXPECT_EQ(1U, m_oInbox.count());
                uiDisordered += oCase.uiDisordered;
                uiAlone += oCase.uiAlone;
            }
            m_oInbox.clear();
            ASSERT_TRUE(oPeer.send(block(1, "in ").wire() + block(0, "order").wire()));
            ASSERT_TRUE(m_oInbox.waitFor(1));
            EXPECT_EQ("in order", m_oInbox.all()[0].m_strBody);
            EXPECT_TRUE(waitUntil([&] { return logCount("big message all block receive, ") == 1; }));
            EXPECT_EQ(uiDisordered, logCount("disordered big message block receive, "));
            EXPECT_EQ(uiAlone, logCount("only find one block of big message, "));
        });
}

// A full queue stops the reading, and with it the sender; nothing is lost and nothing overtakes.
TEST_F(ReceivePathTest, StopsReadingWhileAQueueIsFull)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            std::unique_lock<std::mutex> oClosed(m_oGate);
            const std::string strBody = pattern(1 << 20);
            std::thread oSender(
                [&]
                {
                    for (unsigned int i = 0; i < 60; ++i)
                    {
                        EXPECT_TRUE(oPeer.send(toSink(i, strBody).wire()));
                    }
                });
            CZolTaskMgr *poManager = CZolAppMgr::instance()->findTaskMgr(COLLECTOR);
            EXPECT_TRUE(waitUntil([&] { return poManager->getBytesOfBufferMsg() >= 26214400; }));
            EXPECT_LT(poManager->getBytesOfBufferMsg(), 26214400U + 2 * (1 << 20));
            oClosed.unlock();
            oSender.join();
            ASSERT_TRUE(m_oInbox.waitFor(60));
            const auto oAll = m_oInbox.all();
            for (unsigned int i = 0; i < 60; ++i)
            {
                EXPECT_EQ(i, oAll[i].m_ulCmd);
                EXPECT_TRUE(oAll[i].m_strBody == strBody);
            }
        },
        "ZOLQueueSize = 1\n"); // raised to the least, 26214400
}
