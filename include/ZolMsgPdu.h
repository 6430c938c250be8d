#ifndef ZOL_MSG_PDU_H
#define ZOL_MSG_PDU_H

#include "ZolExport.h"

#include <ace/Basic_Types.h>
#include <cstddef>
#include <string>

/// Commands that every process answers on its built-in task manager 254.
enum EnumZolCmdID
{
    MSG_GET_LOG_LEVEL_CMDID = 0x10001,
    MSG_SET_LOG_LEVEL_CMDID = 0x10002,
    MSG_PRINT_VARIABLE_CMDID = 0x10003,
    MSG_DIRECT_REQUEST_CMDID = 0x10004 ///< local only; its payload is the address of a request
};

/// A message: this header of 28 bytes, and m_ulDataLength bytes of payload behind it in the same piece of memory.
///
///      0 version   1 type        2 segment number   4 command id
///      8 source process         10 destination process
///     12 source handle          14 destination handle
///     16 source manager         17 destination manager     18 source task
///     20 destination task       22 header length           24 data length      28 payload
///
/// The same bytes travel on a pipe, there with the multi-byte fields in big-endian order (htonPdu, ntohPdu).
///
/// Memory:    new (ulTotalLength) CZolMsgPdu gives room for header and payload, or null with errno ENOMEM. It leaves
///            the memory as it is: call init() before filling the header. delete poPdu gives it back. The link word of
///            a queue stands in front of the header (CZolMemBlock).
/// Ownership: whoever holds the pointer. An operation that takes a `CZolMsgPdu *&` takes the message over.
/// Threads:   no lock of its own. A message is on one list or in one thread's hands.
class ZOL_EXPORT CZolMsgPdu
{
public:
    enum EnumZolPduType
    {
        MSG_REQUEST = 1,
        MSG_RESPONSE = 2,
        MSG_REGISTER = 3,     ///< opens a pipe
        MSG_HELLO = 4,        ///< keeps a pipe alive
        MSG_TIMER = 5,        ///< local only; the payload is the timer id, 32 bits in host order
        MSG_BIG_REQUEST = 6,  ///< a block of a MSG_REQUEST that was too large for one piece
        MSG_BIG_RESPONSE = 7, ///< a block of a MSG_RESPONSE
        MSG_DEBUG = 8,
        MSG_EXIT = 9,
        MSG_TASK_EXIT = 10, ///< asks a task manager to delete a task that has ended
        MSG_SUBSCRIBE = 11,
        MSG_SUBSCRIBE_CANCEL = 12,
        MSG_MULTICAST = 13,
        MSG_BIG_MULTICAST = 14, ///< a block of a MSG_MULTICAST
        MSG_GET_ADDRESS = 15    ///< asks the gateway for the address of a process
    };

    CZolMsgPdu() {} // NOLINT(modernize-use-equals-default): leaves the header alone, also under value-initialisation
    CZolMsgPdu(const CZolMsgPdu &) = default;

    /// Copies the 28 bytes of the header and nothing of the payload.
    CZolMsgPdu &operator=(const CZolMsgPdu &) = default;

    /// uiLength is the size of the whole message, header and payload.
    static void *operator new(std::size_t uiSize, unsigned int uiLength) noexcept;
    static void operator delete(void *pvPdu, std::size_t uiSize);
    static void operator delete(void *pvPdu, unsigned int uiLength) noexcept; ///< pairs with operator new

    /// Version 1, header length 28, every other field of the header 0. The type 0 that it leaves is none: set it.
    void init();

    /// Replaces strOut by the header, one line for each field.
    void printf(std::string &strOut) const;

    ACE_Byte m_ucVersion;
    ACE_Byte m_ucMsgType;     ///< one of EnumZolPduType
    ACE_UINT16 m_usSegmentNo; ///< 0 in a whole message and in the last block of a big one, else the block's number
    ACE_UINT32 m_ulCmdID;     ///< what the message asks for
    ACE_UINT16 m_usSrcProcID;
    ACE_UINT16 m_usDestProcID;
    ACE_UINT16 m_usSrcProcHandle;
    ACE_UINT16 m_usDestProcHandle;
    ACE_Byte m_ucSrcModule;  ///< task manager: 0 to 200 the application's, 254 the built-in one
    ACE_Byte m_ucDestModule; ///< as m_ucSrcModule
    ACE_UINT16 m_usSrcSubModuleId;
    ACE_UINT16 m_usDestSubModuleId; ///< task: 0 has one created, 1 to 32 static, 33 to 60000 assigned
    ACE_UINT16 m_usHeaderLength;    ///< where the payload begins: 28 in all that the library builds
    ACE_UINT32 m_ulDataLength;      ///< bytes of payload

private:
    friend void zolLogHeader(const CZolMsgPdu &oPdu); // for whoever takes messages in

    /// One line about the message to the run log, at the level of info.
    void printf() const;

    static const unsigned int CONST_LENGTH_FOR_PRINT = 14; // entries of sm_arrLength
    static const int sm_arrLength[CONST_LENGTH_FOR_PRINT]; // lengths of the labels that printf() begins with
};

static_assert(sizeof(CZolMsgPdu) == 28, "the header is a wire format");
static_assert(offsetof(CZolMsgPdu, m_ucMsgType) == 1 && offsetof(CZolMsgPdu, m_usSegmentNo) == 2 &&
                  offsetof(CZolMsgPdu, m_ulCmdID) == 4 && offsetof(CZolMsgPdu, m_usSrcProcID) == 8 &&
                  offsetof(CZolMsgPdu, m_usDestProcID) == 10 && offsetof(CZolMsgPdu, m_usSrcProcHandle) == 12 &&
                  offsetof(CZolMsgPdu, m_usDestProcHandle) == 14 && offsetof(CZolMsgPdu, m_ucSrcModule) == 16 &&
                  offsetof(CZolMsgPdu, m_ucDestModule) == 17 && offsetof(CZolMsgPdu, m_usSrcSubModuleId) == 18 &&
                  offsetof(CZolMsgPdu, m_usDestSubModuleId) == 20 && offsetof(CZolMsgPdu, m_usHeaderLength) == 22 &&
                  offsetof(CZolMsgPdu, m_ulDataLength) == 24,
              "the header is a wire format");

/// Header and payload together; the sum does not wrap.
inline unsigned long long zolTotalLength(const CZolMsgPdu *poPdu)
{
    return static_cast<unsigned long long>(poPdu->m_usHeaderLength) + poPdu->m_ulDataLength;
}

/// The first byte of the payload: behind the header, whose length the sender may have made more than 28 bytes. For a
/// message that is being built, after init(). m_ulDataLength bytes may be read or written there; at 0 there are none.
inline const char *zolPayload(const CZolMsgPdu *poPdu)
{
    return reinterpret_cast<const char *>(poPdu) + poPdu->m_usHeaderLength;
}

inline char *zolPayload(CZolMsgPdu *poPdu)
{
    return reinterpret_cast<char *>(poPdu) + poPdu->m_usHeaderLength;
}

/// Turn the 28 bytes of a header to wire order, and back, in place and at any alignment. The payload is left alone.
ZOL_EXPORT void htonPdu(void *pvHeader);
ZOL_EXPORT void ntohPdu(void *pvHeader);

#endif
