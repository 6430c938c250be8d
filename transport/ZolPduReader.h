#ifndef ZOL_TRANSPORT_ZOLPDUREADER_H
#define ZOL_TRANSPORT_ZOLPDUREADER_H

#include "transport/ZolMsgDispatcher.h"

#include <cstdint>
#include <memory>

/// Cuts the bytes of a pipe into messages, whatever the pieces in which they come, and hands each to the dispatcher. A
/// message may be larger than the buffer: its bytes pass through in pieces, and only part of a header stays behind.
///
/// Threads: one at a time; no lock.
/// Owner:   the receive side of one connection.
/// Units:   bytes.
class CZolPduReader
{
public:
    /// oTo must outlive it.
    CZolPduReader(unsigned int uiBufferLength, CZolMsgDispatcher &oTo);
    ~CZolPduReader() { reset(); }
    CZolPduReader(const CZolPduReader &) = delete;
    CZolPduReader &operator=(const CZolPduReader &) = delete;

    /// Where the next bytes go, and how many fit; never 0.
    char *getRoom() const { return m_pcRecvBuf.get() + m_ulRecvLen; }
    std::uint32_t getRoomLength() const { return m_uiBufferLength - m_ulRecvLen; }

    /// uiBytes have come into the room. False: a length that cannot be, or no memory for it; the place of the next
    /// message is lost, and nothing but reset() may follow.
    bool add(std::uint32_t uiBytes);

    void reset(); ///< drops all that has not been handed on

private:
    bool startPdu(const char *pcHeader);
    void keepPartOfHeader(std::uint32_t uiAt);

    CZolMsgDispatcher &m_oTo;
    const std::uint32_t m_uiBufferLength;
    const std::unique_ptr<char[]> m_pcRecvBuf;
    std::uint32_t m_ulRecvLen = 0;    // bytes in it
    CZolMsgPdu *m_poCurPdu = nullptr; // owned; the message being filled
    std::uint32_t m_ulPduFilled = 0;
    std::uint32_t m_ulPduLeft = 0;
};

#endif
