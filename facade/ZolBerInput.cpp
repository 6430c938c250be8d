#include "facade/ZolBerInput.h"

#include <algorithm>
#include <stdexcept>

namespace
{

std::uintptr_t stackPosition()
{
    return reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
}

} // namespace

CZolBerInput::CZolBerInput(const char *pcData, std::size_t uiLength)
    : m_pcBegin(pcData), m_pcEnd(pcData + uiLength), m_uiStack(stackPosition()), m_pcAt(pcData), m_pcFollowed(pcData)
{
}

// The get area of the base class stays empty, so that every read comes here.
CZolBerInput::int_type CZolBerInput::underflow()
{
    return left() == 0 ? traits_type::eof() : traits_type::to_int_type(*m_pcAt);
}

CZolBerInput::int_type CZolBerInput::uflow()
{
    if (left() == 0)
    {
        return traits_type::eof();
    }
    checkStack();
    takeUp();
    const char cByte = *m_pcAt++;
    follow(static_cast<unsigned char>(cByte));
    m_pcFollowed = m_pcAt;
    return traits_type::to_int_type(cByte);
}

// Several bytes at once are content; that of a constructed value where it is kept encoded.
std::streamsize CZolBerInput::xsgetn(char *pcTo, std::streamsize lLength)
{
    takeUp();
    const std::size_t uiTaken = lLength < 0 ? 0 : std::min(static_cast<std::size_t>(lLength), left());
    std::copy_n(m_pcAt, uiTaken, pcTo);
    m_pcAt += uiTaken;
    m_pcFollowed = m_pcAt;
    m_ulContentLeft -= std::min<std::uint64_t>(m_ulContentLeft, uiTaken);
    if (m_ulContentLeft == 0)
    {
        m_ePart = PART_TAG;
    }
    return static_cast<std::streamsize>(uiTaken);
}

// Decoders go forward to measure the rest, and come back to where they were; or back to read a head again.
void CZolBerInput::takeUp()
{
    if (m_pcAt != m_pcFollowed)
    {
        m_ePart = PART_TAG;
        m_ulContentLeft = 0;
    }
}

void CZolBerInput::checkStack() const
{
    const std::uintptr_t uiNow = stackPosition(); // lower than it stood, or higher where stacks grow that way
    if (std::max(uiNow, m_uiStack) - std::min(uiNow, m_uiStack) > MAX_STACK_BYTES)
    {
        throw std::length_error("a value is nested too deep");
    }
}

void CZolBerInput::follow(unsigned char ucByte)
{
    switch (m_ePart)
    {
    case PART_TAG:
        m_bConstructed = (ucByte & 0x20) != 0;
        m_ePart = (ucByte & 0x1f) == 0x1f ? PART_MORE_TAG : PART_LENGTH;
        break;
    case PART_MORE_TAG:
        m_ePart = (ucByte & 0x80) != 0 ? PART_MORE_TAG : PART_LENGTH;
        break;
    case PART_LENGTH:
    case PART_MORE_LENGTH:
        followLength(ucByte);
        break;
    case PART_CONTENT:
        --m_ulContentLeft;
        m_ePart = m_ulContentLeft == 0 ? PART_TAG : PART_CONTENT;
        break;
    }
}

void CZolBerInput::followLength(unsigned char ucByte)
{
    if (m_ePart == PART_LENGTH)
    {
        m_uiLengthBytes = ucByte > 0x80 ? ucByte & 0x7fU : 0;
        m_ulLength = ucByte < 0x80 ? ucByte : 0; // an indefinite length, 0x80, has its end in the content
    }
    else
    {
        m_ulLength = m_ulLength << 8 | ucByte;
        --m_uiLengthBytes;
    }
    m_ePart = PART_MORE_LENGTH;
    if (m_uiLengthBytes == 0)
    {
        endLength();
    }
}

void CZolBerInput::endLength()
{
    if (m_ulLength > left())
    {
        throw std::length_error("a value is longer than its message");
    }
    m_ulContentLeft = m_bConstructed ? 0 : m_ulLength;
    m_ePart = m_ulContentLeft == 0 ? PART_TAG : PART_CONTENT;
}

CZolBerInput::pos_type CZolBerInput::seekoff(off_type lOffset, std::ios_base::seekdir eFrom,
                                             std::ios_base::openmode eMode)
{
    const off_type lSize = m_pcEnd - m_pcBegin;
    const off_type lBase = eFrom == std::ios_base::beg ? 0 : eFrom == std::ios_base::end ? lSize : m_pcAt - m_pcBegin;
    const bool bInside = lOffset >= -lBase && lOffset <= lSize - lBase;
    return bInside ? seekpos(lBase + lOffset, eMode) : pos_type(off_type(-1));
}

CZolBerInput::pos_type CZolBerInput::seekpos(pos_type oPosition, std::ios_base::openmode eMode)
{
    const off_type lAt = oPosition;
    if ((eMode & std::ios_base::in) == 0 || lAt < 0 || lAt > m_pcEnd - m_pcBegin)
    {
        return pos_type(off_type(-1));
    }
    m_pcAt = m_pcBegin + lAt;
    return oPosition;
}
