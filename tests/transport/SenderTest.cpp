// What leaves for messages of every size, in which sends and in which order, and what is said of those that could not.

#include "config/ZolCounters.h"
#include "transport/TransportTest.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolPipeSender.h"

#include <array>

using namespace zoltest;

namespace
{

/// Pipes to the gateway and to processes 9 and 10, which keep what is sent.
class CPipes : public IZolPipes
{
public:
    std::uint64_t getVersion() const override { return m_ulVersion; }

    CZolConnRef chooseConnection(const CZolMsgPdu *poPdu) override
    {
        ++m_uiChoices;
        const std::size_t uiAt = poPdu->m_usDestProcID == 9 ? 1 : poPdu->m_usDestProcID == 10 ? 2 : 0;
        return m_aoPipes[zolpipe::goesToGateway(*poPdu) || m_bDirectDown ? 0 : uiAt];
    }

    int sendOn(CZolConnection *poConn, const void *pvBuf, unsigned int uiLen) override
    {
        if (m_bDirectDown)
        {
            return -1;
        }
        std::size_t uiPipe = 0;
        while (m_aoPipes.at(uiPipe).get() != poConn)
        {
            ++uiPipe;
        }
        m_oSends.emplace_back(uiPipe, std::string(static_cast<const char *>(pvBuf), uiLen));
        return static_cast<int>(uiLen);
    }

    std::vector<std::size_t> lengths() const
    {
        std::vector<std::size_t> oLengths;
        for (const auto &oSend : m_oSends)
        {
            oLengths.push_back(oSend.second.size());
        }
        return oLengths;
    }

    std::uint64_t m_ulVersion = 1;
    unsigned int m_uiChoices = 0;
    bool m_bDirectDown = false; // and nothing can be sent
    std::array<CZolConnRef, 3> m_aoPipes;
    std::vector<std::pair<std::size_t, std::string>> m_oSends; // pipe and bytes
};

class SenderTest : public BareTest
{
protected:
    SenderTest()
    {
        for (CZolConnRef &oPipe : m_oPipes.m_aoPipes)
        {
            oPipe = CZolConnRef::adopt(new CZolConnection(CZolConnection::CONN_PASSIVE));
        }
    }

    void send(const std::vector<CZolMsgPdu *> &oMessages)
    {
        m_oPipes.m_oSends.clear();
        CZolMemList oList;
        for (CZolMsgPdu *poPdu : oMessages)
        {
            oList.insert(zolBlockOf(poPdu));
        }
        m_oSender.processMsg(&oList);
        EXPECT_EQ(0U, oList.m_ulCount);
    }

    CPipes m_oPipes;
    CZolPipeSender m_oSender{m_oPipes};
};

CZolMsgPdu *of(std::size_t uiTotal, unsigned short usProc = 9, unsigned char ucType = CZolMsgPdu::MSG_REQUEST)
{
    return newMessage(usProc, 1, 4711, pattern(uiTotal - 28), ucType);
}

} // namespace

TEST_F(SenderTest, PacksWhatFitsAndCutsWhatDoesNot)
{
    using Lengths = std::vector<std::size_t>;
    const auto fnList = [](const Lengths &oTotals)
    {
        std::vector<CZolMsgPdu *> oMessages;
        for (const std::size_t uiTotal : oTotals)
        {
            oMessages.push_back(of(uiTotal));
        }
        return oMessages;
    };
    const struct
    {
        Lengths oMessages;
        Lengths oSends;
    } aCases[] = {
        {{28}, {28}},
        {{28, 29, 30}, {87}},
        {{8000, 188}, {8188}},
        {{8000, 189, 28}, {8000, 217}},
        {{8188, 28}, {8188, 28}},
        {{8189}, {8188, 29}},
        {{28 + 2 * 8160}, {8188, 8188}},
        {{28, 29 + 2 * 8160, 30}, {28, 8188, 8188, 29, 30}},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(&oCase - aCases);
        send(fnList(oCase.oMessages));
        EXPECT_EQ(oCase.oSends, m_oPipes.lengths());
    }
}

TEST_F(SenderTest, NumbersTheBlocksOfEachTypeThatHasThem)
{
    const struct
    {
        unsigned char ucType;
        unsigned char ucBlock;
        std::size_t uiPipe;
    } aCases[] = {{1, 6, 1}, {2, 7, 1}, {13, 14, 0}};
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(int(oCase.ucType));
        send({of(1000000, 9, oCase.ucType)});
        std::string strBody;
        for (std::size_t i = 0; i < m_oPipes.m_oSends.size(); ++i)
        {
            const auto &[uiPipe, strBytes] = m_oPipes.m_oSends[i];
            SFrame oExpected = toSink(4711);
            std::swap(oExpected.m_usSrcProc, oExpected.m_usDestProc);
            std::swap(oExpected.m_usSrcHandle, oExpected.m_usDestHandle);
            oExpected.m_ucSrcModule = COLLECTOR;
            oExpected.m_usSrcTask = SINK;
            oExpected.m_ucType = oCase.ucBlock;
            oExpected.m_usSegment = static_cast<std::uint16_t>(i + 1 == m_oPipes.m_oSends.size() ? 0 : i + 1);
            oExpected.body(strBytes.substr(28));
            ASSERT_TRUE(strBytes == oExpected.wire()) << i;
            EXPECT_EQ(oCase.uiPipe, uiPipe);
            strBody += oExpected.m_strBody;
        }
        EXPECT_TRUE(strBody == pattern(1000000 - 28));
    }
}

TEST_F(SenderTest, ChoosesForEachDestinationAndAfterEachChange)
{
    send({of(28, 9), of(28, 9), of(28, 10), of(28, 9), of(28, 77), of(28, 78)});
    std::vector<std::size_t> oPipes;
    for (const auto &oSend : m_oPipes.m_oSends)
    {
        oPipes.push_back(oSend.first);
    }
    EXPECT_EQ((std::vector<std::size_t>{1, 2, 1, 0}), oPipes);
    EXPECT_EQ(5U, m_oPipes.m_uiChoices) << "asked again for the same destination";
    for (unsigned char ucType = CZolMsgPdu::MSG_SUBSCRIBE; ucType <= CZolMsgPdu::MSG_GET_ADDRESS; ++ucType)
    {
        send({of(28, 9), of(28, 9, ucType), of(28, 9)});
        ASSERT_EQ(3U, m_oPipes.m_oSends.size());
        EXPECT_EQ(0U, m_oPipes.m_oSends[1].first) << int(ucType);
    }
    send({of(28, 9)});
    ++m_oPipes.m_ulVersion;
    const unsigned int uiBefore = m_oPipes.m_uiChoices;
    send({of(28, 9), of(28, 9)});
    EXPECT_EQ(uiBefore + 1, m_oPipes.m_uiChoices);
}

TEST_F(SenderTest, NamesWhatCouldNotBeSent)
{
    m_oPipes.m_bDirectDown = true;
    send({of(28), of(28), of(20000), of(28)});
    EXPECT_TRUE(logHas("CZolConnMgr::processMsg send message failed:\n    ver:1, type:1, cmd:4711, src:1,1, "
                       "dst:9,1,1,1, head:28, data:0    ver:1, type:1, cmd:4711, src:1,1, dst:9,1,1,1, head:28, "
                       "data:0\n"));
    EXPECT_EQ(2U, logCount("send message failed:\n"));
    EXPECT_TRUE(logHas("CZolSendMsgTask::processBigMsg send block 1 failed, ver:1, type:6, cmd:4711, src:1,1, "
                       "dst:9,1,1,1, error: -1"));
    EXPECT_TRUE(logHas("send big message failed, ver:1, type:1, cmd:4711, src:1,1, dst:9,1,1,1, head:28, data:19972, "
                       "error: -1"));
    m_oPipes.m_aoPipes[0] = CZolConnRef();
    send({of(28), of(20000)});
    EXPECT_TRUE(logHas("CZolConnMgr::processMsg can not find connection. ProcID: 9 ProcHandle: 1"));
    EXPECT_TRUE(logHas("CZolSendMsgTask::processBigMsg can not find connection!"));
    EXPECT_EQ(6U, zolCounters().m_ulSendFailed + zolCounters().m_ulNoConnection);
}

// What would cost the pipe, or the message behind it, is refused, and its header is still its own.
TEST_F(SenderTest, RefusesWhatCannotBeCut)
{
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
        CZolMsgPdu *poPdu = of(20000, 9, oCase.ucType);
        poPdu->m_usHeaderLength = oCase.usHeader;
        poPdu->m_ulDataLength = oCase.uiData;
        EXPECT_EQ(oCase.iResult, m_oSender.processBigMsg(poPdu));
        EXPECT_EQ(oCase.ucType, poPdu->m_ucMsgType);
        EXPECT_EQ(oCase.uiData, poPdu->m_ulDataLength);
        send({poPdu, of(28)});
        EXPECT_EQ((std::vector<std::size_t>{28}), m_oPipes.lengths());
    }
    EXPECT_EQ(-1, m_oSender.processBigMsg(nullptr));
    EXPECT_TRUE(logHas("CZolSendMsgTask::processBigMsg invalid message type 15!"));
    EXPECT_TRUE(logHas("data:534773761, error: -1"));
    for (const std::uint16_t usHeader : std::initializer_list<std::uint16_t>{0, 27})
    {
        CZolMsgPdu *poPdu = of(32);
        poPdu->m_usHeaderLength = usHeader;
        send({poPdu, of(28)});
        EXPECT_EQ((std::vector<std::size_t>{28}), m_oPipes.lengths()) << "header of " << usHeader;
    }
}
