#ifndef ZOL_VEK_FRAME_H
#define ZOL_VEK_FRAME_H

#include "ZolMsgPdu.h"

#include <cstdint>
#include <cstring>

/// Fields of a frame at their places, in wire order. The gateway forwards bytes as they are, so it reads headers where
/// they lie in its buffers and never turns one to host order.
///
///      0 version   1 type        2 segment number   4 command id
///      8 source process         10 destination process
///     12 source handle          14 destination handle
///     16 source manager         17 destination manager     18 source task
///     20 destination task       22 header length           24 data length      28 payload
enum EnumZolVekField
{
    VEK_AT_VERSION = 0,
    VEK_AT_TYPE = 1,
    VEK_AT_SEGMENT = 2,
    VEK_AT_COMMAND = 4,
    VEK_AT_SRC_PROC = 8,
    VEK_AT_DEST_PROC = 10,
    VEK_AT_SRC_HANDLE = 12,
    VEK_AT_DEST_HANDLE = 14,
    VEK_AT_SRC_MODULE = 16,
    VEK_AT_DEST_MODULE = 17,
    VEK_AT_SRC_TASK = 18,
    VEK_AT_DEST_TASK = 20,
    VEK_AT_HEADER_LENGTH = 22,
    VEK_AT_DATA_LENGTH = 24,
    VEK_HEADER_BYTES = 28
};

inline std::uint16_t zolVekRead16(const char *pcAt)
{
    std::uint16_t usValue;
    std::memcpy(&usValue, pcAt, sizeof usValue);
    return __builtin_bswap16(usValue);
}

inline std::uint32_t zolVekRead32(const char *pcAt)
{
    std::uint32_t uiValue;
    std::memcpy(&uiValue, pcAt, sizeof uiValue);
    return __builtin_bswap32(uiValue);
}

inline void zolVekWrite16(char *pcAt, std::uint16_t usValue)
{
    usValue = __builtin_bswap16(usValue);
    std::memcpy(pcAt, &usValue, sizeof usValue);
}

inline void zolVekWrite32(char *pcAt, std::uint32_t uiValue)
{
    uiValue = __builtin_bswap32(uiValue);
    std::memcpy(pcAt, &uiValue, sizeof uiValue);
}

/// A process id and handle in one word: how the gateway names a process.
using TZolVekKey = std::uint32_t;

inline TZolVekKey zolVekKey(std::uint16_t usProcID, std::uint16_t usProcHandle)
{
    return static_cast<TZolVekKey>(usProcID) << 16 | usProcHandle;
}

inline std::uint16_t zolVekProcOf(TZolVekKey uiKey)
{
    return static_cast<std::uint16_t>(uiKey >> 16);
}

inline std::uint16_t zolVekHandleOf(TZolVekKey uiKey)
{
    return static_cast<std::uint16_t>(uiKey & 0xFFFF);
}

struct SZolVekRecord;

/// One whole frame as it was read: a view, valid until its reader goes on.
class CZolVekFrame
{
public:
    CZolVekFrame() = default;
    CZolVekFrame(const char *pcData, std::uint32_t uiLength) : m_pcData(pcData), m_uiLength(uiLength) {}

    const char *data() const { return m_pcData; }
    std::uint32_t length() const { return m_uiLength; }

    std::uint8_t type() const { return static_cast<std::uint8_t>(m_pcData[VEK_AT_TYPE]); }
    std::uint16_t segment() const { return zolVekRead16(m_pcData + VEK_AT_SEGMENT); }
    std::uint32_t command() const { return zolVekRead32(m_pcData + VEK_AT_COMMAND); }
    std::uint16_t headerLength() const { return zolVekRead16(m_pcData + VEK_AT_HEADER_LENGTH); }
    std::uint32_t dataLength() const { return zolVekRead32(m_pcData + VEK_AT_DATA_LENGTH); }
    const char *payload() const { return m_pcData + headerLength(); }

    TZolVekKey destination() const
    {
        return zolVekKey(zolVekRead16(m_pcData + VEK_AT_DEST_PROC), zolVekRead16(m_pcData + VEK_AT_DEST_HANDLE));
    }
    TZolVekKey source() const
    {
        return zolVekKey(zolVekRead16(m_pcData + VEK_AT_SRC_PROC), zolVekRead16(m_pcData + VEK_AT_SRC_HANDLE));
    }
    /// A block of a big message: receivers join those by source alone.
    bool isBlock() const
    {
        return type() == CZolMsgPdu::MSG_BIG_REQUEST || type() == CZolMsgPdu::MSG_BIG_RESPONSE ||
               type() == CZolMsgPdu::MSG_BIG_MULTICAST;
    }

    /// The frame's own memory, for one that was too large for the shared read buffer; else null.
    SZolVekRecord *m_poRecord = nullptr;

private:
    const char *m_pcData = nullptr;
    std::uint32_t m_uiLength = 0;
};

#endif
