#include "gateway/loop/ZolVekListener.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const int BACKLOG = 4096;

int reserve()
{
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

} // namespace

CZolVekListener::~CZolVekListener()
{
    close();
}

void CZolVekListener::close()
{
    if (m_iSocket >= 0)
    {
        ::close(m_iSocket);
        m_iSocket = -1;
    }
    if (m_iReserve >= 0)
    {
        ::close(m_iReserve);
        m_iReserve = -1;
    }
}

bool CZolVekListener::open(const SZolVekSettings &oSettings, std::string &strError)
{
    sockaddr_in oAddress{};
    oAddress.sin_family = AF_INET;
    oAddress.sin_port = htons(static_cast<std::uint16_t>(oSettings.m_uiListenPort));
    inet_pton(AF_INET, oSettings.m_strListenHost.c_str(), &oAddress.sin_addr);
    m_iSocket = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int iOn = 1;
    const unsigned int uiSilenceMs = oSettings.m_uiSilenceSeconds * 1000;
    // without SO_REUSEADDR a restart fails for as long as a connection of the old gateway is in TIME_WAIT
    if (m_iSocket < 0 || setsockopt(m_iSocket, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof iOn) != 0 ||
        setsockopt(m_iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof iOn) != 0 ||
        setsockopt(m_iSocket, IPPROTO_TCP, TCP_USER_TIMEOUT, &uiSilenceMs, sizeof uiSilenceMs) != 0 ||
        bind(m_iSocket, reinterpret_cast<sockaddr *>(&oAddress), sizeof oAddress) != 0 ||
        listen(m_iSocket, BACKLOG) != 0)
    {
        const int iError = errno;
        strError = "cannot listen on " + oSettings.m_strListenHost + ":" + std::to_string(oSettings.m_uiListenPort) +
                   ": " + strerrordesc_np(iError);
        close();
        return false;
    }
    socklen_t uiLength = sizeof oAddress;
    getsockname(m_iSocket, reinterpret_cast<sockaddr *>(&oAddress), &uiLength);
    m_usPort = ntohs(oAddress.sin_port);
    m_iReserve = reserve();
    return true;
}

int CZolVekListener::accept(std::uint32_t &uiAddress, std::uint16_t &usPort)
{
    m_bExhausted = false;
    m_iReserve = m_iReserve < 0 ? reserve() : m_iReserve;
    for (;;)
    {
        sockaddr_in oPeer{};
        socklen_t uiLength = sizeof oPeer;
        const int iSocket =
            accept4(m_iSocket, reinterpret_cast<sockaddr *>(&oPeer), &uiLength, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (iSocket >= 0)
        {
            uiAddress = ntohl(oPeer.sin_addr.s_addr);
            usPort = ntohs(oPeer.sin_port);
            return iSocket;
        }
        if (errno == EINTR || errno == ECONNABORTED)
        {
            continue;
        }
        if ((errno == EMFILE || errno == ENFILE) && m_iReserve >= 0 && closeOne())
        {
            continue;
        }
        m_bExhausted = errno != EAGAIN && errno != EWOULDBLOCK;
        return -1;
    }
}

bool CZolVekListener::closeOne()
{
    ::close(m_iReserve);
    const int iStarved = accept4(m_iSocket, nullptr, nullptr, SOCK_CLOEXEC);
    const int iError = errno;
    if (iStarved >= 0)
    {
        ::close(iStarved);
        ++m_ulStarved;
    }
    m_iReserve = reserve();
    errno = iError;
    return iStarved >= 0;
}
