#include "gateway/pipe/ZolVekFrameReader.h"
#include "support/RawPipe.h"

#include <gtest/gtest.h>
#include <random>

using namespace zoltest;

namespace
{

const std::uint32_t LIMIT = 1 << 20;

std::uint32_t draw(std::mt19937 &oRandom, std::uint32_t uiBelow)
{
    return static_cast<std::uint32_t>(oRandom() % uiBelow);
}

std::string frame(std::uint32_t uiData, char cFill, std::uint16_t usHeader = 28)
{
    SFrame oFrame;
    oFrame.m_usHeader = usHeader;
    oFrame.m_ulCmd = uiData;
    oFrame.m_ulData = uiData;
    oFrame.m_strBody = std::string(usHeader - 28 + uiData, cFill);
    return oFrame.wire();
}

class FrameReaderTest : public testing::Test
{
protected:
    /// One turn that reads strBytes as far as there is room. Adds the frames to m_oFrames; takes at most iMost of them.
    /// Returns how many bytes went in.
    std::size_t turn(const std::string &strBytes, int iMost = 1 << 30)
    {
        m_oReader.begin(m_oBuffer);
        std::size_t ulTaken = 0;
        if (take(iMost) && !strBytes.empty())
        {
            ulTaken = std::min(strBytes.size(), m_oReader.room());
            memcpy(m_oReader.space(), strBytes.data(), ulTaken);
            m_oReader.filled(ulTaken);
            take(iMost);
        }
        m_oReader.end();
        memset(m_oBuffer.data(), 0xEE, CZolVekReadBuffer::BYTES); // the next pipe reads into it
        return ulTaken;
    }

    bool take(int &iMost)
    {
        CZolVekFrame oFrame;
        while ((m_eLast = m_oReader.next(oFrame, LIMIT)) == VEK_READ_FRAME)
        {
            if (iMost == 0)
            {
                m_oReader.undo();
                return false;
            }
            --iMost;
            m_oFrames.emplace_back(oFrame.data(), oFrame.length());
        }
        return true;
    }

    SZolVekMemory m_oMemory;
    CZolVekReadBuffer m_oBuffer;
    CZolVekFrameReader m_oReader{&m_oMemory};
    std::vector<std::string> m_oFrames;
    EnumZolVekRead m_eLast = VEK_READ_MORE;
};

// Whatever the sizes of frames and reads, and however often frames have to wait: the same frames in the same order.
TEST_F(FrameReaderTest, GivesTheSameFramesHoweverTheyArrive)
{
    std::mt19937 oRandom(4711);
    std::vector<std::string> oSent;
    std::string strStream;
    for (int i = 0; i < 400; ++i)
    {
        const std::uint32_t auiSizes[] = {0,     draw(oRandom, 200),   draw(oRandom, 9000), 65508,
                                          65509, draw(oRandom, 300000)};
        oSent.push_back(
            frame(auiSizes[draw(oRandom, i % 20 == 0 ? 6 : 3)], static_cast<char>(i), i % 7 == 0 ? 29 : 28));
        strStream += oSent.back();
    }
    for (std::size_t ulAt = 0; ulAt < strStream.size() || m_oReader.pendingBytes() > 0;)
    {
        const std::size_t ulChunk = draw(oRandom, 3) == 0 ? draw(oRandom, 50) : draw(oRandom, 70000);
        ulAt += turn(strStream.substr(std::min(ulAt, strStream.size()), ulChunk), static_cast<int>(draw(oRandom, 40)));
        ASSERT_NE(VEK_READ_DAMAGED, m_eLast);
    }
    ASSERT_EQ(oSent.size(), m_oFrames.size());
    for (std::size_t i = 0; i < oSent.size(); ++i)
    {
        ASSERT_EQ(oSent[i], m_oFrames[i]) << i;
    }
    EXPECT_EQ(0u, m_oMemory.m_ulBytes);
}

} // namespace
