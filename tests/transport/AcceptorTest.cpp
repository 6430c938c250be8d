// The listening port: what a stranger can say first, and what it gets.

#include "transport/TransportTest.h"
#include "transport/ZolAcceptorHandler.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace zoltest;

namespace
{

using AcceptorTest = TransportTest;

/// Connections that are made by socketpair, and what the acceptor makes of their first message.
class FirstMessageTest : public BareTest
{
protected:
    // The answer to these bytes and an end; the connection stays.
    std::string answerTo(const std::string &strBytes)
    {
        int aiEnds[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, aiEnds));
        m_oFarEnds.emplace_back(aiEnds[1]);
        EXPECT_TRUE(m_oFarEnds.back().send(strBytes));
        m_oFarEnds.back().finish();
        CZolAcceptorHandler::instance()->takeConnection(aiEnds[0]);
        return m_oFarEnds.back().read(33, Milliseconds(0));
    }

    std::vector<CRawPipe> m_oFarEnds;
};

} // namespace

TEST_F(FirstMessageTest, AnswersARegistrationByteForByte)
{
    SFrame oRequest = registerFrame(0x0102, 0x0304, 1);
    oRequest.m_ucVersion = 5;
    oRequest.m_usSegment = 6;
    oRequest.m_ulCmd = 0x11223344;
    oRequest.m_usDestProc = 66;
    oRequest.m_ucSrcModule = 7;
    oRequest.m_ucDestModule = 8;
    oRequest.m_usSrcTask = 9;
    oRequest.m_usDestTask = 10;
    SFrame oExpected = registerFrame(OWN_PROC, OWN_HANDLE, 0);
    oExpected.m_ucVersion = 5;
    oExpected.m_ulCmd = 0x11223344;
    oExpected.m_usDestProc = 0x0102;
    oExpected.m_usDestHandle = 0x0304;
    oExpected.m_ucSrcModule = 8;
    oExpected.m_ucDestModule = 7;
    oExpected.m_usSrcTask = 10;
    oExpected.m_usDestTask = 9;
    EXPECT_EQ(oExpected.wire(), answerTo(oRequest.wire()));
    EXPECT_TRUE(CZolConnMgr::instance()->isConnected(0x0102, 0x0304));
    EXPECT_TRUE(logHas("CZolAcceptorHandler::registPipe client register sucessfull ProcID: 258 ProcHandle: 772"));
    oExpected.body(word32(static_cast<unsigned int>(-9)));
    EXPECT_EQ(oExpected.wire(), answerTo(oRequest.wire())) << "the key is taken";
    EXPECT_TRUE(logHas("the process is register already, procID: 258, procHandle: 772"));
    EXPECT_TRUE(CZolConnMgr::instance()->isConnected(0x0102, 0x0304)) << "the first pipe was touched";
}

TEST_F(FirstMessageTest, ClosesOnAnyOtherWithItsLine)
{
    const auto fnFrame = [](unsigned int uiType, unsigned int uiData)
    {
        SFrame oFrame = registerFrame(9, 1);
        oFrame.m_ucType = static_cast<std::uint8_t>(uiType);
        oFrame.m_ulData = uiData;
        return oFrame.wire();
    };
    const struct
    {
        std::string strBytes;
        const char *pcLine;
    } aCases[] = {
        {"", "receive pdu header failed."},
        {fnFrame(3, 4).substr(0, 27), "receive pdu header failed."},
        {fnFrame(3, 4).substr(0, 31), "receive pdu body failed, procID: 9, procHandle: 1"},
        {fnFrame(1, 5), "receive pdu body failed, procID: 9, procHandle: 1"},
        {fnFrame(3, 3), "the message is error, the size of register message is not correct. procID: 9, procHandle: 1"},
        {fnFrame(3, 5), "the message is error, the size of register message is not correct. procID: 9, procHandle: 1"},
        {fnFrame(4, 4), "the message is error, the message type is not correct. procID: 9, procHandle: 1"},
        {fnFrame(1, 536608769), "the message is error, the size of request message is too big. procID: 9"},
        {fnFrame(1, 536608768), "receive pdu body failed, procID: 9, procHandle: 1"},
        {fnFrame(1, 4), "receive a pipe message successfully."}, // and at this stage nobody takes it
    };
    unsigned int uiLines = 0;
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(&oCase - aCases);
        const unsigned int uiBefore = logCount(oCase.pcLine);
        EXPECT_EQ("", answerTo(oCase.strBytes));
        EXPECT_TRUE(m_oFarEnds.back().waitClosed());
        EXPECT_EQ(uiBefore + 1, logCount(oCase.pcLine));
        EXPECT_EQ(++uiLines, logCount("CZolAcceptorHandler::handle_input "));
    }
    EXPECT_EQ(0U, CZolP2PDesk::instance().countInHand());
}

// A stranger has 5 s for its header and 5 s for its body, however it spreads the bytes.
TEST_F(AcceptorTest, GivesADrippingStrangerFiveSecondsForEachRead)
{
    serve(
        [&]
        {
            CRawPipe oPipe = CRawPipe::connectTo(m_usPort);
            SFrame oRequest = toSink(1);
            oRequest.m_ulData = 536608768; // the largest that is taken at all; only announced
            const auto oBegin = std::chrono::steady_clock::now();
            ASSERT_TRUE(oPipe.send(oRequest.wire()));
            int iBytes = 0;
            while (!oPipe.waitClosed(Milliseconds(300)) && oPipe.send("x") && iBytes < 200)
            {
                ++iBytes;
            }
            const auto oTook = std::chrono::steady_clock::now() - oBegin;
            EXPECT_GE(oTook, std::chrono::milliseconds(4900));
            EXPECT_LT(iBytes, 200) << "as long as it drips";
            EXPECT_TRUE(logHas("receive pdu body failed, procID: 9, procHandle: 1"));
            EXPECT_EQ(0U, logCount("is too big"));
            peer();
        });
}

// Without descriptors the callers in the backlog are sent away; the port neither spins nor stays deaf.
TEST_F(AcceptorTest, SendsCallersAwayWhileNoDescriptorIsLeft)
{
    serve(
        [&]
        {
            std::vector<CRawPipe> oCallers;
            for (int i = 0; i < 5; ++i)
            {
                oCallers.emplace_back(socket(AF_INET, SOCK_STREAM, 0));
            }
            std::vector<int> oTaken;
            for (int iTaken = open("/dev/null", O_RDONLY); iTaken >= 0; iTaken = open("/dev/null", O_RDONLY))
            {
                oTaken.push_back(iTaken);
                if (oTaken.size() == 1)
                {
                    const rlimit oFew{static_cast<rlim_t>(iTaken) + 20, static_cast<rlim_t>(iTaken) + 20};
                    setrlimit(RLIMIT_NOFILE, &oFew);
                }
            }
            for (CRawPipe &oCaller : oCallers)
            {
                sockaddr_in oAddr{};
                oAddr.sin_family = AF_INET;
                oAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                oAddr.sin_port = htons(m_usPort);
                EXPECT_EQ(0, connect(oCaller.socket(), reinterpret_cast<sockaddr *>(&oAddr), sizeof oAddr));
                EXPECT_TRUE(oCaller.waitClosed());
            }
            for (const int iTaken : oTaken)
            {
                close(iTaken);
            }
            peer();
            EXPECT_TRUE(waitUntil([&] { return logCount("accept connection request failed.") == 5; }));
        });
}

// With no descriptor even to send a caller away it waits, and the pipes are served as before.
TEST_F(AcceptorTest, LetsCallersWaitWhomItCannotEvenSendAway)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer looks at memory through a pipe, and needs descriptors of its own for that";
#endif
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            CRawPipe oCaller(socket(AF_INET, SOCK_STREAM, 0));
            rlimit oBefore{};
            getrlimit(RLIMIT_NOFILE, &oBefore);
            const rlimit oNone{3, oBefore.rlim_max};
            ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &oNone));
            const auto oBegin = std::chrono::steady_clock::now();
            sockaddr_in oAddr{};
            oAddr.sin_family = AF_INET;
            oAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            oAddr.sin_port = htons(m_usPort);
            EXPECT_EQ(0, connect(oCaller.socket(), reinterpret_cast<sockaddr *>(&oAddr), sizeof oAddr));
            for (unsigned int i = 1; i <= 50; ++i)
            {
                EXPECT_TRUE(oPeer.send(toSink(i).wire()));
                EXPECT_TRUE(m_oInbox.waitFor(i));
            }
            ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &oBefore));
            EXPECT_EQ(0, oCaller.registerAs(9, 2));
            const auto oTook = std::chrono::steady_clock::now() - oBegin;
            EXPECT_TRUE(logHas("client register sucessfull ProcID: 9 ProcHandle: 2"));
            EXPECT_LE(logCount("accept connection request failed."), 2 + oTook / std::chrono::milliseconds(100));
            EXPECT_GT(logCount("accept connection request failed."), 0U);
        });
}
