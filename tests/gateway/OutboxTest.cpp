#include "gateway/pipe/ZolVekOutbox.h"
#include "support/RawPipe.h"

#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/socket.h>
#include <unistd.h>

using namespace zoltest;

namespace
{

std::string frame(std::uint8_t ucType, std::uint32_t uiNumber, std::size_t ulPayload)
{
    SFrame oFrame;
    oFrame.m_ucType = ucType;
    oFrame.m_ulCmd = uiNumber;
    return oFrame.body(std::string(ulPayload, static_cast<char>(uiNumber))).wire();
}

std::uint32_t draw(std::mt19937 &oRandom, std::uint32_t uiBelow)
{
    return static_cast<std::uint32_t>(oRandom() % uiBelow);
}

std::uint32_t sizeOf(const std::string &strBytes)
{
    return static_cast<std::uint32_t>(strBytes.size());
}

class OutboxTest : public testing::Test
{
protected:
    OutboxTest()
    {
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, m_aiSockets);
        const int iSmall = 4096; // so that almost every write is a partial one
        setsockopt(m_aiSockets[0], SOL_SOCKET, SO_SNDBUF, &iSmall, sizeof iSmall);
    }
    ~OutboxTest() override
    {
        close(m_aiSockets[0]);
        close(m_aiSockets[1]);
    }

    /// Reads at most ulMost bytes at the far end.
    void readSome(std::size_t ulMost)
    {
        std::string strPart(ulMost, '\0');
        const ssize_t lRead = read(m_aiSockets[1], strPart.data(), ulMost);
        m_strGot += strPart.substr(0, lRead > 0 ? static_cast<std::size_t>(lRead) : 0);
    }

    EnumZolVekFlush flush() { return m_oOutbox.flush(m_aiSockets[0], m_ulWritten); }

    int m_aiSockets[2];
    SZolVekMemory m_oMemory;
    CZolVekOutbox m_oOutbox{&m_oMemory};
    std::uint64_t m_ulWritten = 0;
    std::string m_strGot;
};

// Spans, copies and records of all sizes through a socket that takes a little at a time: what comes out is what went
// in, frame by frame, but for hellos, which may come earlier and never inside another frame.
TEST_F(OutboxTest, KeepsOrderAndFramesThroughPartialWrites)
{
    std::mt19937 oRandom(815);
    std::deque<std::string> oExpected;
    unsigned int uiHellos = 0;
    std::string strTurn; // stands for the read buffer of a turn
    for (std::uint32_t i = 0; i < 3000; ++i)
    {
        const std::string strFrame = frame(1, i, draw(oRandom, i % 50 == 0 ? 30000 : 300));
        const unsigned int uiKind = draw(oRandom, 10);
        if (uiKind == 0)
        {
            m_oOutbox.addHello(frame(4, 0, 0).data());
            ++uiHellos;
        }
        else if (uiKind < 4)
        {
            SZolVekRecord *const poRecord = SZolVekRecord::borrow(strFrame.data(), sizeOf(strFrame), &m_oMemory);
            const SZolVekAddress oAddress = {zolVekKey(9, 8), 7, 6, 1};
            m_oOutbox.addRecord(poRecord, uiKind == 1 ? SZolVekAddress() : oAddress);
            flush();
            poRecord->keep();
            poRecord->drop();
            oExpected.push_back(strFrame);
            if (uiKind != 1)
            {
                zolVekPatch(oExpected.back().data(), oAddress);
            }
        }
        else if (uiKind == 4)
        {
            m_oOutbox.addCopy(strFrame.data(), sizeOf(strFrame));
            oExpected.push_back(strFrame);
        }
        else
        {
            strTurn = strFrame;
            oExpected.push_back(strFrame);
            m_oOutbox.addBytes(strTurn.data(), sizeOf(strTurn));
            if (draw(oRandom, 2) == 0)
            {
                flush();
            }
        }
        m_oOutbox.settle();
        strTurn.assign(strTurn.size(), '!');
        readSome(draw(oRandom, 1000));
    }
    while (flush() == VEK_FLUSH_BLOCKED)
    {
        readSome(100000);
    }
    readSome(1000000);
    for (std::size_t ulAt = 0; ulAt < m_strGot.size();)
    {
        const SFrame oFrame = SFrame::parse(m_strGot.substr(ulAt, 28));
        const std::string strGot = m_strGot.substr(ulAt, oFrame.m_usHeader + oFrame.m_ulData);
        ulAt += strGot.size();
        if (oFrame.m_ucType == 4)
        {
            --uiHellos;
            continue;
        }
        ASSERT_FALSE(oExpected.empty());
        ASSERT_EQ(oExpected.front(), strGot);
        oExpected.pop_front();
    }
    EXPECT_TRUE(oExpected.empty());
    EXPECT_EQ(0u, uiHellos);
    EXPECT_EQ(m_strGot.size(), m_ulWritten);
    EXPECT_EQ(0u, m_oOutbox.bytes());
    EXPECT_EQ(0u, m_oMemory.m_ulBytes);
}

// A publication that many wait for lies in memory once.
TEST_F(OutboxTest, SharesARecordAmongOutboxes)
{
    const std::string strFrame = frame(13, 1, 100000);
    std::vector<std::unique_ptr<CZolVekOutbox>> oOutboxes;
    SZolVekRecord *const poRecord = SZolVekRecord::borrow(strFrame.data(), sizeOf(strFrame), &m_oMemory);
    for (std::uint16_t i = 0; i < 100; ++i)
    {
        oOutboxes.push_back(std::make_unique<CZolVekOutbox>(&m_oMemory));
        oOutboxes.back()->addRecord(poRecord, {zolVekKey(i, 1), 1, i, 1});
        EXPECT_GE(oOutboxes.back()->bytes(), strFrame.size());
    }
    poRecord->keep();
    poRecord->drop();
    EXPECT_LT(m_oMemory.m_ulBytes, strFrame.size() + 100 * 100);
    oOutboxes.clear();
    EXPECT_EQ(0u, m_oMemory.m_ulBytes);
}

// Small publications and requests in turn: what waits counts with all that it takes, and takes no more than that.
TEST_F(OutboxTest, TakesNoMoreThanItCounts)
{
    const std::string strFrame = frame(1, 1, 0);
    for (int i = 0; i < 1000; ++i)
    {
        SZolVekRecord *const poRecord = SZolVekRecord::borrow(strFrame.data(), sizeOf(strFrame), &m_oMemory);
        m_oOutbox.addRecord(poRecord, {zolVekKey(9, 8), 7, 6, 1});
        poRecord->keep();
        poRecord->drop();
        m_oOutbox.addBytes(strFrame.data(), sizeOf(strFrame));
        m_oOutbox.settle();
    }
    EXPECT_LE(m_oMemory.m_ulBytes, m_oOutbox.bytes());
    EXPECT_LT(m_oOutbox.bytes(), 1000 * 300u);
}

// A backlog whose source is read in large steps: of a chunk that the next step does not fit in nothing is left empty
// but what the next frame is too large for.
TEST_F(OutboxTest, FillsAChunkBeforeTheNextOne)
{
    std::string strStep;
    for (std::uint32_t i = 0; i < 37; ++i)
    {
        strStep += frame(1, i, 1000);
    }
    for (int i = 0; i < 100; ++i)
    {
        for (std::uint32_t uiAt = 0; uiAt < sizeOf(strStep); uiAt += sizeOf(strStep) / 37)
        {
            m_oOutbox.addBytes(strStep.data() + uiAt, sizeOf(strStep) / 37);
        }
        m_oOutbox.settle();
    }
    EXPECT_EQ(3700u, m_oOutbox.frames());
    EXPECT_LT(m_oMemory.m_ulBytes, m_oOutbox.bytes() * 11 / 10);
    while (flush() == VEK_FLUSH_BLOCKED)
    {
        readSome(1 << 20);
    }
    readSome(1 << 20);
    std::string strAll;
    for (int i = 0; i < 100; ++i)
    {
        strAll += strStep;
    }
    EXPECT_TRUE(m_strGot == strAll);
    EXPECT_EQ(3700u, m_oOutbox.sent());
}

} // namespace
