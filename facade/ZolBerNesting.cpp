#include "facade/ZolBerNesting.h"

#include <array>

namespace
{

const std::size_t HEAD_BYTES = 2; // the shortest head of a value: one byte for the tag, one for the length

/// Goes over the heads of all values in their order on the wire. What is inside a primitive value is skipped.
class CBerWalk
{
public:
    CBerWalk(const char *pcData, std::size_t uiLength) : m_pcData(pcData), m_uiLength(uiLength) {}

    bool isSafe();

private:
    struct SLevel
    {
        std::size_t m_uiEnd; // where the value ends, or what is around it if the value itself does not say
        bool m_bIndefinite;  // it ends with an end-of-contents
    };

    std::size_t end() const { return m_uiLevels == 0 ? m_uiLength : m_arrLevels[m_uiLevels - 1].m_uiEnd; }
    bool isIndefinite() const { return m_uiLevels != 0 && m_arrLevels[m_uiLevels - 1].m_bIndefinite; }
    bool readByte(unsigned char &ucByte);
    bool readTag(unsigned char &ucTag);
    bool readLength(std::size_t &uiLength, bool &bIndefinite);
    bool readValue();
    bool enter(std::size_t uiLength, bool bIndefinite);
    void leaveFinished();

    const char *const m_pcData;
    const std::size_t m_uiLength;
    std::size_t m_uiAt = 0;
    unsigned int m_uiLevels = 0; // constructed values that are open
    std::array<SLevel, ZOL_MAX_BER_LEVELS> m_arrLevels;
};

bool CBerWalk::isSafe()
{
    do
    {
        if (!readValue())
        {
            return false;
        }
        leaveFinished();
    } while (m_uiLevels != 0);
    return true;
}

bool CBerWalk::readByte(unsigned char &ucByte)
{
    if (m_uiAt >= end())
    {
        return false;
    }
    ucByte = static_cast<unsigned char>(m_pcData[m_uiAt++]);
    return true;
}

// The first byte says enough; a long tag goes on while the top bit is set.
bool CBerWalk::readTag(unsigned char &ucTag)
{
    if (!readByte(ucTag))
    {
        return false;
    }
    unsigned char ucMore = (ucTag & 0x1f) == 0x1f ? 0x80 : 0;
    while ((ucMore & 0x80) != 0)
    {
        if (!readByte(ucMore))
        {
            return false;
        }
    }
    return true;
}

bool CBerWalk::readLength(std::size_t &uiLength, bool &bIndefinite)
{
    unsigned char ucByte = 0;
    if (!readByte(ucByte))
    {
        return false;
    }
    bIndefinite = ucByte == 0x80;
    uiLength = ucByte < 0x80 ? ucByte : 0;
    const unsigned int uiBytes = ucByte > 0x80 ? ucByte & 0x7fU : 0;
    if (uiBytes > sizeof uiLength)
    {
        return false;
    }
    for (unsigned int uiByte = 0; uiByte < uiBytes; ++uiByte)
    {
        if (!readByte(ucByte))
        {
            return false;
        }
        uiLength = uiLength << 8 | ucByte;
    }
    return true;
}

bool CBerWalk::readValue()
{
    unsigned char ucTag = 0;
    std::size_t uiLength = 0;
    bool bIndefinite = false;
    if (!readTag(ucTag) || !readLength(uiLength, bIndefinite) || uiLength > end() - m_uiAt)
    {
        return false;
    }
    if ((ucTag & 0x20) != 0)
    {
        return enter(uiLength, bIndefinite);
    }
    if (ucTag == 0 && uiLength == 0 && isIndefinite())
    {
        --m_uiLevels;
        return true;
    }
    m_uiAt += uiLength;
    return !bIndefinite;
}

bool CBerWalk::enter(std::size_t uiLength, bool bIndefinite)
{
    if (m_uiLevels == ZOL_MAX_BER_LEVELS)
    {
        return false;
    }
    const std::size_t uiEnd = bIndefinite ? end() : m_uiAt + uiLength;
    m_arrLevels[m_uiLevels++] = {uiEnd, bIndefinite};
    return true;
}

void CBerWalk::leaveFinished()
{
    while (m_uiLevels != 0 && !isIndefinite() && m_uiAt == end())
    {
        --m_uiLevels;
    }
}

} // namespace

bool zolIsBerNestingSafe(const char *pcData, std::size_t uiLength)
{
    return uiLength <= ZOL_MAX_BER_LEVELS * HEAD_BYTES || CBerWalk(pcData, uiLength).isSafe();
}
