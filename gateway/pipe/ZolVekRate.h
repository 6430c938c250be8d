#ifndef ZOL_VEK_RATE_H
#define ZOL_VEK_RATE_H

#include <algorithm>
#include <cstdint>

/// Holds what one pipe sends against a rate. Each unit, a frame or a byte, costs a thousandth of a credit that grows
/// with every millisecond, to at most what BURST_MS bring. A frame may take the credit below zero, so that one larger
/// than the burst passes too, and the pipe then waits longer. Credit holds for the limits that it was counted under:
/// with others a pipe begins anew.
class CZolVekRate
{
public:
    static constexpr std::uint64_t BURST_MS = 100;

    /// Whether the next frame may be taken now. A limit of 0 is none.
    bool mayTake(std::uint64_t ulFramesPerSecond, std::uint64_t ulBytesPerSecond, std::uint64_t ulNowMs)
    {
        const std::uint64_t ulPassedMs = std::min<std::uint64_t>(ulNowMs - m_ulLastMs, MOST_PASSED_MS);
        m_ulLastMs = ulNowMs;
        grow(m_lFrames, ulFramesPerSecond, ulPassedMs);
        grow(m_lBytes, ulBytesPerSecond, ulPassedMs);
        return (ulFramesPerSecond == 0 || m_lFrames > 0) && (ulBytesPerSecond == 0 || m_lBytes > 0);
    }

    void take(std::uint32_t uiBytes)
    {
        m_lFrames -= UNIT;
        m_lBytes -= UNIT * static_cast<std::int64_t>(uiBytes);
    }

private:
    static constexpr std::int64_t UNIT = 1000;
    static constexpr std::uint64_t MOST_PASSED_MS = 3600000; // keeps the products below in their range

    static void grow(std::int64_t &lCredit, std::uint64_t ulPerSecond, std::uint64_t ulPassedMs)
    {
        const auto lMost = std::max<std::int64_t>(UNIT, static_cast<std::int64_t>(ulPerSecond * BURST_MS));
        lCredit = std::min(lMost, lCredit + static_cast<std::int64_t>(ulPerSecond * ulPassedMs));
    }

    std::uint64_t m_ulLastMs = 0;
    std::int64_t m_lFrames = 0; // credit in thousandths
    std::int64_t m_lBytes = 0;
};

#endif
