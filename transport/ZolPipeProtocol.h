#ifndef ZOL_TRANSPORT_ZOLPIPEPROTOCOL_H
#define ZOL_TRANSPORT_ZOLPIPEPROTOCOL_H

#include "ZolMsgPdu.h"

#include "wire/ZolWire.h"

#include <cstdint>

/// What goes over a pipe, as constants and as the two fixed messages of it. A pipe carries PDUs back to back, the
/// multi-byte fields of each header big-endian, the payload as it stands:
///
///     byte 0        1        2..3        4..7       8..9 10..11 12..13 14..15
///     version | msgType | segmentNo | cmdID | src, dest proc ID | src, dest handle
///     16       17       18..19, 20..21       22..23         24..27       28
///     src, dest module | src, dest task | headerLength | dataLength | payload ...
///
/// There is no other framing: headerLength + dataLength is the way to the next message.
namespace zolpipe
{

constexpr unsigned int HEADER_LENGTH = zolwire::HEADER_BYTES;
constexpr unsigned int REGISTER_LENGTH = 32;     ///< header and one word
constexpr unsigned int REGISTER_BODY_LENGTH = 4; ///< of the request and of the response
constexpr unsigned int BLOCK_LIMIT = 8188;       ///< most bytes of one send; larger messages are cut into blocks
constexpr unsigned int MAX_NUMBERED_BLOCKS = 65535;
constexpr unsigned int MAX_BLOCK_HEADER = BLOCK_LIMIT / 2; ///< a longer header leaves no room to cut in place
constexpr std::uint32_t MAX_DIRECT_DATA = 0x1FFC0000;      ///< payload of a direct request or response
constexpr unsigned int DEFAULT_RECV_BUFFER = 131072;
constexpr int MIN_RECV_BUFFER = 65536;
constexpr int MAX_RECV_BUFFER = 262144;

constexpr int CONNECT_SECONDS = 5;      ///< TCP connect of a pipe
constexpr int REGISTER_SECONDS = 5;     ///< register exchange of the active side, sending and reading together
constexpr int ACCEPT_READ_SECONDS = 5;  ///< each of the two reads of an accepted connection
constexpr int SEND_SECONDS = 200;       ///< one block or batch
constexpr int DEAF_SECONDS = 5;         ///< a direct response of which no byte is taken, while something else waits
constexpr long POLL_SECONDS = 20;       ///< between two cycles of the connection manager
constexpr long HELLO_SECONDS = 60;      ///< least time between two hellos of the process
constexpr long SILENCE_SECONDS = 180;   ///< a pipe that received nothing for so long is closed
constexpr long CLOCK_JUMP_SECONDS = 60; ///< polls so far apart mean that the clock was adjusted

constexpr int STATUS_NOT_ALLOWED = -8; ///< these three, as status of a register response, stop a starting process
constexpr int STATUS_REGISTERED = -9;  ///< the key of process id and handle is up already
constexpr int STATUS_FULL = -10;

constexpr unsigned char INITIAL_MODULE = 255; ///< with INITIAL_TASK: a call of the initial stage
constexpr unsigned short INITIAL_TASK = 65535;
constexpr unsigned char BUILT_IN_MODULE = 254;

using zolwire::load16;
using zolwire::load32;
using zolwire::store16;
using zolwire::store32;

/// Header length and data length of the header at pcHeader, which is in wire order.
inline std::uint16_t wireHeaderLength(const char *pcHeader)
{
    return load16(pcHeader + zolwire::AT_HEADER_LENGTH);
}
inline std::uint32_t wireDataLength(const char *pcHeader)
{
    return load32(pcHeader + zolwire::AT_DATA_LENGTH);
}

/// Whether a message goes to the gateway whatever its destination says.
inline bool goesToGateway(const CZolMsgPdu &oPdu)
{
    return oPdu.m_ucMsgType >= CZolMsgPdu::MSG_SUBSCRIBE && oPdu.m_ucMsgType <= CZolMsgPdu::MSG_GET_ADDRESS;
}

/// A register request of 32 bytes in host order, body written; null when no memory is left. usProcHandle is what the
/// message carries as source handle; bNoHandle tells the body.
CZolMsgPdu *newRegisterRequest(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle);

/// The answer to a register request (host order): source and destination change places, the source process is the
/// answering one. Null when no memory is left.
CZolMsgPdu *newRegisterResponse(const CZolMsgPdu &oRequest, unsigned short usProcID, unsigned short usProcHandle,
                                int iStatus);

/// A hello from (usSrcProcID, usSrcProcHandle), 28 bytes in host order; null when no memory is left.
CZolMsgPdu *newHello(unsigned short usSrcProcID, unsigned short usSrcProcHandle, unsigned short usDestProcID,
                     unsigned short usDestProcHandle);

} // namespace zolpipe

#endif
