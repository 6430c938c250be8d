// The way in without a socket: bytes in pieces of any size, and what reaches the inbox of the process.

#include "config/ZolCounters.h"
#include "transport/TransportTest.h"
#include "transport/ZolPduReader.h"

#include <algorithm>
#include <cstring>

using namespace zoltest;

namespace
{

constexpr unsigned int BUFFER = 100; // less than most messages

class ReceiverTest : public BareTest, public IZolInbox, public IZolPipeEnd
{
protected:
    bool hasTaskMgr(unsigned char ucTaskMgrID) const override { return ucTaskMgrID <= COLLECTOR || ucTaskMgrID == 254; }
    int deliver(CZolMemBlock *poBlock, unsigned char ucTaskMgrID, bool bPriority) override
    {
        EXPECT_FALSE(bPriority) << "it would pass the limit of the queue";
        if (!hasTaskMgr(ucTaskMgrID))
        {
            return ZOL_ERR_NO_DEST;
        }
        ++m_uiSteps;
        m_oFrames.push_back(frameOf(*zolPduOf(poBlock)));
        CZolMemBlock::freeMem(poBlock);
        return ZOL_OK;
    }
    int deliverRequests(CZolMemList &oRequests, unsigned char ucTaskMgrID) override
    {
        ++m_uiSteps;
        while (CZolMemBlock *poBlock = oRequests.popHead())
        {
            EXPECT_EQ(ucTaskMgrID, zolPduOf(poBlock)->m_ucDestModule);
            m_oFrames.push_back(frameOf(*zolPduOf(poBlock)));
            CZolMemBlock::freeMem(poBlock);
        }
        return ZOL_OK;
    }
    void noteMessage(const CZolMsgPdu &) override { ++m_uiNoted; }
    void noteHello() override { ++m_uiHellos; }
    bool takeInitialResponse(CZolMsgPdu *poPdu) override
    {
        delete (m_bInitial ? poPdu : nullptr);
        return m_bInitial;
    }

    // In pieces of that size; false once the pipe must go down.
    bool feed(const std::string &strBytes, std::size_t uiPiece = BUFFER)
    {
        for (std::size_t uiAt = 0; uiAt < strBytes.size();)
        {
            const std::size_t uiLength =
                std::min<std::size_t>({uiPiece, strBytes.size() - uiAt, m_oReader.getRoomLength()});
            std::memcpy(m_oReader.getRoom(), strBytes.data() + uiAt, uiLength);
            if (!m_oReader.add(static_cast<std::uint32_t>(uiLength)))
            {
                return false;
            }
            uiAt += uiLength;
        }
        return true;
    }

    // What has come since the last call, as a stream.
    std::string arrived()
    {
        std::string strWire;
        for (const SFrame &oFrame : m_oFrames)
        {
            strWire += oFrame.wire();
        }
        m_oFrames.clear();
        return strWire;
    }

    std::vector<SFrame> m_oFrames;
    unsigned int m_uiSteps = 0; // in which they came
    unsigned int m_uiNoted = 0;
    unsigned int m_uiHellos = 0;
    bool m_bInitial = false;
    CZolMsgDispatcher m_oDispatcher{*this, *this, *this};
    CZolPduReader m_oReader{BUFFER, m_oDispatcher};
};

SFrame typed(unsigned int uiType, unsigned int uiCmd = 1)
{
    SFrame oFrame = toSink(uiCmd, "body");
    oFrame.m_ucType = static_cast<std::uint8_t>(uiType);
    return oFrame;
}

SFrame block(unsigned short usSegment, const std::string &strBody, unsigned short usSource = 9, unsigned int uiType = 6)
{
    SFrame oFrame = typed(uiType, 50).body(strBody);
    oFrame.m_usSegment = usSegment;
    oFrame.m_usSrcProc = usSource;
    return oFrame;
}

SFrame longHeader(SFrame oFrame, unsigned short usHeader)
{
    oFrame.m_usHeader = usHeader;
    oFrame.m_strBody.insert(0, std::string(usHeader - 28U, 'h'));
    return oFrame;
}

} // namespace

// The stream is cut where the lengths say, wherever it comes in pieces, and every field and byte is kept.
TEST_F(ReceiverTest, GivesTheSameMessagesInAnyPieces)
{
    SFrame oOdd = toSink(0xA1B2C3D4, pattern(300));
    oOdd.m_ucVersion = 77; // not looked at
    oOdd.m_usSrcProc = 0x1234;
    oOdd.m_usSrcHandle = 0x5678;
    oOdd.m_usDestProc = 0x9ABC; // neither is whom it was meant for
    oOdd.m_usDestHandle = 0xDEF0;
    oOdd.m_ucSrcModule = 200;
    oOdd.m_usSrcTask = 0xFEDC;
    oOdd.m_usSegment = 0x0102;
    const std::string strStream = toSink(1, "first").wire() + toSink(2).wire() + oOdd.wire() +
                                  typed(CZolMsgPdu::MSG_RESPONSE).wire() + longHeader(toSink(3, "x"), 61).wire();
    for (std::size_t uiPiece = 1; uiPiece <= BUFFER; ++uiPiece)
    {
        ASSERT_TRUE(feed(strStream, uiPiece));
        ASSERT_TRUE(strStream == arrived()) << "pieces of " << uiPiece;
    }
    for (std::size_t uiCut = 1; uiCut < strStream.size(); ++uiCut)
    {
        ASSERT_TRUE(feed(strStream.substr(0, uiCut)) && feed(strStream.substr(uiCut)));
        ASSERT_TRUE(strStream == arrived()) << "cut at " << uiCut;
    }
}

// What a damaged or hostile peer can announce: a header that is longer than ours is somebody's newer one and passes.
TEST_F(ReceiverTest, TakesNoImpossibleLength)
{
    const struct
    {
        std::uint16_t usHeader;
        std::uint32_t uiData;
        bool bTaken;
    } aCases[] = {
        {0, 0, false},  {0, 28, false},           {27, 1, false},           {27, 0xFFFFFFFFU, false},
        {28, 0, true},  {28, 0xFFFFFFFFU, false}, {28, 0xFFFFFFE3U, false}, {65535, 0xFFFFFFFFU, false},
        {29, 28, true}, {65535, 1, true},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(testing::Message() << "header " << oCase.usHeader << ", data " << oCase.uiData);
        SFrame oFrame = toSink(5);
        oFrame.m_usHeader = oCase.usHeader;
        oFrame.m_ulData = oCase.uiData;
        if (oCase.bTaken)
        {
            oFrame.m_strBody.assign(oCase.usHeader - 28U + oCase.uiData, 'd');
        }
        const std::string strBefore = toSink(4, "whole").wire();
        EXPECT_EQ(oCase.bTaken, feed(strBefore + oFrame.wire()));
        EXPECT_TRUE((oCase.bTaken ? strBefore + oFrame.wire() : strBefore) == arrived());
        m_oReader.reset();
    }
}

// One lock and one wake-up for requests that stand behind each other, and nothing overtakes.
TEST_F(ReceiverTest, HandsOnNeighbouringRequestsInOneStep)
{
    SFrame oOther = toSink(7);
    oOther.m_ucDestModule = COLLECTOR - 1;
    const std::string strStream = toSink(1).wire() + toSink(2).wire() + typed(4).wire() + oOther.wire();
    ASSERT_TRUE(feed(strStream.substr(0, 56)));
    EXPECT_EQ(1U, m_uiSteps);
    ASSERT_TRUE(feed(toSink(3).wire() + oOther.wire() + typed(2).wire()));
    EXPECT_EQ(4U, m_uiSteps);
    EXPECT_TRUE(strStream.substr(0, 56) + toSink(3).wire() + oOther.wire() + typed(2).wire() == arrived());
}

TEST_F(ReceiverTest, DropsWhatAPipeIsNotFor)
{
    std::string strStream = typed(4).wire();
    for (const unsigned int uiType : {0U, 8U, 9U, 10U, 11U, 12U, 13U, 14U, 15U, 16U, 255U, 3U, 5U})
    {
        strStream += typed(uiType).wire();
    }
    SFrame oNowhere = toSink(1);
    oNowhere.m_ucDestModule = 77;
    SFrame oInitial = toSink(2); // the address of a call of the initial stage
    oInitial.m_ucDestModule = 255;
    oInitial.m_usDestTask = 65535;
    ASSERT_TRUE(feed(strStream + oNowhere.wire() + oInitial.wire()));
    EXPECT_EQ("", arrived());
    EXPECT_EQ(16U, m_uiNoted);
    EXPECT_EQ(1U, m_uiHellos);
    EXPECT_EQ(11U, zolCounters().m_ulInvalidType);
    EXPECT_EQ(2U, zolCounters().m_ulNoManager);
    EXPECT_EQ(11U, logCount("CZolConnection::dispatchMsg invalid message type, Ver:1, Type:"));
    EXPECT_EQ(2U, logCount("CZolConnection::deliverMsg dest not found!"));
    EXPECT_TRUE(logHas("CZolConnection::dispatchMsg dispatch message failed, Ver:1, Type:1, Cmd:1, Seg:0, SrcPID:9, "
                       "SrcPHDL:1, SrcMod:0, SrcSubMod:0, DstMod:77, DstSubMod:1, HeadLen:28, DataLen:0, Error:-6"));
    m_bInitial = true;
    ASSERT_TRUE(feed(oInitial.wire()));
    EXPECT_EQ(2U, zolCounters().m_ulNoManager);
    m_oDispatcher.dispatchMsg(nullptr);
    EXPECT_EQ(ZOL_ERR_FAILED, m_oDispatcher.deliverMsg(nullptr));
}

// The command of a direct request carries an address of this process. A peer that makes one up must not be followed,
// neither in one piece nor in blocks; with a task id it is an answer.
TEST_F(ReceiverTest, IgnoresForgedDirectRequests)
{
    for (const std::size_t uiLength : {0U, 4U, 8U, 16U})
    {
        SFrame oForged = toSink(0x10004, std::string(uiLength, '\x41'));
        oForged.m_ucDestModule = 254;
        oForged.m_usDestTask = 0;
        std::string strStream = oForged.wire();
        oForged.m_ucType = 6;
        for (const unsigned short usSegment : std::initializer_list<unsigned short>{1, 0})
        {
            oForged.m_usSegment = usSegment;
            strStream += oForged.wire();
        }
        ASSERT_TRUE(feed(strStream));
    }
    EXPECT_EQ("", arrived());
    EXPECT_EQ(8U, zolCounters().m_ulNoTask);
    EXPECT_EQ(8U, logCount("CZolTaskMgr::unknownTaskMsg createTask() return NULL when process message, src: 9,1,0,0, "
                           "dst:254,0, cmd:65540"));
    SFrame oAnswer = toSink(0x10004);
    oAnswer.m_ucDestModule = 254;
    ASSERT_TRUE(feed(oAnswer.wire()));
    EXPECT_EQ(oAnswer.wire(), arrived());
}

TEST_F(ReceiverTest, JoinsBlocksOfSeveralSourcesWithMessagesInBetween)
{
    const std::string strBytes = pattern(4000);
    ASSERT_TRUE(feed(block(1, strBytes.substr(0, 1000)).wire() + block(1, "A", 11, 7).wire() +
                     toSink(7, "whole").wire() + block(2, strBytes.substr(1000, 2000)).wire() +
                     block(0, "B", 11, 7).wire() + block(3, strBytes.substr(3000, 900)).wire() +
                     block(0, strBytes.substr(3900)).wire()));
    SFrame oSecond = block(0, "AB", 11, 2);
    EXPECT_TRUE(toSink(7, "whole").wire() + oSecond.wire() + block(0, strBytes, 9, 1).wire() == arrived());
    // the header of the last block heads the whole
    ASSERT_TRUE(feed(longHeader(block(1, "abc"), 60).wire() + longHeader(block(0, "de"), 29).wire()));
    EXPECT_EQ(longHeader(block(0, "abcde", 9, 1), 29).wire(), arrived());
    EXPECT_EQ(3U, logCount("CZolConnection::processBigMsgBlock big message all block receive, Ver:1, Type:"));
}

TEST_F(ReceiverTest, DropsBigMessagesOutOfOrderAndGoesOn)
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
    unsigned int uiDisordered = 0;
    unsigned int uiAlone = 0;
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        for (const unsigned short usSegment : oCase.oSegments)
        {
            ASSERT_TRUE(feed(block(usSegment, "x").wire()));
        }
        uiDisordered += oCase.uiDisordered;
        uiAlone += oCase.uiAlone;
        EXPECT_EQ(uiDisordered, logCount("disordered big message block receive, "));
        EXPECT_EQ(uiAlone, logCount("only find one block of big message, "));
        ASSERT_TRUE(feed(block(1, "in ").wire() + block(0, "order").wire()));
        EXPECT_EQ(block(0, "in order", 9, 1).wire(), arrived());
    }
    EXPECT_EQ(uiDisordered + uiAlone, zolCounters().m_ulBigMsgBroken);
}

TEST_F(ReceiverTest, ForgetsAllThatIsIncomplete)
{
    ASSERT_TRUE(feed(block(1, "gone").wire() + toSink(1, pattern(200)).wire().substr(0, 150)));
    m_oReader.reset();
    m_oDispatcher.reset();
    ASSERT_TRUE(feed(block(1, "new ").wire() + block(0, "life").wire()));
    EXPECT_EQ(block(0, "new life", 9, 1).wire(), arrived());
    EXPECT_EQ(0U, logCount("disordered"));
    ASSERT_TRUE(feed(toSink(1).wire().substr(0, 20)));
}
