#ifndef ZOL_VEK_LISTENER_H
#define ZOL_VEK_LISTENER_H

#include "gateway/config/ZolVekSettings.h"

#include <cstdint>
#include <string>

/// The listening socket. It keeps a descriptor in reserve: when the process runs out of them, a connection is taken
/// with that one and closed, so that it does not stand in the backlog and wake the loop for ever. Where that does not
/// help either, or the kernel has no memory for a connection, it asks for a rest.
///
/// Threads: the routing thread only.
class CZolVekListener
{
public:
    CZolVekListener() = default;
    ~CZolVekListener();
    CZolVekListener(const CZolVekListener &) = delete;
    CZolVekListener &operator=(const CZolVekListener &) = delete;

    /// Accepted connections inherit what is set here: no delay, and the time after which a silent kernel is given up.
    /// False with a line in strError.
    bool open(const SZolVekSettings &oSettings, std::string &strError);

    /// The next connection, non-blocking and closed on exec; -1 when there is none. uiAddress is in host order.
    int accept(std::uint32_t &uiAddress, std::uint16_t &usPort);

    /// accept() could not take a connection that waits: whoever watches the socket looks away for a moment.
    bool isExhausted() const { return m_bExhausted; }

    void close();

    int handle() const { return m_iSocket; }
    std::uint16_t port() const { return m_usPort; }

    /// Connections that were closed for want of a descriptor.
    std::uint64_t starved() const { return m_ulStarved; }

private:
    bool closeOne();

    int m_iSocket = -1;
    int m_iReserve = -1;
    std::uint16_t m_usPort = 0;
    std::uint64_t m_ulStarved = 0;
    bool m_bExhausted = false;
};

#endif
