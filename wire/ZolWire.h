#ifndef ZOL_WIRE_H
#define ZOL_WIRE_H

#include <cstdint>
#include <cstring>

/// The header of a message as it goes over a pipe, and its words. The library and the gateway read and write it with
/// these.
namespace zolwire
{

/// Where a field of the header lies, in bytes; the payload follows the header. Fields of several bytes are big-endian,
/// the payload is as the sender has it. Header length plus data length is the way to the next message: there is no
/// other framing.
enum EnumField
{
    AT_VERSION = 0,
    AT_TYPE = 1,
    AT_SEGMENT = 2,
    AT_COMMAND = 4,
    AT_SRC_PROC = 8,
    AT_DEST_PROC = 10,
    AT_SRC_HANDLE = 12,
    AT_DEST_HANDLE = 14,
    AT_SRC_MODULE = 16,
    AT_DEST_MODULE = 17,
    AT_SRC_TASK = 18,
    AT_DEST_TASK = 20,
    AT_HEADER_LENGTH = 22,
    AT_DATA_LENGTH = 24,
    HEADER_BYTES = 28 ///< the shortest header; a longer one has its own fields behind these
};

// Words at any alignment.

inline std::uint16_t load16(const void *pvFrom)
{
    std::uint16_t usWord;
    std::memcpy(&usWord, pvFrom, sizeof usWord);
    return __builtin_bswap16(usWord);
}

inline std::uint32_t load32(const void *pvFrom)
{
    std::uint32_t uiWord;
    std::memcpy(&uiWord, pvFrom, sizeof uiWord);
    return __builtin_bswap32(uiWord);
}

inline void store16(void *pvTo, std::uint16_t usWord)
{
    usWord = __builtin_bswap16(usWord);
    std::memcpy(pvTo, &usWord, sizeof usWord);
}

inline void store32(void *pvTo, std::uint32_t uiWord)
{
    uiWord = __builtin_bswap32(uiWord);
    std::memcpy(pvTo, &uiWord, sizeof uiWord);
}

} // namespace zolwire

#endif
