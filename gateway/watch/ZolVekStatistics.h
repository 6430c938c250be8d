#ifndef ZOL_VEK_STATISTICS_H
#define ZOL_VEK_STATISTICS_H

#include <cstdint>

/// What the gateway has done since its start. Written by the routing thread alone.
struct SZolVekStatistics
{
    std::uint64_t m_ulFramesIn = 0;
    std::uint64_t m_ulBytesIn = 0;
    std::uint64_t m_ulFramesOut = 0; ///< taken by sockets; a publication counts once for each subscriber
    std::uint64_t m_ulBytesOut = 0;  ///< taken by sockets

    std::uint64_t m_ulDropNoRoute = 0;   ///< no pipe to the destination
    std::uint64_t m_ulDropSlow = 0;      ///< the receiver's queue was full
    std::uint64_t m_ulDropType = 0;      ///< a type that the gateway has no use for
    std::uint64_t m_ulDropForbidden = 0; ///< a command that never crosses the gateway
    std::uint64_t m_ulDropDebug = 0;     ///< a debug command of a process that may not send it
    std::uint64_t m_ulDropSource = 0;    ///< named another source than its pipe is registered under
    std::uint64_t m_ulForeignSource = 0; ///< the same, and went on
    std::uint64_t m_ulDropQueued = 0;    ///< waited for a pipe that went down
    std::uint64_t m_ulDropDraining = 0;  ///< came too late before the end, or had not left by then

    std::uint64_t m_ulAccepted = 0;     ///< connections
    std::uint64_t m_ulRegistered = 0;   ///< accepted registrations
    std::uint64_t m_ulRefusedUp = 0;    ///< -9
    std::uint64_t m_ulRefusedId = 0;    ///< -8
    std::uint64_t m_ulRefusedFull = 0;  ///< -10
    std::uint64_t m_ulRefusedDrain = 0; ///< -1
    std::uint64_t m_ulCrowdedOut = 0;   ///< connections beyond what their address may have
    std::uint64_t m_ulThrottled = 0;    ///< a source was not read because it exceeded its rate
    std::uint64_t m_ulStalls = 0;       ///< a source was not read because a queue was full
    std::uint64_t m_ulRunAborts = 0;    ///< big messages that were ended in the middle
};

#endif
