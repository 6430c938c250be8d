// Pipes of a started process: what the parts of the transport do together. Cycles of the poll are driven from a clock
// that the test moves; the thread of the manager, with its first cycle after 20 s, comes too late to meddle.

#include "transport/TransportTest.h"
#include "transport/ZolSendMsgTask.h"
#include "transport/ZolSocket.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>

using namespace zoltest;

namespace
{

class ConnMgrTest : public TransportTest
{
protected:
    ConnMgrTest() : m_lNow(zolsocket::wallSeconds()) {}

    // One cycle lSeconds after the last one, or at the start.
    void cycle(long lSeconds = 20)
    {
        m_lNow += lSeconds;
        mgr().runPollCycle(m_lNow, m_lLastPoll);
    }

    static CZolConnMgr &mgr() { return *CZolConnMgr::instance(); }

    static CZolConnRef pipeTo(unsigned short usProc, unsigned short usHandle)
    {
        const std::unique_ptr<CZolMsgPdu> poPdu(newMessage(usProc, usHandle, 0, ""));
        return mgr().chooseConnection(poPdu.get());
    }

    static CZolConnection::EnumPipeType typeTo(unsigned short usProc, unsigned short usHandle)
    {
        return pipeTo(usProc, usHandle)->getPipeType();
    }

    static bool send(unsigned short usProc, unsigned short usHandle, unsigned int uiCmd)
    {
        CZolMsgPdu *poPdu = newMessage(usProc, usHandle, uiCmd, "body");
        return CZolAppMgr::instance()->sendAsynMsg(poPdu) == 0;
    }

    static void sendPdu(CZolMsgPdu *poPdu) { EXPECT_EQ(0, CZolAppMgr::instance()->sendAsynMsg(poPdu)); }

    long m_lNow;
    long m_lLastPoll = 0;
};

std::size_t openDescriptors()
{
    const std::filesystem::directory_iterator oBegin("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(oBegin, std::filesystem::directory_iterator()));
}

// Reads the frames of one message: its blocks, joined, or itself.
std::string readJoined(CRawPipe &oPeer, std::vector<SFrame> &oFrames)
{
    std::string strBody;
    SFrame oFrame;
    do
    {
        if (!oPeer.readFrame(oFrame))
        {
            return "the pipe ended";
        }
        strBody += oFrame.m_strBody;
        oFrames.push_back(oFrame);
    } while (oFrame.m_usSegment != 0);
    return strBody;
}

} // namespace

TEST_F(ConnMgrTest, RunsAloneWithoutAGateway)
{
    ASSERT_EQ(0, start("VEKPort = 7100\n"));
    EXPECT_FALSE(mgr().isConnected(0, 0));
    EXPECT_EQ(CONN_STATUS_DOWN, CZolAppMgr::instance()->statusOfConnToVek());
    run(
        [&]
        {
            CZolMsgPdu *poPdu = newMessage(9, 0, 1, "");
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, CZolAppMgr::instance()->sendAsynMsg(poPdu));
            cycle();
            EXPECT_TRUE(logHas("fail to build a connect because the remote address is invalid."));
            EXPECT_EQ("\nzOL Connection List: \n    OppProcID: 0, OppProcHandle: 0, PipeType: 0, OppAddr: 0.0.0.0, "
                      "OppPortNumber: 0, PipeStatus: 0\n",
                      mgr().dumpConnections());
            EXPECT_EQ(-1, mgr().setVEKAddress("no such host", 1));
            EXPECT_TRUE(logHas("CZolConnection::setRemoteAddr Invalid vek address. IP: no such host Port: 1"));
            CRawGateway oGateway;
            EXPECT_EQ(-5, CZolAppMgr::instance()->registerSubscribe(77, COLLECTOR, SINK));
            EXPECT_EQ(0, mgr().setVEKAddress("127.0.0.1", oGateway.port()));
            cycle();
            EXPECT_TRUE(mgr().isConnected(0, 0));
            EXPECT_EQ(CONN_STATUS_UP, CZolAppMgr::instance()->statusOfConnToVek());
            EXPECT_EQ(1U, oGateway.countOfType(11)) << "the subscription was not made up for";
        });
}

TEST_F(ConnMgrTest, StopsAStartThatTheGatewayRefuses)
{
    CRawGateway oGateway;
    oGateway.setStatus(-9);
    EXPECT_EQ(-1, start(oGateway.config()));
    EXPECT_TRUE(logHas("CZolAppMgr::initAppMgr failed to connect to vEK, return code: -9"));
    // a start that is tried again leaves nothing of the first one behind
    oGateway.setStatus(0);
    EXPECT_EQ(0, CZolAppMgr::instance()->initAppMgr(OWN_PROC, OWN_HANDLE, false, nullptr, nullptr));
    EXPECT_EQ(1U, countOf(mgr().dumpConnections(), "OppProcID"));
}

TEST_F(ConnMgrTest, RefusesAPortThatIsNone)
{
    CRawGateway oGateway;
    const std::string strBeyond = std::to_string(65536 + oGateway.port()); // the low 16 bits are the gateway's
    EXPECT_EQ(-1, start("VEKAddress = 127.0.0.1\nVEKPort = " + strBeyond + "\n"));
    for (const std::string &strPort : {strBeyond, "4294967296" + std::to_string(oGateway.port()), std::string("-1")})
    {
        zol::saveResWithKey("VEKPort", strPort);
        EXPECT_EQ(-1, CZolAppMgr::instance()->initAppMgr(OWN_PROC, OWN_HANDLE, false, nullptr, nullptr)) << strPort;
    }
    EXPECT_TRUE(logHas("CZolConnMgr::initConn2Vek the vEK address is invalid. IP: 127.0.0.1 Port: -1\n"));
    EXPECT_EQ(2u, logCount("the vEK address is invalid. IP: 127.0.0.1 Port: " + strBeyond + "\n"));
    zol::saveResWithKey("VEKPort", std::to_string(oGateway.port()) + " behind the wall");
    EXPECT_EQ(0, CZolAppMgr::instance()->initAppMgr(OWN_PROC, OWN_HANDLE, false, nullptr, nullptr));
    EXPECT_TRUE(mgr().isConnected(0, 0));
}

TEST_F(ConnMgrTest, TakesTheHandleThatEachRegistrationAllocates)
{
    CRawGateway oGateway;
    oGateway.setAllocated(501);
    ASSERT_EQ(0, start(oGateway.config(), 0));
    EXPECT_EQ(501, mgr().getProcHandle());
    run(
        [&]
        {
            oGateway.setAllocated(502);
            oGateway.dropAll();
            ASSERT_TRUE(waitConnected(0, 0, false));
            cycle();
            EXPECT_EQ(502, mgr().getProcHandle());
            EXPECT_EQ(0, oGateway.frames().back().m_usSrcHandle) << "it asked for the handle that it had";
            // and registers with a peer under 0 all the same
            CRawListener oPeer;
            SFrame oRequest;
            std::thread oServer([&] { oPeer.acceptPipe(oRequest, 9, 1); });
            EXPECT_EQ(0, mgr().initConn("127.0.0.1", oPeer.port(), CZolConnection::CONN_INITIATIVE));
            oServer.join();
            EXPECT_EQ(0, oRequest.m_usSrcHandle);
        });
}

TEST_F(ConnMgrTest, DoesNotAskAPeerForAHandle)
{
    ASSERT_EQ(0, start("", 0));
    CRawListener oPeer;
    EXPECT_EQ(-1, mgr().initConn("127.0.0.1", oPeer.port(), CZolConnection::CONN_INITIATIVE));
    EXPECT_FALSE(oPeer.accept(Milliseconds(0)).isOpen());
    EXPECT_TRUE(logHas("forbidden to request opposite app to allocate prochandle. LocalProcID 7LocalProcHandle 0"));
}

TEST_F(ConnMgrTest, ReopensAPipeUnderItsNewSocketAndReplaysSubscriptions)
{
    CRawGateway oGateway;
    ASSERT_EQ(0, start(oGateway.config()));
    run(
        [&]
        {
            EXPECT_EQ(0, CZolAppMgr::instance()->registerSubscribe(10, COLLECTOR, SINK));
            for (int iTurn = 0; iTurn < 3; ++iTurn)
            {
                const std::size_t uiBefore = oGateway.frames().size();
                oGateway.dropAll();
                ASSERT_TRUE(waitConnected(0, 0, false));
                cycle();
                ASSERT_TRUE(mgr().isConnected(9, 0));
                const auto oFrames = oGateway.frames();
                ASSERT_EQ(uiBefore + 2, oFrames.size());
                EXPECT_EQ(3, oFrames[uiBefore].m_ucType);
                EXPECT_EQ(word32(COLLECTOR) + word32(SINK) + word32(10), oFrames[uiBefore + 1].m_strBody);
                oGateway.send(toSink(static_cast<unsigned int>(iTurn)));
                ASSERT_TRUE(m_oInbox.waitFor(static_cast<std::size_t>(iTurn) + 1)) << "nobody reads the new socket";
            }
        });
}

TEST_F(ConnMgrTest, ConnectsAndShutsTheGatewayPipeOnDemand)
{
    CRawGateway oGateway;
    ASSERT_EQ(0, start(oGateway.config()));
    run(
        [&]
        {
            EXPECT_EQ(0, mgr().connect2VEK()); // up already: nothing is entered twice
            EXPECT_EQ(1U, countOf(mgr().dumpConnections(), "PipeType: 0"));
            mgr().setVEKAddrStatus(false);
            mgr().shutVEKConnect();
            EXPECT_FALSE(mgr().isConnected(0, 0));
            cycle();
            EXPECT_FALSE(mgr().isConnected(0, 0)) << "it was told not to come back";
            mgr().shutVEKConnect();
            EXPECT_EQ(-1, mgr().connect2VEK());
            mgr().setVEKAddrStatus(true);
            EXPECT_EQ(0, mgr().connect2VEK());
            cycle();
            EXPECT_EQ(1U, countOf(mgr().dumpConnections(), "PipeType: 0"));
            EXPECT_TRUE(waitUntil([&] { return oGateway.pipes() == 1; }));
            oGateway.send(toSink(1));
            EXPECT_TRUE(m_oInbox.waitFor(1));
        });
}

TEST_F(ConnMgrTest, KeepsTryingAPeerThatWasNotThere)
{
    ASSERT_EQ(0, start());
    const unsigned short usPort = freePort();
    EXPECT_EQ(-1, mgr().initConn("127.0.0.1", usPort, CZolConnection::CONN_INITIATIVE));
    EXPECT_FALSE(mgr().isProcRegistered(9, 1));
    cycle();
    CRawListener oListener(usPort);
    SFrame oRequest;
    CRawPipe oPeer;
    std::thread oServer([&] { oPeer = oListener.acceptPipe(oRequest, 9, 1); });
    cycle();
    oServer.join();
    EXPECT_TRUE(mgr().isProcRegistered(9, 1));
    EXPECT_EQ(CZolConnection::CONN_INITIATIVE, typeTo(9, 1));
}

// Pipes come and go by the hundred, closed from every side, while messages flow on one that must not be touched: a
// descriptor that is used again must never be taken for its last owner.
TEST_F(ConnMgrTest, SurvivesAChurnOfPipes)
{
    serve(
        [&]
        {
            CRawPipe oSteady = peer(8, 1);
            const std::size_t uiDescriptors = openDescriptors();
            std::atomic<bool> bEnd{false};
            std::thread oCloser(
                [&]
                {
                    for (long i = 0; !bEnd; ++i)
                    {
                        const CZolConnRef oConn = pipeTo(9, static_cast<unsigned short>(i % 4));
                        if (oConn->getPipeType() == CZolConnection::CONN_PASSIVE)
                        {
                            mgr().closePipe(oConn.get(), oConn->getLife());
                        }
                    }
                });
            std::thread oSender(
                [&]
                {
                    while (!bEnd)
                    {
                        send(9, 2, 1);
                        std::this_thread::yield();
                    }
                });
            std::vector<std::thread> oPeers;
            for (unsigned short usHandle = 0; usHandle < 4; ++usHandle)
            {
                oPeers.emplace_back(
                    [&, usHandle]
                    {
                        for (int i = 0; i < 60; ++i)
                        {
                            CRawPipe oPipe = CRawPipe::connectTo(m_usPort);
                            oPipe.registerAs(9, usHandle);
                            oPipe.send(toSink(1, "churn").wire() + toSink(2).wire().substr(0, 20));
                            if (i % 3 == 0)
                            {
                                oPipe.resetOnClose();
                            }
                        }
                    });
            }
            for (std::thread &oThread : oPeers)
            {
                oThread.join();
            }
            bEnd = true;
            oCloser.join();
            oSender.join();
            m_oInbox.clear();
            ASSERT_TRUE(oSteady.send(toSink(4711).wire()));
            EXPECT_TRUE(waitUntil([&] { return m_oInbox.count() > 0 && m_oInbox.all().back().m_ulCmd == 4711; }));
            EXPECT_TRUE(mgr().isConnected(8, 1));
            EXPECT_TRUE(waitUntil([&] { return countOf(mgr().dumpConnections(), "OppProcID: 9") == 0; }));
            EXPECT_TRUE(waitUntil([&] { return openDescriptors() <= uiDescriptors; })) << "sockets were left open";
        });
}

// The one thread of a manager takes pipes down and opens them while the reactor waits on the full queue of that very
// manager: neither may wait for the other.
TEST_F(ConnMgrTest, LetsATaskControlPipesWhileItsOwnQueueIsFull)
{
    CRawGateway oGateway;
    ASSERT_EQ(0, start(oGateway.config() + "ZOLQueueSize = 1\n"));
    listen();
    run(
        [&]
        {
            CRawPipe oPeer = peer();
            std::unique_lock<std::mutex> oClosed(m_oGate); // the task is in its handler
            std::thread oFlood(
                [&]
                {
                    const std::string strFrame = toSink(1, std::string(1 << 20, 'x')).wire();
                    for (int i = 0; i < 40 && oPeer.send(strFrame); ++i)
                    {
                    }
                });
            CZolTaskMgr *poManager = CZolAppMgr::instance()->findTaskMgr(COLLECTOR);
            ASSERT_TRUE(waitUntil([&] { return poManager->getBytesOfBufferMsg() >= 26214400; }));
            EXPECT_LT(poManager->getBytesOfBufferMsg(), 26214400U + 2 * (1 << 20)) << "it went on reading";
            // what such a handler would do, on its thread's behalf
            mgr().shutVEKConnect(); // nothing makes room until all of this is done
            EXPECT_EQ(0, mgr().connect2VEK());
            const CZolConnRef oConn = pipeTo(9, 1);
            ACE_HANDLE oHandle = oConn->getHandle();
            mgr().closePipe(oConn.get(), oConn->getLife()); // the pipe that the reactor is reading
            EXPECT_FALSE(mgr().isProcRegistered(9, 1));
            mgr().recvMsg(oHandle); // the reactor may still come with what it saw before
            mgr().closeConnection(oHandle);
            ACE_HANDLE oForeign = 65000;
            mgr().recvMsg(oForeign); // of no pipe at all
            EXPECT_TRUE(logHas("can not find connection by handle. Handle: 65000"));
            EXPECT_EQ(1U, logCount("can not find connection by handle.")) << "an error line for a close of our own";
            oClosed.unlock();
            oFlood.join();
            CRawPipe oAgain = peer();
            m_oInbox.clear();
            ASSERT_TRUE(oAgain.send(toSink(4711).wire()));
            EXPECT_TRUE(waitUntil([&] { return m_oInbox.count() > 0 && m_oInbox.all().back().m_ulCmd == 4711; }));
        });
}

TEST_F(ConnMgrTest, AnswersAHelloOnceOnAPassivePipe)
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
        });
}

// The list is limited in bytes; a message may carry it beyond, and the next sender waits until the list was taken.
TEST_F(ConnMgrTest, MakesSendersWaitWhileTheListIsFull)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            const auto uiCount = 60 + 2 * static_cast<unsigned int>(kernelBuffers() >> 20);
            std::atomic<unsigned int> uiAccepted{0};
            std::thread oSender(
                [&]
                {
                    for (unsigned int i = 0; i < uiCount; ++i)
                    {
                        sendPdu(newMessage(9, 1, i, std::string(1 << 20, 'x')));
                        ++uiAccepted;
                    }
                });
            // What the send thread holds, what waits behind it, and what the two sockets took: not all of it. While the
            // sockets still take some, the list fills and is taken away again.
            std::string strDump;
            EXPECT_TRUE(waitUntil(
                [&]
                {
                    strDump = CZolSendMsgTask::instance()->dumpMsgList();
                    return countOf(strDump, ", SrcMod: 1, SrcSubMod: 1, DstPID: 9, DstHdl: 1, DstMod: 1, DstSubMod: 1, "
                                            "DataLen: 1048576\n") == 25;
                }));
            EXPECT_LE(CZolSendMsgTask::instance()->bytesWaiting(), 26214400U + (1 << 20) + 28);
            EXPECT_LT(uiAccepted, uiCount);
            EXPECT_EQ(0U, strDump.find("\nCZolSendMsgTask.m_oMsgList:\n    Ver: 1, Type: 1, Cmd: ")) << strDump;
            for (unsigned int i = 0; i < uiCount; ++i)
            {
                std::vector<SFrame> oFrames;
                ASSERT_EQ(1U << 20, readJoined(oPeer, oFrames).size());
                ASSERT_EQ(i, oFrames[0].m_ulCmd);
            }
            oSender.join();
        },
        "ZOLQueueSize = 1\n"); // raised to the least, 26214400
}

// A peer that is stopped takes the send thread along until its pipe goes; then the others get theirs at once.
TEST_F(ConnMgrTest, DeliversToOthersOnceAStalledPeerIsGone)
{
    serve(
        [&]
        {
            CRawPipe oStalled = peer();
            CRawPipe oOther = peer(10, 1);
            for (unsigned int i = 0; i < 20; ++i)
            {
                sendPdu(newMessage(9, 1, i, std::string(1 << 20, 'x')));
            }
            for (unsigned int i = 0; i < 10; ++i)
            {
                sendPdu(newMessage(10, 1, i, "for the other"));
            }
            SFrame oFrame;
            ASSERT_TRUE(oStalled.readFrame(oFrame)); // the big ones are on their way
            CZolConnMgr *poMgr = CZolConnMgr::instance();
            long lNow = zolsocket::wallSeconds();
            long lLastPoll = 0;
            poMgr->runPollCycle(lNow, lLastPoll); // the first one is not trusted
            const std::unique_ptr<CZolMsgPdu> poToStalled(newMessage(9, 1, 0, ""));
            poMgr->chooseConnection(poToStalled.get())->setLastRecvTime(lNow - 160);
            poMgr->runPollCycle(lNow + 20, lLastPoll);
            for (unsigned int i = 0; i < 10; ++i)
            {
                ASSERT_TRUE(oOther.readFrame(oFrame));
                EXPECT_EQ(i, oFrame.m_ulCmd);
            }
            EXPECT_TRUE(oStalled.waitClosed());
            EXPECT_FALSE(poMgr->isConnected(9, 1));
            EXPECT_TRUE(poMgr->isConnected(10, 1));
        });
}
