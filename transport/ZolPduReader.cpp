#include "transport/ZolPduReader.h"

#include "transport/ZolPipeProtocol.h"

#include <cstring>
#include <limits>

CZolPduReader::CZolPduReader(unsigned int uiBufferLength, CZolMsgDispatcher &oTo)
    : m_oTo(oTo), m_uiBufferLength(uiBufferLength), m_pcRecvBuf(new char[uiBufferLength])
{
}

void CZolPduReader::reset()
{
    m_ulRecvLen = 0;
    m_ulPduFilled = 0;
    m_ulPduLeft = 0;
    delete m_poCurPdu;
    m_poCurPdu = nullptr;
}

bool CZolPduReader::add(std::uint32_t uiBytes)
{
    m_ulRecvLen += uiBytes;
    std::uint32_t uiAt = 0;
    while (uiAt < m_ulRecvLen)
    {
        const std::uint32_t uiHave = m_ulRecvLen - uiAt;
        if (m_poCurPdu == nullptr)
        {
            if (uiHave < zolpipe::HEADER_LENGTH)
            {
                m_oTo.deliverRun();
                keepPartOfHeader(uiAt);
                return true;
            }
            if (!startPdu(m_pcRecvBuf.get() + uiAt))
            {
                m_oTo.deliverRun();
                return false;
            }
        }
        char *pcTo = reinterpret_cast<char *>(m_poCurPdu) + m_ulPduFilled;
        if (uiHave < m_ulPduLeft)
        {
            std::memcpy(pcTo, m_pcRecvBuf.get() + uiAt, uiHave);
            m_ulPduFilled += uiHave;
            m_ulPduLeft -= uiHave;
            break;
        }
        std::memcpy(pcTo, m_pcRecvBuf.get() + uiAt, m_ulPduLeft);
        uiAt += m_ulPduLeft;
        CZolMsgPdu *poPdu = m_poCurPdu;
        m_poCurPdu = nullptr; // gone before it is handed on: the dispatcher owns it
        m_ulPduFilled = 0;
        m_ulPduLeft = 0;
        ntohPdu(poPdu);
        m_oTo.take(poPdu);
    }
    m_oTo.deliverRun();
    m_ulRecvLen = 0;
    return true;
}

void CZolPduReader::keepPartOfHeader(std::uint32_t uiAt)
{
    m_ulRecvLen -= uiAt;
    if (uiAt != 0)
    {
        std::memmove(m_pcRecvBuf.get(), m_pcRecvBuf.get() + uiAt, m_ulRecvLen);
    }
}

bool CZolPduReader::startPdu(const char *pcHeader)
{
    const std::uint16_t usHeader = zolpipe::wireHeaderLength(pcHeader);
    const std::uint64_t ulTotal = std::uint64_t(usHeader) + zolpipe::wireDataLength(pcHeader);
    if (usHeader < zolpipe::HEADER_LENGTH || ulTotal > std::numeric_limits<std::uint32_t>::max() - ZOL_BLOCK_HEADER)
    {
        return false;
    }
    m_poCurPdu = new (static_cast<unsigned int>(ulTotal)) CZolMsgPdu;
    m_ulPduLeft = static_cast<std::uint32_t>(ulTotal);
    m_ulPduFilled = 0;
    return m_poCurPdu != nullptr;
}
