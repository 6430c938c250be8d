#include "gateway/pipe/ZolVekFrameReader.h"

#include <algorithm>

CZolVekFrameReader::~CZolVekFrameReader()
{
    m_poMemory->m_ulBytes -= m_uiKept;
    if (m_poLarge != nullptr)
    {
        m_poLarge->drop();
    }
}

void CZolVekFrameReader::begin(CZolVekReadBuffer &oBuffer)
{
    m_pcBuffer = oBuffer.data();
    m_ulBegin = 0;
    m_ulEnd = m_uiKept;
    m_uiLast = 0;
    if (m_uiKept > 0)
    {
        std::memcpy(m_pcBuffer, m_pcKept.get(), m_uiKept);
        m_poMemory->m_ulBytes -= m_uiKept;
        m_pcKept.reset();
        m_uiKept = 0;
    }
}

char *CZolVekFrameReader::space()
{
    if (isLargeUnderWay())
    {
        return m_poLarge->m_pcOwned + m_uiLargeFilled;
    }
    return m_pcBuffer + m_ulEnd;
}

std::size_t CZolVekFrameReader::room() const
{
    if (isLargeUnderWay())
    {
        return std::min<std::size_t>(m_poLarge->m_uiLength - m_uiLargeFilled, LARGE_READ_BYTES);
    }
    return std::min(CZolVekReadBuffer::BYTES - m_ulEnd, CZolVekReadBuffer::READ_BYTES);
}

void CZolVekFrameReader::filled(std::size_t ulBytes)
{
    if (isLargeUnderWay())
    {
        m_uiLargeFilled += static_cast<std::uint32_t>(ulBytes);
        m_poLarge->arrived(ulBytes);
        return;
    }
    m_ulEnd += ulBytes;
}

EnumZolVekRead CZolVekFrameReader::next(CZolVekFrame &oFrame, std::uint32_t uiMaxBytes)
{
    if (m_poLarge != nullptr)
    {
        if (m_bLargeGiven)
        {
            m_poLarge->drop();
            m_poLarge = nullptr;
            m_bLargeGiven = false;
        }
        else if (m_uiLargeFilled < m_poLarge->m_uiLength)
        {
            return VEK_READ_MORE;
        }
        else
        {
            m_bLargeGiven = true;
            oFrame = CZolVekFrame(m_poLarge->m_pcData, m_poLarge->m_uiLength);
            oFrame.m_poRecord = m_poLarge;
            return VEK_READ_FRAME;
        }
    }
    m_ulBegin += m_uiLast;
    m_uiLast = 0;
    const std::size_t ulHave = m_ulEnd - m_ulBegin;
    if (ulHave < zolwire::HEADER_BYTES)
    {
        return VEK_READ_MORE;
    }
    const char *const pcHeader = m_pcBuffer + m_ulBegin;
    const std::uint32_t uiHeader = zolwire::load16(pcHeader + zolwire::AT_HEADER_LENGTH);
    // 64 bits: the sum of a hostile header wraps in 32
    const std::uint64_t ulTotal = std::uint64_t{uiHeader} + zolwire::load32(pcHeader + zolwire::AT_DATA_LENGTH);
    if (uiHeader < zolwire::HEADER_BYTES || ulTotal > uiMaxBytes)
    {
        m_ulAnnounced = ulTotal;
        return VEK_READ_DAMAGED;
    }
    if (ulHave < ulTotal)
    {
        if (ulTotal <= DIRECT_BYTES)
        {
            return VEK_READ_MORE;
        }
        return startLarge(static_cast<std::uint32_t>(ulTotal));
    }
    m_uiLast = static_cast<std::uint32_t>(ulTotal);
    oFrame = CZolVekFrame(pcHeader, m_uiLast);
    return VEK_READ_FRAME;
}

EnumZolVekRead CZolVekFrameReader::startLarge(std::uint32_t uiLength)
{
    m_poLarge = SZolVekRecord::create(uiLength, m_poMemory);
    if (m_poLarge == nullptr)
    {
        m_ulAnnounced = uiLength;
        return VEK_READ_DAMAGED;
    }
    m_uiLargeFilled = static_cast<std::uint32_t>(m_ulEnd - m_ulBegin);
    std::memcpy(m_poLarge->m_pcOwned, m_pcBuffer + m_ulBegin, m_uiLargeFilled);
    m_poLarge->arrived(m_uiLargeFilled);
    m_ulBegin = m_ulEnd;
    return VEK_READ_MORE;
}

void CZolVekFrameReader::undo()
{
    if (m_poLarge != nullptr)
    {
        m_bLargeGiven = false;
        return;
    }
    m_uiLast = 0;
}

void CZolVekFrameReader::end()
{
    if (m_poLarge != nullptr && m_bLargeGiven)
    {
        m_poLarge->drop();
        m_poLarge = nullptr;
        m_bLargeGiven = false;
    }
    m_ulBegin += m_uiLast;
    m_uiLast = 0;
    m_uiKept = static_cast<std::uint32_t>(m_ulEnd - m_ulBegin);
    if (m_uiKept > 0)
    {
        m_pcKept.reset(new char[m_uiKept]);
        std::memcpy(m_pcKept.get(), m_pcBuffer + m_ulBegin, m_uiKept);
        m_poMemory->m_ulBytes += m_uiKept;
    }
    m_pcBuffer = nullptr;
    m_ulBegin = 0;
    m_ulEnd = 0;
}
