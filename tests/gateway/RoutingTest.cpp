#include "gateway/GatewayFixture.h"

#include <set>

using namespace zoltest;
using namespace std::chrono_literals;

namespace
{

const TZolVekKey A = zolVekKey(7, 1);
const TZolVekKey B = zolVekKey(8, 1);
const TZolVekKey NOBODY = zolVekKey(99, 1);

class RoutingTest : public GatewayTest
{
};

TEST_F(RoutingTest, ForwardsEveryByteAsItIs)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    std::string strSent;
    for (const std::uint8_t ucType : std::initializer_list<std::uint8_t>{1, 2, 6, 7})
    {
        for (const std::uint16_t usHeader : std::initializer_list<std::uint16_t>{28, 29, 4096})
        {
            for (const std::size_t ulBody : {0, 1, 8160, 65508, 70000, 1000000})
            {
                SFrame oFrame = frame(ucType, A, B, std::string(ulBody, static_cast<char>(ulBody)));
                oFrame.m_ucVersion = 9;
                oFrame.m_usSegment = ucType > 5 && usHeader != 4096 ? static_cast<std::uint16_t>(ulBody % 7 + 1) : 0;
                oFrame.m_usHeader = usHeader;
                oFrame.m_ucSrcModule = 1;
                oFrame.m_ucDestModule = 2;
                oFrame.m_usSrcTask = 3;
                oFrame.m_usDestTask = 4;
                oFrame.m_strBody += std::string(usHeader - 28, 'h');
                strSent += oFrame.wire();
            }
        }
    }
    std::thread oSender([&] { oA.send(strSent); });
    EXPECT_TRUE(strSent == oB.read(strSent.size()));
    oSender.join();
}

// A frame that it has no use for is dropped, and its pipe goes on; a second register message changes nothing.
TEST_F(RoutingTest, DropsWhatNobodyIsThereFor)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    for (int i = 0; i < 1000; ++i)
    {
        ASSERT_TRUE(oA.send(frame(1, A, NOBODY, "lost").wire()));
    }
    ASSERT_TRUE(oA.send(frame(2, A, 0, "a response to the gateway").wire()));
    ASSERT_TRUE(oA.send(frame(1, A, zolVekKey(8, 2), "another handle").wire()));
    for (const int iType : {0, 3, 5, 8, 9, 10, 16, 255})
    {
        ASSERT_TRUE(oA.send(frame(static_cast<std::uint8_t>(iType), A, B, "x").wire()));
    }
    ASSERT_TRUE(oA.send(registerFrame(9, 4).wire() + frame(1, A, B, "found").wire()));
    EXPECT_EQ("found", next(oB).m_strBody);
    EXPECT_EQ(1002u, gateway().statistics().m_ulDropNoRoute);
    EXPECT_EQ(6u, gateway().statistics().m_ulDropType);
    EXPECT_EQ(2u, gateway().pipes());
}

// A damaged stream costs its own pipe, after what came before the damage has been delivered.
TEST_F(RoutingTest, ClosesOnlyThePipeThatIsDamaged)
{
    CRawPipe oB = pipe(8, 1);
    const struct
    {
        const char *pcName;
        std::uint16_t usHeader;
        std::uint32_t ulData;
    } aCases[] = {
        {"no header", 0, 0},       {"a short header", 27, 100},        {"a sum that wraps", 65535, 0xFFFFFFFF},
        {"4 GiB", 28, 0xFFFFFFFF}, {"above the limit", 28, 16u << 20},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        CRawPipe oA = pipe(7, 1);
        SFrame oBad = frame(1, A, B, "");
        oBad.m_usHeader = oCase.usHeader;
        oBad.m_ulData = oCase.ulData;
        ASSERT_TRUE(oA.send(frame(1, A, B, "before").wire() + oBad.header()));
        EXPECT_EQ("before", next(oB).m_strBody);
        EXPECT_TRUE(oA.waitClosed());
    }
    expectSilence(oB);
}

// A request to a handle of 0 names the process by its id: each source keeps to one pipe, the pipe without a handle
// comes first, and a source whose pipe goes moves to another.
TEST_F(RoutingTest, FindsAProcessByItsIdAlone)
{
    CRawPipe oFirst = pipe(8, 1);
    CRawPipe oSecond = pipe(8, 2);
    std::vector<CRawPipe> oSources;
    for (unsigned short i = 1; i <= 4; ++i)
    {
        oSources.push_back(pipe(7, i));
    }
    const auto fnAll = [&](const std::string &strBody)
    {
        for (unsigned short i = 1; i <= 4; ++i)
        {
            for (int j = 0; j < 3; ++j)
            {
                EXPECT_TRUE(oSources[i - 1u].send(frame(1, zolVekKey(7, i), zolVekKey(8, 0), strBody).wire()));
            }
        }
    };
    fnAll("spread");
    std::set<int> aoSeen[2];
    for (int i = 0; i < 6; ++i)
    {
        aoSeen[0].insert(next(oFirst).m_usSrcHandle);
        aoSeen[1].insert(next(oSecond).m_usSrcHandle);
    }
    EXPECT_EQ(2u, aoSeen[0].size()) << "two sources each, and each keeps to its pipe";
    EXPECT_EQ(2u, aoSeen[1].size());
    oSecond.close();
    ASSERT_TRUE(waitUntil([&] { return gateway().pipes() == 5; }));
    fnAll("moved");
    for (int i = 0; i < 12; ++i)
    {
        EXPECT_EQ("moved", next(oFirst).m_strBody);
    }
    CRawPipe oNoHandle = pipe(8, 0, 1);
    fnAll("id itself");
    for (int i = 0; i < 12; ++i)
    {
        EXPECT_EQ("id itself", next(oNoHandle).m_strBody);
    }
    expectSilence(oFirst);
    oNoHandle.close();
    oFirst.close();
    ASSERT_TRUE(waitUntil([&] { return gateway().pipes() == 4; }));
    fnAll("nobody");
    EXPECT_TRUE(waitUntil([&] { return gateway().statistics().m_ulDropNoRoute == 12; }));
}

// A better pipe for an id that comes up while a big message is under way to another one gets what follows it.
TEST_F(RoutingTest, MovesToAnotherPipeOnlyBetweenMessages)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oFirst = pipe(8, 1);
    const auto fnSend = [&](std::uint8_t ucType, std::uint16_t usSegment, const char *pcBody)
    {
        SFrame oFrame = frame(ucType, A, zolVekKey(8, 0), pcBody);
        oFrame.m_usSegment = usSegment;
        ASSERT_TRUE(oA.send(oFrame.wire()));
    };
    fnSend(6, 1, "one");
    EXPECT_EQ("one", next(oFirst).m_strBody);
    CRawPipe oNoHandle = pipe(8, 0, 1);
    fnSend(6, 2, "two");
    fnSend(6, 0, "end");
    fnSend(1, 0, "behind");
    EXPECT_EQ("two", next(oFirst).m_strBody);
    EXPECT_EQ("end", next(oFirst).m_strBody);
    EXPECT_EQ("behind", next(oNoHandle).m_strBody);
    expectSilence(oFirst);
}

TEST_F(RoutingTest, BroadcastsToAllButTheSender)
{
    CRawPipe oA = pipe(7, 1);
    std::vector<CRawPipe> oOthers;
    for (unsigned short i = 1; i < 20; ++i)
    {
        oOthers.push_back(pipe(8, i));
    }
    const SFrame oFrame = frame(1, A, 0xFFFFFFFF, std::string(5000, 'b'));
    ASSERT_TRUE(oA.send(oFrame.wire()));
    for (CRawPipe &oOther : oOthers)
    {
        EXPECT_EQ(oFrame.wire(), next(oOther).wire()) << "unchanged";
    }
    expectSilence(oA);
}

TEST_F(RoutingTest, AnswersHellosAheadOfBulk)
{
    const std::size_t ulFrames = 4 * kernelBuffers() / 100000;
    m_oSettings.m_ulPipeQueueBytes = 2 * ulFrames * 100000;
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    for (std::size_t i = 0; i < ulFrames; ++i)
    {
        ASSERT_TRUE(oA.send(frame(1, A, B, std::string(100000, 'x')).wire()));
    }
    ASSERT_TRUE(waitUntil([&] { return gateway().statistics().m_ulFramesIn >= ulFrames; }));
    SFrame oHello;
    oHello.m_ucType = 4;
    ASSERT_TRUE(oB.send(oHello.wire()));
    std::size_t ulBefore = 0;
    SFrame oFrame;
    while (oB.readFrame(oFrame) && oFrame.m_ucType != 4)
    {
        ++ulBefore;
    }
    EXPECT_EQ(8, oFrame.m_usDestProc);
    EXPECT_LT(ulBefore, ulFrames / 2) << "only what the kernel had taken already comes first";
    for (std::size_t i = ulBefore; i < ulFrames; ++i)
    {
        ASSERT_EQ(100000u, next(oB).m_strBody.size());
    }
}

TEST_F(RoutingTest, SendsAHelloOnAPipeThatWasSilent)
{
    CRawPipe oA = pipe(7, 1);
    SFrame oFrame;
    EXPECT_FALSE(oA.readFrame(oFrame, 100ms));
    gateway().pass(61s);
    ASSERT_TRUE(oA.readFrame(oFrame));
    EXPECT_EQ(4, oFrame.m_ucType);
    EXPECT_EQ(28u, oFrame.wire().size());
    EXPECT_EQ(7, oFrame.m_usDestProc);
    EXPECT_EQ(1, oFrame.m_usDestHandle);
}

TEST_F(RoutingTest, LooksUpAddresses)
{
    m_oSettings.m_oPortsById[8] = 8000;
    m_oSettings.m_oPorts[zolVekKey(8, 2)] = 8002;
    CRawPipe oA = pipe(7, 1);
    const CRawPipe oB1 = pipe(8, 1);
    const CRawPipe oB2 = pipe(8, 2);
    const std::string strFound = word32(0) + word32(0x7F000001);
    const std::string strNone = word32(static_cast<unsigned int>(-6));
    const struct
    {
        const char *pcName;
        std::string strBody;
        std::string strExpected;
    } aCases[] = {
        {"port of the id", word16(8) + word16(1), strFound + word16(8000)},
        {"port of its own", word16(8) + word16(2), strFound + word16(8002)},
        {"not up", word16(8) + word16(3), strNone},
        {"no port", word16(7) + word16(1), strNone},
        {"unknown", word16(99) + word16(0), strNone},
        {"too short", "abc", strNone},
        {"nothing", "", strNone},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        SFrame oRequest = frame(15, A, 0, oCase.strBody);
        oRequest.m_ucSrcModule = 254;
        oRequest.m_usSrcTask = 40000;
        ASSERT_TRUE(oA.send(oRequest.wire()));
        const SFrame oAnswer = next(oA);
        EXPECT_EQ(2, oAnswer.m_ucType);
        EXPECT_EQ(254, oAnswer.m_ucDestModule);
        EXPECT_EQ(40000, oAnswer.m_usDestTask);
        EXPECT_EQ(oCase.strExpected, oAnswer.m_strBody);
    }
}

// The payload of that command is an address in the memory of the receiver.
TEST_F(RoutingTest, NeverForwardsADirectRequest)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    for (const std::uint8_t ucType : std::initializer_list<std::uint8_t>{1, 6})
    {
        for (const TZolVekKey uiTo : {B, TZolVekKey{0xFFFFFFFF}, zolVekKey(8, 0)})
        {
            SFrame oFrame = frame(ucType, A, uiTo, "12345678", 0x10004);
            oFrame.m_ucDestModule = 254;
            ASSERT_TRUE(oA.send(frame(1, A, B, "near").wire() + oFrame.wire()));
            EXPECT_EQ("near", next(oB).m_strBody);
        }
    }
    ASSERT_TRUE(oA.send(frame(13, A, 0, "12345678", 0x10004).wire() + frame(1, A, B, "end").wire()));
    EXPECT_EQ("end", next(oB).m_strBody);
    EXPECT_EQ(6u, gateway().statistics().m_ulDropForbidden);
}

} // namespace
