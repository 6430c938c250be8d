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

CZolMemList listOf(const std::vector<CZolMsgPdu *> &oMessages)
{
    CZolMemList oList;
    for (CZolMsgPdu *poPdu : oMessages)
    {
        oList.insert(zolBlockOf(poPdu));
    }
    return oList;
}

} // namespace

TEST_F(SendPathTest, CutsWhatIsLargerThanOneBlock)
{
    serve(
        [&]
        {
            const struct
            {
                std::size_t uiData;
                std::vector<std::size_t> oLengths; // of the frames, headers included
            } aCases[] = {
                {0, {28}},
                {8160, {8188}},
                {8161, {8188, 29}},
                {2 * 8160, {8188, 8188}},
                {2 * 8160 + 1, {8188, 8188, 29}},
                {1000000, {}},
            };
            CRawPipe oPeer = peer();
            for (const auto &oCase : aCases)
            {
                SCOPED_TRACE(testing::Message() << oCase.uiData << " bytes");
                const std::string strBody = pattern(oCase.uiData);
                for (const unsigned char ucType : {CZolMsgPdu::MSG_REQUEST, CZolMsgPdu::MSG_RESPONSE})
                {
                    send(newMessage(9, 1, 4711, strBody, ucType));
                    std::vector<SFrame> oFrames;
                    ASSERT_TRUE(readJoined(oPeer, oFrames) == strBody);
                    const std::size_t uiCount = (oCase.uiData + 8159) / 8160;
                    ASSERT_EQ(std::max<std::size_t>(uiCount, 1), oFrames.size());
                    for (std::size_t i = 0; i < oFrames.size(); ++i)
                    {
                        const SFrame &oFrame = oFrames[i];
                        EXPECT_EQ(i + 1 == oFrames.size() ? 0 : i + 1, oFrame.m_usSegment);
                        EXPECT_EQ(oFrames.size() == 1 ? ucType : ucType + 5, oFrame.m_ucType);
                        EXPECT_EQ(4711U, oFrame.m_ulCmd);
                        EXPECT_EQ(OWN_PROC, oFrame.m_usSrcProc);
                        EXPECT_EQ(9, oFrame.m_usDestProc);
                        EXPECT_EQ(28, oFrame.m_usHeader);
                        if (!oCase.oLengths.empty())
                        {
                            EXPECT_EQ(oCase.oLengths[i], oFrame.wire().size());
                        }
                    }
                }
            }
        });
}

// A process without a gateway: every send fails, and the line of each failure names the messages of its batch.
TEST_F(SendPathTest, PacksBatchesUpToTheBlockLimit)
{
    ASSERT_EQ(0, start());
    const auto fnBatches = [&](const std::vector<CZolMsgPdu *> &oMessages)
    {
        const unsigned int uiBefore = logCount("send message failed:\n");
        CZolMemList oList = listOf(oMessages);
        CZolConnMgr::instance()->processMsg(&oList);
        EXPECT_EQ(0U, oList.m_ulCount);
        // the flush of the log is every 2 s: a line of our own behind them tells that they are all there
        static unsigned int uiMark = 0;
        const std::string strMark = "mark " + std::to_string(++uiMark) + ".";
        CZolRunLog::error(strMark.c_str());
        EXPECT_TRUE(logHas(strMark));
        return logCount("send message failed:\n") - uiBefore;
    };
    const auto fnOf = [](std::size_t uiTotal, unsigned short usProc = 9)
    { return newMessage(usProc, 1, 1, std::string(uiTotal - 28, 'x')); };
    EXPECT_EQ(1U, fnBatches({fnOf(28), fnOf(28), fnOf(28), fnOf(28)}));
    EXPECT_EQ(1U, fnBatches({fnOf(8188)}));
    EXPECT_EQ(1U, fnBatches({fnOf(8000), fnOf(188)}));
    EXPECT_EQ(2U, fnBatches({fnOf(8000), fnOf(200), fnOf(200)}));
    EXPECT_EQ(1U, fnBatches({fnOf(28, 10), fnOf(28, 11), fnOf(28, 10), fnOf(28, 11)})) << "all go to the gateway";
    EXPECT_EQ(2U, fnBatches({fnOf(28), fnOf(20000), fnOf(28)})) << "the big one flushes what is in front of it";
    EXPECT_TRUE(logHas("    ver:1, type:1, cmd:1, src:1,1, dst:9,1,1,1, head:28, data:0    ver:1"));
    EXPECT_TRUE(logHas("send block 1 failed, ver:1, type:6, cmd:1, src:1,1, dst:9,1,1,1, error: -1"));
    EXPECT_TRUE(logHas("send big message failed, ver:1, type:1, cmd:1, src:1,1, dst:9,1,1,1, head:28, data:19972, "
                       "error: -1"));
}

TEST_F(SendPathTest, RefusesWhatCannotBeCut)
{
    ASSERT_EQ(0, start());
    CZolConnMgr *poMgr = CZolConnMgr::instance();
    EXPECT_EQ(-1, poMgr->processBigMsg(nullptr));
    const std::string strBody(20000, 'x');
    const struct
    {
        const char *pcName;
        unsigned char ucType;
        unsigned short usHeader;
        unsigned int uiData;
        int iResult;
    } aCases[] = {
        {"a type without blocks", CZolMsgPdu::MSG_GET_ADDRESS, 28, 20000, ZOL_ERR_MSG_TYPE},
        {"a header without room", CZolMsgPdu::MSG_REQUEST, 4095, 20000, -1},
        {"more blocks than numbers", CZolMsgPdu::MSG_REQUEST, 28, 534773761, -1}, // announced, not allocated
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        CZolMsgPdu *poPdu = newMessage(9, 1, 5, strBody, oCase.ucType);
        poPdu->m_usHeaderLength = oCase.usHeader;
        poPdu->m_ulDataLength = oCase.uiData;
        EXPECT_EQ(oCase.iResult, poMgr->processBigMsg(poPdu));
        EXPECT_EQ(oCase.ucType, poPdu->m_ucMsgType);
        EXPECT_EQ(oCase.uiData, poPdu->m_ulDataLength);
        CZolMemList oList = listOf({poPdu});
        poMgr->processMsg(&oList);
    }
    EXPECT_TRUE(logHas("CZolSendMsgTask::processBigMsg invalid message type 15!"));
    EXPECT_TRUE(logHas("head:28, data:20000, error: -7"));
    EXPECT_TRUE(logHas("data:534773761, error: -1"));
}

TEST_F(SendPathTest, DropsAMessageWithoutAHeader)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            for (const std::uint16_t usHeader : std::initializer_list<std::uint16_t>{0, 27})
            {
                CZolMsgPdu *poBroken = newMessage(9, 1, 1, "body");
                poBroken->m_usHeaderLength = usHeader;
                send(poBroken);
            }
            send(newMessage(9, 1, 2, "good"));
            SFrame oFrame;
            ASSERT_TRUE(oPeer.readFrame(oFrame));
            EXPECT_EQ(2U, oFrame.m_ulCmd);
        });
}

TEST_F(SendPathTest, SendsSubscriptionsAndMulticastsToTheGateway)
{
    CRawGateway oGateway;
    ASSERT_EQ(0, start(oGateway.config()));
    listen();
    run(
        [&]
        {
            CRawPipe oPeer = peer();
            for (unsigned char ucType = CZolMsgPdu::MSG_SUBSCRIBE; ucType <= CZolMsgPdu::MSG_GET_ADDRESS; ++ucType)
            {
                if (ucType != CZolMsgPdu::MSG_BIG_MULTICAST)
                {
                    send(newMessage(9, 1, ucType, "x", ucType)); // addressed to the peer all the same
                }
            }
            send(newMessage(9, 1, 13, std::string(20000, 'm'), CZolMsgPdu::MSG_MULTICAST));
            send(newMessage(9, 1, 99, "direct"));
            SFrame oFrame;
            ASSERT_TRUE(oPeer.readFrame(oFrame));
            EXPECT_EQ(99U, oFrame.m_ulCmd);
            EXPECT_TRUE(waitUntil([&] { return oGateway.countOfType(14) == 3; }));
            for (const unsigned int uiType : {11U, 12U, 13U, 15U})
            {
                EXPECT_EQ(1U, oGateway.countOfType(uiType)) << "type " << uiType;
            }
            EXPECT_EQ(0U, oGateway.countOfType(1));
        });
}

// The list is limited in bytes; a message may carry it beyond, and the next sender waits until the list was taken.
TEST_F(SendPathTest, MakesSendersWaitWhileTheListIsFull)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            std::atomic<unsigned int> uiAccepted{0};
            std::thread oSender(
                [&]
                {
                    for (unsigned int i = 0; i < 100; ++i)
                    {
                        send(newMessage(9, 1, i, std::string(1 << 20, 'x')));
                        ++uiAccepted;
                    }
                });
            // What the send thread holds, what waits behind it, and what the two sockets took: not 100 MB.
            EXPECT_TRUE(waitUntil([] { return CZolSendMsgTask::instance()->bytesWaiting() >= 26214400; }));
            EXPECT_LE(CZolSendMsgTask::instance()->bytesWaiting(), 26214400U + (1 << 20) + 28);
            EXPECT_LT(uiAccepted, 100U);
            const std::string strDump = CZolSendMsgTask::instance()->dumpMsgList();
            EXPECT_EQ(0U, strDump.find("\nCZolSendMsgTask.m_oMsgList:\n    Ver: 1, Type: 1, Cmd: ")) << strDump;
            EXPECT_EQ(25U, countOf(strDump, ", SrcMod: 1, SrcSubMod: 1, DstPID: 9, DstHdl: 1, DstMod: 1, "
                                            "DstSubMod: 1, DataLen: 1048576\n"));
            for (unsigned int i = 0; i < 100; ++i)
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
