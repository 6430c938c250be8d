#ifndef ZOL_CONFIG_ZOLCOUNTERS_H
#define ZOL_CONFIG_ZOLCOUNTERS_H

#include <atomic>
#include <cstdint>

/// What the process has lost, by reason. Whoever drops a message adds one, relaxed, where it drops it: nothing is
/// ordered by these words, and an application reads them through zol::getStatistics.
struct SZolCounters
{
    std::atomic<std::uint64_t> m_ulNoTask{0};        ///< no such task, or createTask gave none
    std::atomic<std::uint64_t> m_ulNoManager{0};     ///< no such task manager
    std::atomic<std::uint64_t> m_ulNoConnection{0};  ///< no pipe to the destination nor to the gateway
    std::atomic<std::uint64_t> m_ulSendFailed{0};    ///< the socket refused or timed out
    std::atomic<std::uint64_t> m_ulInvalidType{0};   ///< a type that the receiver has no use for
    std::atomic<std::uint64_t> m_ulBigMsgBroken{0};  ///< blocks out of order, without their start, or too large
    std::atomic<std::uint64_t> m_ulLateResponses{0}; ///< responses whose caller had gone
    std::atomic<std::uint64_t> m_ulTaskEnded{0};     ///< waiting for a task, or on the way to it, when it ended
    std::atomic<std::uint64_t> m_ulLogLines{0};      ///< log lines that the full buffer refused
};

/// The one record of the process; never destroyed, since threads of the library outlive main.
inline SZolCounters &zolCounters()
{
    static SZolCounters *const poCounters = new SZolCounters; // NOLINT: leaked on purpose
    return *poCounters;
}

/// One more of oCounter.
inline void zolCount(std::atomic<std::uint64_t> &oCounter, std::uint64_t ulBy = 1)
{
    oCounter.fetch_add(ulBy, std::memory_order_relaxed);
}

#endif
