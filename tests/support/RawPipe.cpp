#include "support/RawPipe.h"

#include <arpa/inet.h>
#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace zoltest
{

std::size_t kernelBuffers()
{
    std::size_t uiSum = 0;
    for (const char *pcName : {"/proc/sys/net/ipv4/tcp_wmem", "/proc/sys/net/ipv4/tcp_rmem"})
    {
        std::size_t uiLeast = 0;
        std::size_t uiUsual = 0;
        std::size_t uiMost = 0;
        std::ifstream(pcName) >> uiLeast >> uiUsual >> uiMost;
        uiSum += uiMost;
    }
    return uiSum;
}

namespace
{

using Clock = std::chrono::steady_clock;

bool waitFor(int iSocket, short sEvents, Clock::time_point oEnd)
{
    for (;;)
    {
        const auto iLeft = std::chrono::ceil<Milliseconds>(oEnd - Clock::now()).count();
        pollfd oPoll{iSocket, sEvents, 0};
        if (poll(&oPoll, 1, iLeft < 0 ? 0 : static_cast<int>(iLeft)) > 0)
        {
            return true;
        }
        if (Clock::now() >= oEnd)
        {
            return false;
        }
    }
}

sockaddr_in loopback(unsigned short usPort)
{
    sockaddr_in oAddr{};
    oAddr.sin_family = AF_INET;
    oAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    oAddr.sin_port = htons(usPort);
    return oAddr;
}

unsigned int readWord16(const std::string &strText, std::size_t uiAt)
{
    return static_cast<unsigned int>(static_cast<unsigned char>(strText[uiAt]) << 8) |
           static_cast<unsigned char>(strText[uiAt + 1]);
}

} // namespace

std::string word16(unsigned int uiValue)
{
    return {static_cast<char>(uiValue >> 8 & 0xFF), static_cast<char>(uiValue & 0xFF)};
}

std::string word32(unsigned int uiValue)
{
    return word16(uiValue >> 16) + word16(uiValue & 0xFFFF);
}

unsigned int readWord32(const std::string &strText, std::size_t uiAt)
{
    return readWord16(strText, uiAt) << 16 | readWord16(strText, uiAt + 2);
}

SFrame &SFrame::body(const std::string &strBody)
{
    m_strBody = strBody;
    m_ulData = static_cast<std::uint32_t>(strBody.size());
    return *this;
}

std::string SFrame::header() const
{
    return std::string{static_cast<char>(m_ucVersion), static_cast<char>(m_ucType)} + word16(m_usSegment) +
           word32(m_ulCmd) + word16(m_usSrcProc) + word16(m_usDestProc) + word16(m_usSrcHandle) +
           word16(m_usDestHandle) + std::string{static_cast<char>(m_ucSrcModule), static_cast<char>(m_ucDestModule)} +
           word16(m_usSrcTask) + word16(m_usDestTask) + word16(m_usHeader) + word32(m_ulData);
}

std::string SFrame::wire() const
{
    return header() + m_strBody;
}

SFrame SFrame::parse(const std::string &strHeader)
{
    const auto fnWord = [&strHeader](std::size_t uiAt)
    { return static_cast<std::uint16_t>(readWord16(strHeader, uiAt)); };
    SFrame oFrame;
    oFrame.m_ucVersion = static_cast<std::uint8_t>(strHeader[0]);
    oFrame.m_ucType = static_cast<std::uint8_t>(strHeader[1]);
    oFrame.m_usSegment = fnWord(2);
    oFrame.m_ulCmd = readWord32(strHeader, 4);
    oFrame.m_usSrcProc = fnWord(8);
    oFrame.m_usDestProc = fnWord(10);
    oFrame.m_usSrcHandle = fnWord(12);
    oFrame.m_usDestHandle = fnWord(14);
    oFrame.m_ucSrcModule = static_cast<std::uint8_t>(strHeader[16]);
    oFrame.m_ucDestModule = static_cast<std::uint8_t>(strHeader[17]);
    oFrame.m_usSrcTask = fnWord(18);
    oFrame.m_usDestTask = fnWord(20);
    oFrame.m_usHeader = fnWord(22);
    oFrame.m_ulData = readWord32(strHeader, 24);
    return oFrame;
}

int SFrame::status() const
{
    return static_cast<int>(readWord32(m_strBody, 0));
}

SFrame registerFrame(unsigned short usProc, unsigned short usHandle, unsigned int uiBody)
{
    SFrame oFrame;
    oFrame.m_ucType = 3;
    oFrame.m_usSrcProc = usProc;
    oFrame.m_usSrcHandle = usHandle;
    return oFrame.body(word32(uiBody));
}

CRawPipe CRawPipe::connectTo(unsigned short usPort)
{
    CRawPipe oPipe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in oAddr = loopback(usPort);
    const int iOn = 1;
    setsockopt(oPipe.m_iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof iOn);
    if (connect(oPipe.m_iSocket, reinterpret_cast<const sockaddr *>(&oAddr), sizeof oAddr) != 0)
    {
        throw std::runtime_error("nothing listens on port " + std::to_string(usPort));
    }
    return oPipe;
}

CRawPipe &CRawPipe::operator=(CRawPipe &&oOther) noexcept
{
    close();
    m_iSocket = oOther.m_iSocket;
    oOther.m_iSocket = -1;
    return *this;
}

void CRawPipe::close()
{
    if (m_iSocket >= 0)
    {
        ::close(m_iSocket);
        m_iSocket = -1;
    }
}

void CRawPipe::finish()
{
    shutdown(m_iSocket, SHUT_WR);
}

void CRawPipe::resetOnClose()
{
    const linger oLinger{1, 0};
    setsockopt(m_iSocket, SOL_SOCKET, SO_LINGER, &oLinger, sizeof oLinger);
}

bool CRawPipe::send(const std::string &strBytes, Milliseconds oLimit)
{
    const auto oEnd = Clock::now() + oLimit;
    std::size_t uiSent = 0;
    while (uiSent < strBytes.size())
    {
        const ssize_t iSent =
            ::send(m_iSocket, strBytes.data() + uiSent, strBytes.size() - uiSent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (iSent > 0)
        {
            uiSent += static_cast<std::size_t>(iSent);
        }
        else if ((errno != EAGAIN && errno != EINTR) || !waitFor(m_iSocket, POLLOUT, oEnd))
        {
            return false;
        }
    }
    return true;
}

std::string CRawPipe::read(std::size_t uiLength, Milliseconds oLimit)
{
    const auto oEnd = Clock::now() + oLimit;
    std::string strBytes(uiLength, '\0');
    std::size_t uiRead = 0;
    while (uiRead < uiLength)
    {
        const ssize_t iRead = ::recv(m_iSocket, &strBytes[uiRead], uiLength - uiRead, MSG_DONTWAIT);
        if (iRead > 0)
        {
            uiRead += static_cast<std::size_t>(iRead);
        }
        else if (iRead == 0 || (errno != EAGAIN && errno != EINTR) || !waitFor(m_iSocket, POLLIN, oEnd))
        {
            break;
        }
    }
    strBytes.resize(uiRead);
    return strBytes;
}

bool CRawPipe::readFrame(SFrame &oFrame, Milliseconds oLimit)
{
    const std::string strHeader = read(28, oLimit);
    if (strHeader.size() != 28)
    {
        return false;
    }
    oFrame = SFrame::parse(strHeader);
    const std::size_t uiBody = oFrame.m_usHeader + std::size_t(oFrame.m_ulData) - 28;
    oFrame.m_strBody = read(uiBody, oLimit);
    return oFrame.m_strBody.size() == uiBody;
}

bool CRawPipe::waitClosed(Milliseconds oLimit)
{
    const auto oEnd = Clock::now() + oLimit;
    char acSkipped[4096];
    for (;;)
    {
        const ssize_t iRead = ::recv(m_iSocket, acSkipped, sizeof acSkipped, MSG_DONTWAIT);
        if (iRead == 0 || (iRead < 0 && errno != EAGAIN && errno != EINTR))
        {
            return true;
        }
        if (iRead < 0 && !waitFor(m_iSocket, POLLIN, oEnd))
        {
            return false;
        }
    }
}

int CRawPipe::registerAs(unsigned short usProc, unsigned short usHandle, unsigned int uiBody)
{
    SFrame oResponse;
    if (!send(registerFrame(usProc, usHandle, uiBody).wire()) || !readFrame(oResponse) ||
        oResponse.m_strBody.size() != 4)
    {
        return NO_ANSWER;
    }
    return oResponse.status();
}

CRawListener::CRawListener(unsigned short usPort) : m_iSocket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in oAddr = loopback(usPort);
    socklen_t uiLength = sizeof oAddr;
    const int iOn = 1;
    setsockopt(m_iSocket, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof iOn);
    if (bind(m_iSocket, reinterpret_cast<sockaddr *>(&oAddr), sizeof oAddr) != 0 || listen(m_iSocket, 1024) != 0 ||
        getsockname(m_iSocket, reinterpret_cast<sockaddr *>(&oAddr), &uiLength) != 0)
    {
        throw std::runtime_error("cannot listen on port " + std::to_string(usPort));
    }
    m_usPort = ntohs(oAddr.sin_port);
}

CRawListener::~CRawListener()
{
    ::close(m_iSocket);
}

CRawPipe CRawListener::accept(Milliseconds oLimit)
{
    if (!waitFor(m_iSocket, POLLIN, Clock::now() + oLimit))
    {
        return CRawPipe();
    }
    return CRawPipe(accept4(m_iSocket, nullptr, nullptr, SOCK_CLOEXEC));
}

CRawPipe CRawListener::acceptPipe(SFrame &oRequest, unsigned short usProc, unsigned short usHandle, int iStatus,
                                  unsigned short usAllocated)
{
    CRawPipe oPipe = accept();
    if (oPipe.isOpen() && oPipe.readFrame(oRequest))
    {
        SFrame oResponse = registerFrame(usProc, usHandle, static_cast<unsigned int>(iStatus));
        oResponse.m_usDestProc = oRequest.m_usSrcProc;
        oResponse.m_usDestHandle = usAllocated != 0 ? usAllocated : oRequest.m_usSrcHandle;
        oPipe.send(oResponse.wire());
    }
    return oPipe;
}

} // namespace zoltest
