// The way out: what the library writes on a pipe for messages of every size, in which order, and what it says about
// those that it could not send.

#include "transport/TransportTest.h"
#include "transport/ZolSendMsgTask.h"
#include "transport/ZolSocket.h"

#include <gtest/gtest.h>

using namespace zoltest;

namespace
{

class SendPathTest : public TransportTest
{
protected:
    static void send(CZolMsgPdu *poPdu) { EXPECT_EQ(0, CZolAppMgr::instance()->sendAsynMsg(poPdu)); }
};

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

// The list is limited in bytes; a message may carry it beyond, and the next sender waits until the list was taken.
TEST_F(SendPathTest, MakesSendersWaitWhileTheListIsFull)
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
                        send(newMessage(9, 1, i, std::string(1 << 20, 'x')));
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
TEST_F(SendPathTest, DeliversToOthersOnceAStalledPeerIsGone)
{
    serve(
        [&]
        {
            CRawPipe oStalled = peer();
            CRawPipe oOther = peer(10, 1);
            for (unsigned int i = 0; i < 20; ++i)
            {
                send(newMessage(9, 1, i, std::string(1 << 20, 'x')));
            }
            for (unsigned int i = 0; i < 10; ++i)
            {
                send(newMessage(10, 1, i, "for the other"));
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
