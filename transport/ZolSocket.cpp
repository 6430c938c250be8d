#include "transport/ZolSocket.h"

#include <ace/INET_Addr.h>
#include <ace/OS_NS_sys_time.h>
#include <cerrno>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zolsocket
{

namespace
{

void disableDelay(ACE_HANDLE oHandle)
{
    const int iOn = 1;
    setsockopt(oHandle, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof iOn);
}

// Milliseconds to the deadline, rounded up, so that a wait never ends just before it and spins.
int millisecondsTo(Deadline oDeadline)
{
    const auto oLeft = std::chrono::ceil<std::chrono::milliseconds>(oDeadline - Clock::now()).count();
    return oLeft < 0 ? 0 : static_cast<int>(oLeft);
}

bool wouldBlock()
{
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

} // namespace

ACE_HANDLE open()
{
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (iSocket < 0)
    {
        return ACE_INVALID_HANDLE;
    }
    disableDelay(iSocket);
    return iSocket;
}

void prepare(ACE_HANDLE oHandle)
{
    fcntl(oHandle, F_SETFD, FD_CLOEXEC);
    fcntl(oHandle, F_SETFL, fcntl(oHandle, F_GETFL) | O_NONBLOCK);
    disableDelay(oHandle);
}

int startConnect(ACE_HANDLE oHandle, const ACE_INET_Addr &oAddr)
{
    const auto *poAddr = static_cast<const sockaddr *>(oAddr.get_addr());
    if (connect(oHandle, poAddr, static_cast<socklen_t>(oAddr.get_size())) == 0)
    {
        return 0;
    }
    // an interrupted connect goes on in the kernel like one that does not wait
    return errno == EINPROGRESS || errno == EINTR ? 1 : -1;
}

int finishConnect(ACE_HANDLE oHandle)
{
    int iError = 0;
    socklen_t uiLength = sizeof iError;
    if (getsockopt(oHandle, SOL_SOCKET, SO_ERROR, &iError, &uiLength) != 0)
    {
        return -1;
    }
    errno = iError;
    return iError == 0 ? 0 : -1;
}

bool isOwnEcho(ACE_HANDLE oHandle)
{
    sockaddr_in oOwn{};
    sockaddr_in oPeer{};
    socklen_t uiOwn = sizeof oOwn;
    socklen_t uiPeer = sizeof oPeer;
    return getsockname(oHandle, reinterpret_cast<sockaddr *>(&oOwn), &uiOwn) == 0 &&
           getpeername(oHandle, reinterpret_cast<sockaddr *>(&oPeer), &uiPeer) == 0 &&
           oOwn.sin_port == oPeer.sin_port && oOwn.sin_addr.s_addr == oPeer.sin_addr.s_addr;
}

int wait(ACE_HANDLE oHandle, short sEvents, Deadline oDeadline)
{
    for (;;)
    {
        const int iLeft = millisecondsTo(oDeadline);
        pollfd oPoll{oHandle, sEvents, 0};
        const int iReady = poll(&oPoll, 1, iLeft);
        if (iReady > 0)
        {
            return 1;
        }
        if (iReady == 0 && millisecondsTo(oDeadline) == 0)
        {
            errno = ETIME;
            return 0;
        }
    }
}

int sendAll(ACE_HANDLE oHandle, const void *pvData, std::size_t uiLength, Deadline oDeadline, std::size_t &uiSent)
{
    const char *pcData = static_cast<const char *>(pvData);
    uiSent = 0;
    while (uiSent < uiLength)
    {
        const ssize_t iSent = ::send(oHandle, pcData + uiSent, uiLength - uiSent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (iSent > 0)
        {
            uiSent += static_cast<std::size_t>(iSent);
        }
        else if (!(iSent < 0 && errno == EINTR) && (!wouldBlock() || wait(oHandle, POLLOUT, oDeadline) == 0))
        {
            return -1;
        }
    }
    return 0;
}

std::size_t unacknowledged(ACE_HANDLE oHandle)
{
    int iBytes = 0;
    return ioctl(oHandle, SIOCOUTQ, &iBytes) == 0 && iBytes > 0 ? static_cast<std::size_t>(iBytes) : 0;
}

int recvAll(ACE_HANDLE oHandle, void *pvData, std::size_t uiLength, Deadline oDeadline)
{
    char *pcData = static_cast<char *>(pvData);
    std::size_t uiRead = 0;
    while (uiRead < uiLength)
    {
        const ssize_t iRead = ::recv(oHandle, pcData + uiRead, uiLength - uiRead, MSG_DONTWAIT);
        if (iRead > 0)
        {
            uiRead += static_cast<std::size_t>(iRead);
        }
        else if (iRead == 0)
        {
            errno = ECONNRESET;
            return -1;
        }
        else if (errno != EINTR && (!wouldBlock() || wait(oHandle, POLLIN, oDeadline) == 0))
        {
            return -1;
        }
    }
    return 0;
}

long wallSeconds()
{
    return ACE_OS::gettimeofday().sec();
}

} // namespace zolsocket
