#include "gateway/pipe/ZolVekSession.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

CZolVekSession::~CZolVekSession()
{
    if (m_poPublications != nullptr)
    {
        for (auto &oPair : *m_poPublications)
        {
            for (SZolVekRecord *poRecord : oPair.second.m_oBlocks)
            {
                poRecord->drop();
            }
        }
    }
    if (m_eState != VEK_CLOSED)
    {
        close(m_iSocket);
    }
}

std::string CZolVekSession::name() const
{
    in_addr oAddress{};
    oAddress.s_addr = htonl(m_uiAddress);
    char acAddress[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &oAddress, acAddress, sizeof acAddress);
    char acName[96];
    if (m_uiKey == 0)
    {
        snprintf(acName, sizeof acName, "%s:%u", acAddress, m_usPort);
    }
    else
    {
        snprintf(acName, sizeof acName, "process %u handle %u (%s:%u)", zolVekProcOf(m_uiKey), zolVekHandleOf(m_uiKey),
                 acAddress, m_usPort);
    }
    return acName;
}

int CZolVekSession::receive(std::size_t ulMost, std::string &strReason)
{
    const std::size_t ulRoom = std::min(ulMost, m_oReader.room());
    ssize_t lRead = 0;
    do
    {
        lRead = recv(m_iSocket, m_oReader.space(), ulRoom, MSG_DONTWAIT);
    } while (lRead < 0 && errno == EINTR);
    if (lRead > 0)
    {
        m_oReader.filled(static_cast<std::size_t>(lRead));
        // a short read has emptied the socket; what comes later is an event of its own, but the end of the stream may
        // have been announced already
        m_bReadable = static_cast<std::size_t>(lRead) == ulRoom || m_bEnded;
        return static_cast<int>(lRead);
    }
    m_bReadable = false;
    if (lRead < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
    {
        return 0;
    }
    char acReason[128];
    if (lRead < 0)
    {
        const int iError = errno;
        snprintf(acReason, sizeof acReason, "%s", strerrordesc_np(iError));
    }
    else if (m_iError != 0)
    {
        snprintf(acReason, sizeof acReason, "%s", strerrordesc_np(m_iError));
    }
    else if (m_oReader.pendingBytes() == 0)
    {
        snprintf(acReason, sizeof acReason, "closed by the peer");
    }
    else
    {
        snprintf(acReason, sizeof acReason, "closed by the peer in the middle of a frame, after %zu bytes of it",
                 m_oReader.pendingBytes());
    }
    strReason = acReason;
    return -1;
}

std::uint64_t CZolVekSession::unacknowledged() const
{
    int iBytes = 0;
    return ioctl(m_iSocket, SIOCOUTQ, &iBytes) == 0 && iBytes > 0 ? static_cast<std::uint64_t>(iBytes) : 0;
}

void CZolVekSession::fillHello(char *pcHello) const
{
    std::memset(pcHello, 0, zolwire::HEADER_BYTES);
    pcHello[zolwire::AT_VERSION] = 1;
    pcHello[zolwire::AT_TYPE] = CZolMsgPdu::MSG_HELLO;
    zolwire::store16(pcHello + zolwire::AT_DEST_PROC, zolVekProcOf(m_uiKey));
    zolwire::store16(pcHello + zolwire::AT_DEST_HANDLE, zolVekHandleOf(m_uiKey));
    zolwire::store16(pcHello + zolwire::AT_HEADER_LENGTH, zolwire::HEADER_BYTES);
}
