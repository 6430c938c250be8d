#ifndef ZOL_TESTS_SUPPORT_RAWPIPE_H
#define ZOL_TESTS_SUPPORT_RAWPIPE_H

#include <chrono>
#include <cstdint>
#include <string>

namespace zoltest
{

using Milliseconds = std::chrono::milliseconds;
constexpr Milliseconds PATIENCE{60000}; // wide enough for a busy machine under a sanitizer

/// A message as it stands on a pipe, built by hand and without the library, so that both can be held against each
/// other.
struct SFrame
{
    std::uint8_t m_ucVersion = 1;
    std::uint8_t m_ucType = 1;
    std::uint16_t m_usSegment = 0;
    std::uint32_t m_ulCmd = 0;
    std::uint16_t m_usSrcProc = 0;
    std::uint16_t m_usDestProc = 0;
    std::uint16_t m_usSrcHandle = 0;
    std::uint16_t m_usDestHandle = 0;
    std::uint8_t m_ucSrcModule = 0;
    std::uint8_t m_ucDestModule = 0;
    std::uint16_t m_usSrcTask = 0;
    std::uint16_t m_usDestTask = 0;
    std::uint16_t m_usHeader = 28;
    std::uint32_t m_ulData = 0; ///< what the header announces; wire() takes it as it is
    std::string m_strBody;

    SFrame &body(const std::string &strBody); ///< sets body and length
    std::string header() const;               ///< 28 bytes in wire order
    std::string wire() const;                 ///< header and body
    static SFrame parse(const std::string &strHeader);
    int status() const; ///< of a register response: the big-endian word that the body begins with
};

std::string word16(unsigned int uiValue); ///< big-endian
std::string word32(unsigned int uiValue);
unsigned int readWord32(const std::string &strText, std::size_t uiAt);

/// A register request.
SFrame registerFrame(unsigned short usProc, unsigned short usHandle, unsigned int uiBody = 0);

/// The most that the kernel takes for one connection whose far end reads nothing, in both of its sockets together.
std::size_t kernelBuffers();

/// One end of a TCP connection that speaks the pipe protocol by hand.
class CRawPipe
{
public:
    CRawPipe() = default;
    explicit CRawPipe(int iSocket) : m_iSocket(iSocket) {}
    static CRawPipe connectTo(unsigned short usPort); ///< throws if nothing listens
    CRawPipe(CRawPipe &&oOther) noexcept : m_iSocket(oOther.m_iSocket) { oOther.m_iSocket = -1; }
    CRawPipe &operator=(CRawPipe &&oOther) noexcept;
    ~CRawPipe() { close(); }

    bool isOpen() const { return m_iSocket >= 0; }
    int socket() const { return m_iSocket; }
    void close();
    void finish();       ///< no more from this side
    void resetOnClose(); ///< close() will tear the connection

    /// False if the other end is gone or takes nothing for too long.
    bool send(const std::string &strBytes, Milliseconds oLimit = PATIENCE);

    /// Up to uiLength bytes: less when the other end closes or the limit is over.
    std::string read(std::size_t uiLength, Milliseconds oLimit = PATIENCE);

    /// The next frame; false when the connection ends or the limit is over first.
    bool readFrame(SFrame &oFrame, Milliseconds oLimit = PATIENCE);

    /// Skips what comes until the other end closes.
    bool waitClosed(Milliseconds oLimit = PATIENCE);

    /// Registers: the status, or NO_ANSWER.
    int registerAs(unsigned short usProc, unsigned short usHandle, unsigned int uiBody = 0);
    static constexpr int NO_ANSWER = -1000;

private:
    int m_iSocket = -1;
};

/// A listening socket of the loopback interface on a port of its own choice.
class CRawListener
{
public:
    explicit CRawListener(unsigned short usPort = 0);
    ~CRawListener();
    CRawListener(const CRawListener &) = delete;
    CRawListener &operator=(const CRawListener &) = delete;

    unsigned short port() const { return m_usPort; }
    int socket() const { return m_iSocket; }
    CRawPipe accept(Milliseconds oLimit = PATIENCE); ///< not open if nobody came

    /// Accepts, reads the register request into oRequest and answers with iStatus as process usProc, usHandle.
    CRawPipe acceptPipe(SFrame &oRequest, unsigned short usProc = 0, unsigned short usHandle = 0, int iStatus = 0,
                        unsigned short usAllocated = 0);

private:
    int m_iSocket;
    unsigned short m_usPort;
};

} // namespace zoltest

#endif
