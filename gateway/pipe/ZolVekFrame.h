#ifndef ZOL_VEK_FRAME_H
#define ZOL_VEK_FRAME_H

#include "ZolMsgPdu.h"
#include "wire/ZolWire.h"

#include <cstdint>

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

/// One whole frame as it was read: a view, valid until its reader goes on. The gateway forwards bytes as they are, so
/// it reads headers where they lie and never turns one to host order.
class CZolVekFrame
{
public:
    CZolVekFrame() = default;
    CZolVekFrame(const char *pcData, std::uint32_t uiLength) : m_pcData(pcData), m_uiLength(uiLength) {}

    const char *data() const { return m_pcData; }
    std::uint32_t length() const { return m_uiLength; }

    std::uint8_t type() const { return static_cast<std::uint8_t>(m_pcData[zolwire::AT_TYPE]); }
    std::uint16_t segment() const { return zolwire::load16(m_pcData + zolwire::AT_SEGMENT); }
    std::uint32_t command() const { return zolwire::load32(m_pcData + zolwire::AT_COMMAND); }
    std::uint16_t headerLength() const { return zolwire::load16(m_pcData + zolwire::AT_HEADER_LENGTH); }
    std::uint32_t dataLength() const { return zolwire::load32(m_pcData + zolwire::AT_DATA_LENGTH); }
    const char *payload() const { return m_pcData + headerLength(); }

    TZolVekKey destination() const
    {
        return zolVekKey(zolwire::load16(m_pcData + zolwire::AT_DEST_PROC),
                         zolwire::load16(m_pcData + zolwire::AT_DEST_HANDLE));
    }
    TZolVekKey source() const
    {
        return zolVekKey(zolwire::load16(m_pcData + zolwire::AT_SRC_PROC),
                         zolwire::load16(m_pcData + zolwire::AT_SRC_HANDLE));
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
