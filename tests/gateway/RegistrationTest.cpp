#include "gateway/GatewayFixture.h"

#include <sys/socket.h>

using namespace zoltest;
using namespace std::chrono_literals;

namespace
{

class RegistrationTest : public GatewayTest
{
};

// The answer is 32 bytes, field by field, in each of the three ways to get a handle.
TEST_F(RegistrationTest, AnswersInTheThreeHandleModes)
{
    const struct
    {
        const char *pcName;
        unsigned short usHandle;
        unsigned int uiBody;
        unsigned short usGiven;
    } aCases[] = {
        {"own handle", 3, 0, 3},
        {"allocation", 0, 0, 1},
        {"no handle", 0, 1, 0},
        {"allocation again", 0, 0, 2},
    };
    std::vector<CRawPipe> oPipes;
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        oPipes.push_back(connection());
        SFrame oRequest = registerFrame(7, oCase.usHandle, oCase.uiBody);
        oRequest.m_ucSrcModule = 11;
        oRequest.m_usSrcTask = 12;
        oRequest.m_ulCmd = 13;
        ASSERT_TRUE(oPipes.back().send(oRequest.wire()));
        const std::string strAnswer = oPipes.back().read(32);
        SFrame oExpected;
        oExpected.m_ucType = 3;
        oExpected.m_ulCmd = 13;
        oExpected.m_usDestProc = 7;
        oExpected.m_usDestHandle = oCase.usGiven;
        oExpected.m_ucDestModule = 11;
        oExpected.m_usDestTask = 12;
        EXPECT_EQ(oExpected.body(word32(0)).wire(), strAnswer);
    }
    EXPECT_EQ(4u, gateway().pipes());
}

TEST_F(RegistrationTest, RefusesWithTheStatusThatSaysWhy)
{
    m_oSettings.m_uiMaxConnections = 2;
    m_oSettings.m_oAllowFromById[9] = {{0x0A000000, 8}};
    const CRawPipe oFirst = pipe(7, 3);
    EXPECT_EQ(-8, connection().registerAs(0, 1));
    EXPECT_EQ(-8, connection().registerAs(65535, 1));
    EXPECT_EQ(-8, connection().registerAs(9, 1)) << "only from elsewhere";
    EXPECT_EQ(-9, connection().registerAs(7, 3));
    const CRawPipe oSecond = pipe(7, 4);
    CRawPipe oThird = connection();
    EXPECT_EQ(-10, oThird.registerAs(8, 1));
    gateway().pass(6s);
    EXPECT_TRUE(oThird.waitClosed()) << "a refused connection is not kept";
    EXPECT_EQ(2u, gateway().pipes());
    const SZolVekStatistics oStatistics = gateway().statistics();
    EXPECT_EQ(3u, oStatistics.m_ulRefusedId);
    EXPECT_EQ(1u, oStatistics.m_ulRefusedUp);
    EXPECT_EQ(1u, oStatistics.m_ulRefusedFull);
}

// Whatever comes first and is no register message ends the connection, and nothing else happens.
TEST_F(RegistrationTest, ClosesWhatDoesNotBeginWithARegisterMessage)
{
    const auto fnRegister = [](std::uint16_t usHeader, std::uint32_t ulData, std::size_t ulBody)
    {
        SFrame oFrame = registerFrame(7, 1);
        oFrame.m_usHeader = usHeader;
        oFrame.m_ulData = ulData;
        return oFrame.header() + std::string(ulBody, '\0');
    };
    const std::pair<const char *, std::string> aCases[] = {
        {"a longer body", fnRegister(28, 5, 5)},
        {"a shorter body", fnRegister(28, 3, 3)},
        {"a hello", frame(4, 0, 0, "").wire()},
        {"a gigabyte", fnRegister(28, 0x40000000, 0)},
        {"a short header", fnRegister(27, 4, 4)},
        {"a long header", fnRegister(32, 0, 4)},
        {"a request", frame(1, 1, 2, "abcd").wire()},
        {"text", "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"},
        {"zeros", std::string(100, '\0')},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.first);
        CRawPipe oPipe = connection();
        oPipe.send(oCase.second);
        EXPECT_EQ("", oPipe.read(1)) << "no answer";
    }
    EXPECT_EQ(0u, gateway().pipes());
    EXPECT_TRUE(waitUntil([&] { return gateway().connections() == 0; }));
}

TEST_F(RegistrationTest, ClosesWhoDoesNotRegisterInTime)
{
    m_oSettings.m_uiRegisterSeconds = 200;
    CRawPipe oSilent = connection();
    CRawPipe oHalf = connection();
    ASSERT_TRUE(oHalf.send(registerFrame(7, 1).wire().substr(0, 31)));
    const CRawPipe oGood = pipe(8, 1);
    ASSERT_TRUE(waitUntil([&] { return gateway().connections() == 3; }));
    gateway().pass(100s);
    EXPECT_EQ("", oSilent.read(1, 100ms));
    EXPECT_EQ(3u, gateway().connections());
    gateway().pass(101s);
    EXPECT_TRUE(oSilent.waitClosed());
    EXPECT_TRUE(oHalf.waitClosed());
    EXPECT_EQ(1u, gateway().connections());
}

// A process that registers in the crowd of those that do not gets its place.
TEST_F(RegistrationTest, MakesRoomAmongConnectionsThatStaySilent)
{
    m_oSettings.m_uiMaxUnregistered = 8;
    std::vector<CRawPipe> oSilent;
    for (int i = 0; i < 40; ++i)
    {
        oSilent.push_back(connection());
    }
    const CRawPipe oGood = pipe(7, 1);
    EXPECT_EQ(1u, gateway().pipes());
}

// The kernel of a dead machine acknowledges nothing. A local socket pair whose far end reads nothing looks like that.
TEST_F(RegistrationTest, GivesTheKeyOfADeadMachineToTheNewcomer)
{
    m_oSettings.m_uiProbeSeconds = 100;
    int aiSockets[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, aiSockets));
    CRawPipe oDead(aiSockets[1]);
    ASSERT_TRUE(oDead.send(registerFrame(7, 3).wire()));
    gateway().run([&](CZolVekGateway &oGateway) { oGateway.adopt(aiSockets[0], 0x7F000001, 1); });
    ASSERT_TRUE(waitUntil([&] { return gateway().pipes() == 1; }));
    CRawPipe oNew = connection();
    ASSERT_TRUE(oNew.send(registerFrame(7, 3).wire()));
    EXPECT_EQ("", oNew.read(1, 200ms)) << "the old one has its time";
    gateway().pass(100s);
    SFrame oAnswer;
    ASSERT_TRUE(oNew.readFrame(oAnswer));
    EXPECT_EQ(0, oAnswer.status());
    EXPECT_TRUE(oDead.waitClosed());
    EXPECT_EQ(1u, gateway().pipes());
}

// A stopped process lives: its kernel acknowledges though it reads nothing, also when its buffers are full.
TEST_F(RegistrationTest, RefusesTheKeyOfAProcessThatIsStopped)
{
    CRawPipe oStopped = pipe(7, 3);
    CRawPipe oSource = pipe(8, 1);
    CRawPipe oRefused = connection();
    EXPECT_EQ(-9, oRefused.registerAs(7, 3));
    CRawPipe oNewcomer = connection();
    ASSERT_TRUE(oNewcomer.send(registerFrame(7, 3).wire()));
    oNewcomer.close(); // while it is being probed for
    EXPECT_EQ(-9, connection().registerAs(7, 3));
    EXPECT_EQ(2u, gateway().pipes());
    gateway().pass(6s);
    EXPECT_TRUE(oRefused.waitClosed()) << "like any other that was refused";
}

// A process that sends much, ends, and starts again at once: what it sent arrives, and then it has its key again.
TEST_F(RegistrationTest, ReadsWhatAnEndedProcessSentBeforeItsKeyIsTaken)
{
    m_oSettings.m_ulPipeQueueBytes = 1 << 20;
    CRawPipe oReceiver = pipe(8, 1);
    for (unsigned int uiRound = 0; uiRound < 20; ++uiRound)
    {
        CRawPipe oOld = pipe(7, 3);
        std::string strFrames;
        for (unsigned int i = 0; i < 1000; ++i)
        {
            strFrames += frame(1, zolVekKey(7, 3), zolVekKey(8, 1), word32(i) + std::string(1000, 'x')).wire();
        }
        const std::future<void> oSent = std::async(std::launch::async,
                                                   [&]
                                                   {
                                                       EXPECT_TRUE(oOld.send(strFrames));
                                                       oOld.close();
                                                       CRawPipe oNew = connection();
                                                       EXPECT_EQ(0, oNew.registerAs(7, 3));
                                                   });
        for (unsigned int i = 0; i < 1000; ++i)
        {
            ASSERT_EQ(i, readWord32(next(oReceiver).m_strBody, 0));
        }
    }
}

} // namespace
