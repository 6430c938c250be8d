#include "gateway/GatewayFixture.h"

using namespace zoltest;

namespace
{

const TZolVekKey A = zolVekKey(7, 1);
const TZolVekKey B = zolVekKey(8, 1);

class GatewayPolicyTest : public GatewayTest
{
};

// Whether a frame comes through is told by what the receiver gets next: the frame, or the one sent behind it.
TEST_F(GatewayPolicyTest, DebugCommandsComeOnlyFromWhoIsNamed)
{
    m_oSettings.m_bDebugFromAll = false;
    m_oSettings.m_oDebugFrom = {9};
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    CRawPipe oNamed = pipe(9, 1);
    const struct
    {
        const char *pcName;
        std::uint8_t ucType;
        std::uint8_t ucModule;
        std::uint16_t usTask;
        std::uint32_t ulCmd;
        bool bPasses;
    } aCases[] = {
        {"get the log level", 1, 254, 0, 0x10001, false},
        {"set the log level", 1, 254, 0, 0x10002, false},
        {"dump the state", 1, 254, 0, 0x10003, false},
        {"named to a task of the manager", 1, 254, 40, 0x10003, false},
        {"as a block", 6, 254, 0, 0x10002, false},
        {"a response that names no task", 2, 254, 0, 0x10002, false},
        {"a response for a caller that waits", 2, 254, 40, 0x10002, true},
        {"another command of the manager", 1, 254, 0, 0x20001, true},
        {"the number used by an application", 1, 5, 0, 0x10002, true},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        for (CRawPipe *const poFrom : {&oA, &oNamed})
        {
            SFrame oFrame = frame(oCase.ucType, poFrom == &oA ? A : zolVekKey(9, 1), B, "debug", oCase.ulCmd);
            oFrame.m_ucDestModule = oCase.ucModule;
            oFrame.m_usDestTask = oCase.usTask;
            ASSERT_TRUE(poFrom->send(oFrame.wire() + frame(1, A, B, "behind").wire()));
            if (oCase.bPasses || poFrom == &oNamed)
            {
                EXPECT_EQ(oFrame.wire(), next(oB).wire());
            }
            EXPECT_EQ("behind", next(oB).m_strBody);
        }
    }
    EXPECT_EQ(6u, gateway().statistics().m_ulDropDebug);
}

TEST_F(GatewayPolicyTest, HoldsTheSourceAgainstTheRegistration)
{
    CRawPipe oA = pipe(7, 1);
    CRawPipe oB = pipe(8, 1);
    const TZolVekKey aForeign[] = {B, zolVekKey(7, 2), zolVekKey(7, 0), 0};
    for (const EnumZolVekCheckSource eCheck : {VEK_CHECK_OFF, VEK_CHECK_LOG, VEK_CHECK_DROP})
    {
        SCOPED_TRACE(eCheck);
        SZolVekSettings oSettings = m_oSettings;
        oSettings.m_eCheckSource = eCheck;
        gateway().run([&](CZolVekGateway &oGateway) { oGateway.reload(oSettings); });
        for (const TZolVekKey uiSource : aForeign)
        {
            ASSERT_TRUE(oA.send(frame(1, uiSource, B, "foreign").wire() + frame(1, A, B, "own").wire()));
            if (eCheck != VEK_CHECK_DROP)
            {
                EXPECT_EQ("foreign", next(oB).m_strBody);
            }
            EXPECT_EQ("own", next(oB).m_strBody);
        }
        expectSilence(oA); // its hello names no source at all and is answered
    }
    EXPECT_EQ(4u, gateway().statistics().m_ulForeignSource);
    EXPECT_EQ(4u, gateway().statistics().m_ulDropSource);
}

TEST_F(GatewayPolicyTest, OneAddressHasItsShareOfConnections)
{
    m_oSettings.m_uiMaxPipesPerAddress = 2;
    CRawPipe oA = pipe(7, 1);
    CRawPipe oSilent = connection(); // counts before it registers
    ASSERT_TRUE(waitUntil([&] { return gateway().connections() == 2; }));
    CRawPipe oThird = connection();
    EXPECT_TRUE(oThird.waitClosed());
    EXPECT_EQ(1u, gateway().statistics().m_ulCrowdedOut);
    oSilent.close();
    ASSERT_TRUE(waitUntil([&] { return gateway().connections() == 1; }));
    CRawPipe oB = pipe(8, 1);
    ASSERT_TRUE(oA.send(frame(1, A, B, "on").wire()));
    EXPECT_EQ("on", next(oB).m_strBody);
}

// One that sends too much waits; what it has sent is not lost and keeps its order, and others go on meanwhile.
TEST_F(GatewayPolicyTest, ReadsNoFasterThanTheFramesAllow)
{
    m_oSettings.m_ulMaxFramesPerSecond = 1;
    CRawPipe oFast = pipe(7, 1);
    CRawPipe oTo = pipe(8, 1);
    CRawPipe oOther = pipe(9, 1);
    std::string strAll;
    for (unsigned int uiNumber = 0; uiNumber < 2000; ++uiNumber)
    {
        strAll += frame(1, A, B, word32(uiNumber)).wire();
    }
    ASSERT_TRUE(oFast.send(strAll));
    EXPECT_EQ(word32(0), next(oTo).m_strBody);
    ASSERT_TRUE(oOther.send(frame(1, zolVekKey(9, 1), zolVekKey(9, 1), "to myself").wire()));
    EXPECT_EQ("to myself", next(oOther).m_strBody);
    EXPECT_TRUE(waitUntil([&] { return gateway().statistics().m_ulThrottled > 0; }));
    EXPECT_LT(gateway().statistics().m_ulFramesIn, 1000u);

    m_oSettings.m_ulMaxFramesPerSecond = 0;
    gateway().run([&](CZolVekGateway &oGateway) { oGateway.reload(m_oSettings); });
    for (unsigned int uiNumber = 1; uiNumber < 2000; ++uiNumber)
    {
        ASSERT_EQ(word32(uiNumber), next(oTo).m_strBody);
    }
}

// What was sent before a reload is no debt under the rate that it brings.
TEST_F(GatewayPolicyTest, BeginsAnewWithANewRate)
{
    const struct
    {
        const char *pcName;
        std::uint64_t aulBefore[2]; // frames and bytes in a second
        std::uint64_t aulAfter[2];
    } aCases[] = {
        {"none, then frames", {0, 0}, {20, 0}},
        {"frames, then bytes as well", {1000000, 0}, {1000000, 1000}},
        {"bytes, then frames as well", {0, 1000000000}, {20, 1000000000}},
        {"a lower rate", {0, 1000000000}, {0, 1000}},
    };
    CRawPipe oFrom = pipe(7, 1);
    CRawPipe oTo = pipe(8, 1);
    const auto fnSet = [&](const std::uint64_t(&aulRate)[2])
    {
        m_oSettings.m_ulMaxFramesPerSecond = aulRate[0];
        m_oSettings.m_ulMaxBytesPerSecond = aulRate[1];
        gateway().run([&](CZolVekGateway &oGateway) { oGateway.reload(m_oSettings); });
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        fnSet(oCase.aulBefore);
        std::string strMuch;
        for (int i = 0; i < 2000; ++i)
        {
            strMuch += frame(1, A, B, "much").wire();
        }
        ASSERT_TRUE(oFrom.send(strMuch));
        EXPECT_TRUE(strMuch == oTo.read(strMuch.size()));
        ASSERT_TRUE(oFrom.send(frame(1, A, B, std::string(100000, 'x')).wire()));
        ASSERT_EQ(100000u, next(oTo).m_strBody.size());
        fnSet(oCase.aulAfter);
        ASSERT_TRUE(oFrom.send(frame(1, A, B, "on").wire()));
        ASSERT_EQ("on", next(oTo).m_strBody);
    }
}

// One line a second about each subject, a few in all, and every line that was held back is counted in a later one.
TEST(RateLimitTest, BoundsTheLinesOfAKind)
{
    CZolVekRateLimit oLimit;
    std::uint64_t ulHeldBack = 0;
    unsigned int uiLines = 0;
    for (std::uint64_t ulSubject = 0; ulSubject < 5000; ++ulSubject)
    {
        uiLines += oLimit.pass(ulSubject, 500, ulHeldBack) ? 1 : 0;
    }
    EXPECT_EQ(CZolVekRateLimit::LINES, uiLines);
    EXPECT_FALSE(oLimit.pass(9999, 1499, ulHeldBack));
    EXPECT_TRUE(oLimit.pass(1, 1500, ulHeldBack));
    EXPECT_EQ(5001 - CZolVekRateLimit::LINES, ulHeldBack);
    EXPECT_FALSE(oLimit.pass(1, 1501, ulHeldBack)) << "one line a second about each";
    EXPECT_TRUE(oLimit.pass(2, 1502, ulHeldBack));
    EXPECT_EQ(1u, ulHeldBack);
}

} // namespace
