// The listening port: what a stranger can say first, and what it gets.

#include "transport/TransportTest.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace zoltest;

namespace
{

class AcceptorTest : public TransportTest
{
protected:
    // A stranger that says this first is sent away without a word.
    void expectRefused(const std::string &strBytes)
    {
        CRawPipe oPipe = CRawPipe::connectTo(m_usPort);
        ASSERT_TRUE(oPipe.send(strBytes));
        EXPECT_EQ("", oPipe.read(1));
    }
};

} // namespace

TEST_F(AcceptorTest, AnswersARegistrationByteForByte)
{
    serve(
        [&]
        {
            CRawPipe oPipe = CRawPipe::connectTo(m_usPort);
            SFrame oRequest = registerFrame(0x0102, 0x0304, 1);
            oRequest.m_ucVersion = 5;
            oRequest.m_usSegment = 6;
            oRequest.m_ulCmd = 0x11223344;
            oRequest.m_usDestProc = 66;
            oRequest.m_ucSrcModule = 7;
            oRequest.m_ucDestModule = 8;
            oRequest.m_usSrcTask = 9;
            oRequest.m_usDestTask = 10;
            ASSERT_TRUE(oPipe.send(oRequest.wire()));
            SFrame oResponse;
            ASSERT_TRUE(oPipe.readFrame(oResponse));
            SFrame oExpected = registerFrame(OWN_PROC, OWN_HANDLE, 0);
            oExpected.m_ucVersion = 5;
            oExpected.m_ulCmd = 0x11223344;
            oExpected.m_usDestProc = 0x0102;
            oExpected.m_usDestHandle = 0x0304;
            oExpected.m_ucSrcModule = 8;
            oExpected.m_ucDestModule = 7;
            oExpected.m_usSrcTask = 10;
            oExpected.m_usDestTask = 9;
            EXPECT_EQ(oExpected.wire(), oResponse.wire());
            EXPECT_TRUE(CZolConnMgr::instance()->isConnected(0x0102, 0x0304)) << "answered before it was entered";
            EXPECT_TRUE(
                logHas("CZolAcceptorHandler::registPipe client register sucessfull ProcID: 258 ProcHandle: 772"));
        });
}

TEST_F(AcceptorTest, RefusesAKeyThatIsTaken)
{
    serve(
        [&]
        {
            CRawPipe oFirst = peer(9, 1);
            for (const std::uint16_t usProc : std::initializer_list<std::uint16_t>{9, 0})
            {
                CRawPipe oSecond = CRawPipe::connectTo(m_usPort);
                EXPECT_EQ(-9, oSecond.registerAs(usProc, usProc == 9 ? 1 : 0)) << "0, 0 is the gateway's";
                EXPECT_TRUE(oSecond.waitClosed());
            }
            EXPECT_TRUE(logHas("the process is register already, procID: 9, procHandle: 1"));
            ASSERT_TRUE(oFirst.send(toSink(1).wire()));
            EXPECT_TRUE(m_oInbox.waitFor(1)) << "the first pipe was touched";
            EXPECT_EQ(0, CRawPipe::connectTo(m_usPort).registerAs(9, 2)) << "another handle is another key";
        });
}

TEST_F(AcceptorTest, ClosesOnAnyOtherFirstMessage)
{
    serve(
        [&]
        {
            for (const unsigned int uiLength : {0U, 3U, 5U, 0xFFFFFFFFU})
            {
                SFrame oRegister = registerFrame(9, 1);
                oRegister.m_ulData = uiLength;
                expectRefused(oRegister.wire());
            }
            for (const unsigned int uiType : {0U, 2U, 4U, 5U, 6U, 11U, 255U})
            {
                SFrame oOther = toSink(1);
                oOther.m_ucType = static_cast<std::uint8_t>(uiType);
                expectRefused(oOther.wire());
            }
            SFrame oHuge = toSink(1);
            oHuge.m_ulData = 536608769;
            expectRefused(oHuge.wire());
            EXPECT_TRUE(
                logHas("the message is error, the size of request message is too big. procID: 9, procHandle: 1"));
            EXPECT_EQ(4U, logCount("the message is error, the size of register message is not correct. procID: 9"));
            EXPECT_EQ(7U, logCount("the message is error, the message type is not correct. procID: 9"));
            peer();
        });
}

TEST_F(AcceptorTest, OutlivesStrangersThatCutTheirFirstMessage)
{
    serve(
        [&]
        {
            const std::string strRegister = registerFrame(9, 1).wire();
            const std::string strRequest = toSink(1, "request").wire();
            for (const std::string &strWhole : {strRegister, strRequest})
            {
                for (std::size_t uiCut = 0; uiCut < strWhole.size(); ++uiCut)
                {
                    CRawPipe oPipe = CRawPipe::connectTo(m_usPort);
                    ASSERT_TRUE(oPipe.send(strWhole.substr(0, uiCut)));
                    if (uiCut % 2 == 0)
                    {
                        oPipe.resetOnClose();
                    }
                }
            }
            peer();
            EXPECT_TRUE(logHas("receive pdu header failed."));
            EXPECT_TRUE(logHas("receive pdu body failed, procID: 9, procHandle: 1"));
        });
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
