// Real processes that talk through the gateway and over direct pipes. The test itself is process 1 of each case.

#include "PeerProtocol.h"
#include "support/Application.h"
#include "support/ChildProcess.h"
#include "support/Installation.h"
#include "zol.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>

using namespace std::chrono_literals;
using namespace zoltest;

namespace
{

const unsigned short SELF = 1;
const unsigned short PEER = 5;

class ProcessesTest : public testing::Test
{
protected:
    ProcessesTest()
    {
        m_oInstallation.writeConfig("VEKAddress = 127.0.0.1\nVEKPort = " + std::to_string(m_usVekPort) +
                                    "\nZOLQueueSize = 26214400\n");
    }

    /// Starts the gateway where zol.cfg expects it. A test that kills it starts it again.
    void startVek()
    {
        m_poVek = std::make_unique<CChildProcess>(
            std::vector<std::string>{ZOL_VEK, "--listen", "127.0.0.1:" + std::to_string(m_usVekPort)});
        ASSERT_TRUE(m_poVek->waitForOutput("vek listening on 127.0.0.1:" + std::to_string(m_usVekPort) + "\n"))
            << m_poVek->errors();
    }

    static std::unique_ptr<CChildProcess> startRunningPeer(std::vector<std::string> oCommand)
    {
        oCommand.insert(oCommand.begin(), ZOL_PEER);
        auto oPeer = std::make_unique<CChildProcess>(oCommand);
        EXPECT_TRUE(oPeer->waitForOutput("running")) << oPeer->output() << oPeer->errors();
        return oPeer;
    }

    static void startSelf()
    {
        ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->initAppMgr(SELF, 0, true, "test", nullptr));
        CZolRunLog::logLevel(CZolRunLog::LEVEL_WARNING);
    }

    /// A call to the peer; the answer, or "" for a failure, whose code goes to *piResult.
    static std::string call(unsigned int uiCommand, const std::string &strBody, int *piResult = nullptr,
                            int iSeconds = 20)
    {
        CZolMsgPdu *poResponse = nullptr;
        const int iResult = zol::sendSyncReq(uiCommand, strBody.data(), static_cast<unsigned int>(strBody.size()),
                                             iSeconds, poResponse, PEER, peer::MANAGER, peer::TASK);
        if (piResult != nullptr)
        {
            *piResult = iResult;
        }
        const std::unique_ptr<CZolMsgPdu> oOwner(iResult == ZOL_OK ? poResponse : nullptr);
        return oOwner ? bodyOf(*oOwner) : "";
    }

    /// Echoes of sizes around every limit on the way: block limit, pool classes, receive buffer, and far beyond.
    static void expectEchoes()
    {
        for (const size_t uiSize :
             {0U, 1U, 476U, 477U, 2012U, 2013U, 8159U, 8160U, 8161U, 16320U, 16321U, 131072U, 3000000U})
        {
            std::string strBody(uiSize, '\0');
            for (size_t uiAt = 0; uiAt < uiSize; ++uiAt)
            {
                strBody[uiAt] = static_cast<char>(uiAt * 7 + uiAt / 8160);
            }
            int iResult = -1;
            const bool bEqual = call(peer::CMD_ECHO, strBody, &iResult) == strBody;
            EXPECT_EQ(ZOL_OK, iResult) << uiSize;
            EXPECT_TRUE(bEqual) << uiSize;
        }
    }

    /// Small and large messages in one stream must arrive complete and in order.
    static void expectOrder()
    {
        const unsigned int uiCount = 20000;
        for (unsigned int uiNumber = 0; uiNumber < uiCount; ++uiNumber)
        {
            const size_t uiLength = uiNumber % 500 == 77 ? 100000 : 5 + uiNumber % 300;
            std::string strBody(uiLength, 'x');
            std::memcpy(strBody.data(), &uiNumber, sizeof uiNumber);
            strBody.back() = static_cast<char>(uiNumber);
            ASSERT_EQ(ZOL_OK,
                      zol::sendReqMsg(peer::CMD_COLLECT, strBody.data(), static_cast<unsigned int>(strBody.size()),
                                      PEER, peer::MANAGER, peer::TASK));
        }
        EXPECT_EQ(std::to_string(uiCount) + " 0", call(peer::CMD_COLLECTED, ""));
    }

    CInstallation m_oInstallation;
    const unsigned short m_usVekPort = freePort();
    std::unique_ptr<CChildProcess> m_poVek;
};

} // namespace

TEST_F(ProcessesTest, TalkThroughTheGateway)
{
    startVek();
    const auto oPeer = startRunningPeer({"5", "none"});
    startSelf();
    runApplication(
        []
        {
            expectEchoes();
            expectOrder();
        });
    oPeer->signal(SIGTERM);
    EXPECT_EQ(0, oPeer->exitCode());
    EXPECT_EQ("", oPeer->errors());
    m_poVek->signal(SIGTERM);
    EXPECT_EQ(0, m_poVek->exitCode());
}

TEST_F(ProcessesTest, TalkOverADirectPipeWithoutAGateway)
{
    const unsigned short usPort = freePort();
    const auto oPeer = startRunningPeer({"5", "none", "port=" + std::to_string(usPort)});
    startSelf();
    runApplication(
        [usPort]
        {
            int iResult = ZOL_OK;
            call(peer::CMD_ECHO, "x", &iResult);
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, iResult) << "no way to the peer yet";
            ASSERT_EQ(ZOL_OK, zol::connect("127.0.0.1", usPort));
            expectEchoes();
            expectOrder();
        });
}

// Before handleEvents the main thread may call other processes; it runs the reactor itself meanwhile.
TEST_F(ProcessesTest, CallEachOtherAtTheInitialStage)
{
    startVek();
    const auto oPeer = startRunningPeer({"5", "none"});
    startSelf();
    expectEchoes();
    runApplication([] { expectEchoes(); });
}

// The gateway starts after the processes, and later is killed under them and started again: calls are refused at once
// while it is gone, and work as soon as both have connected, the test by its poll or its own call, the peer by its
// poll.
TEST_F(ProcessesTest, FindAGatewayThatStartsLateAndDies)
{
    const auto oPeer = startRunningPeer({"5", "none"});
    startSelf();
    runApplication(
        [this]
        {
            int iResult = ZOL_OK;
            call(peer::CMD_ECHO, "early", &iResult);
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, iResult);
            startVek();
            EXPECT_TRUE(waitUntil([] { return call(peer::CMD_ECHO, "late", nullptr, 1) == "late"; }, 60s));
            m_poVek->signal(SIGKILL);
            EXPECT_EQ(128 + SIGKILL, m_poVek->exitCode());
            EXPECT_TRUE(waitUntil(
                [&] { return call(peer::CMD_ECHO, "gone", &iResult, 1) != "gone" && iResult == ZOL_ERR_INTERRUPTED; }));
            startVek();
            EXPECT_EQ(ZOL_OK, zol::connect2VEK());
            EXPECT_EQ(ZOL_OK, zol::connect2VEK()) << "it is up already";
            EXPECT_TRUE(waitUntil([] { return call(peer::CMD_ECHO, "after", nullptr, 1) == "after"; }, 60s));
            expectEchoes();
        });
}

TEST_F(ProcessesTest, GetHandlesAndCannotStartUnderAKeyThatIsUp)
{
    startVek();
    const auto oFirst = startRunningPeer({"5", "0"});
    const auto oSecond = startRunningPeer({"5", "0"});
    EXPECT_NE(oFirst->output(), oSecond->output()) << "each has a handle of its own";
    EXPECT_EQ(std::string::npos, (oFirst->output() + oSecond->output()).find("handle 0\n"));
    const auto oOwn = startRunningPeer({"6", "3"});
    EXPECT_NE(std::string::npos, oOwn->output().find("handle 3\n"));
    CChildProcess oDouble({ZOL_PEER, "6", "3"});
    EXPECT_EQ(1, oDouble.exitCode());
    EXPECT_EQ(1U, countOf(m_oInstallation.logText(), "failed to connect to vEK, return code: -9\n"));
    EXPECT_TRUE(oOwn->isRunning());
}

TEST_F(ProcessesTest, LeaveWithTheCodeOfMain)
{
    for (const int iSignal : {SIGTERM, SIGINT})
    {
        const auto oPeer = startRunningPeer({"5", "none", "code=7"});
        oPeer->signal(iSignal);
        EXPECT_EQ(7, oPeer->exitCode());
        EXPECT_EQ(1U, countOf(oPeer->output(), "handleEvents() exit.\n"));
        EXPECT_EQ(1U, countOf(oPeer->output(), iSignal == SIGTERM ? "signal SIGTERM\n" : "signal SIGINT\n"));
        EXPECT_EQ("", oPeer->errors()) << "nothing stray on standard error";
    }
}

// Two processes that send each other more than either can take: every queue on the way is full when they are told to
// end, and every thread that waits for room has to notice.
TEST_F(ProcessesTest, EndUnderFullLoad)
{
    startVek();
    const auto oFirst = startRunningPeer({"5", "none", "flood=6", "slow=1000"});
    const auto oSecond = startRunningPeer({"6", "none", "flood=5", "slow=1000"});
    EXPECT_TRUE(oFirst->waitForOutput("stalled", 60s));
    EXPECT_TRUE(oSecond->waitForOutput("stalled", 60s));
    oFirst->signal(SIGTERM);
    oSecond->signal(SIGTERM);
    EXPECT_EQ(0, oFirst->exitCode());
    EXPECT_EQ(0, oSecond->exitCode());
    m_poVek->signal(SIGTERM);
    EXPECT_EQ(0, m_poVek->exitCode());
}
