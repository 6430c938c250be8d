#ifndef ZOL_VEK_GATEWAY_H
#define ZOL_VEK_GATEWAY_H

#include "gateway/config/ZolVekSettings.h"
#include "gateway/loop/ZolVekDrain.h"
#include "gateway/loop/ZolVekFlusher.h"
#include "gateway/loop/ZolVekLargeFrames.h"
#include "gateway/loop/ZolVekNewcomers.h"
#include "gateway/loop/ZolVekRegistrar.h"
#include "gateway/loop/ZolVekSweeper.h"
#include "gateway/loop/ZolVekThrottle.h"
#include "gateway/pipe/ZolVekSession.h"
#include "gateway/route/ZolVekAgenda.h"
#include "gateway/route/ZolVekRouter.h"
#include "gateway/route/ZolVekRoutes.h"
#include "gateway/watch/ZolVekReporter.h"
#include "gateway/watch/ZolVekStatistics.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

/// The event loop: one thread, one epoll, all pipes.
///
/// A turn of one pipe is: read at most 64 KiB into the buffer that all pipes share, let the router place the frames,
/// write every outbox that got some, keep what the sockets did not take. So the buffer is free again when the turn
/// ends, and a frame that can leave at once is never copied. Pipes that have more to read take turns.
///
/// Sockets are watched by edges: readable and writable are remembered in the session, and a pipe that must wait for
/// another one is simply not read, without a call to the kernel.
///
/// Threads: all operations from the one routing thread.
class CZolVekGateway
{
public:
    using TClock = std::function<std::uint64_t()>; ///< monotonic milliseconds

    explicit CZolVekGateway(const SZolVekSettings &oSettings, TClock fnClock = TClock());
    ~CZolVekGateway();
    CZolVekGateway(const CZolVekGateway &) = delete;
    CZolVekGateway &operator=(const CZolVekGateway &) = delete;

    /// Listens. False with a line in strError.
    bool open(std::string &strError);

    std::uint16_t port() const { return m_oNewcomers.port(); }

    /// Takes over a connection that did not come through the listener. The socket must be non-blocking.
    void adopt(int iSocket, std::uint32_t uiAddress, std::uint16_t usPort);

    /// fnReadable is called from the loop whenever iHandle is readable.
    void watch(int iHandle, std::function<void()> fnReadable);

    /// Answers oExchange with snapshots from now on. It must outlive the gateway.
    void observe(CZolSnapshotExchange &oExchange);

    /// Waits for events at most iMaxWaitMs, or until something falls due, and handles them.
    void runOnce(int iMaxWaitMs);

    /// From now on registrations are refused and pipes are not read; what is queued leaves.
    void drain();

    /// Draining has come to its end: everything has left, or the time for it is over.
    bool isDone() const { return m_oDrain.isOver(); }

    /// Takes the new values that a reload may change.
    void reload(const SZolVekSettings &oSettings);

    std::uint64_t nowMs() const { return m_oAgenda.m_ulNowMs; } ///< monotonic time of the last turn

    const SZolVekSettings &settings() const { return m_oSettings; }
    const SZolVekStatistics &statistics() const { return m_oStatistics; }
    std::size_t pipes() const { return m_oRoutes.size(); }
    std::size_t connections() const { return m_oSessions.size(); }
    std::uint64_t memoryBytes() const { return m_oMemory.m_ulBytes; }

private:
    static constexpr std::size_t MAX_EVENTS = 256;
    static constexpr std::uint64_t TICK_MS = 1000;
    static constexpr std::uint64_t SHORT_TICK_MS = 20; // while somebody waits for a decision of the clock

    int waitMs(int iMaxWaitMs) const;
    bool isHurried() const;
    std::uint64_t nextTickMs() const;
    void acceptAll();
    void onEvent(CZolVekSession &oSession, std::uint32_t uiEvents);
    void turn(CZolVekSession &oSession);
    bool mayRead(const CZolVekSession &oSession) const;
    bool takeFrames(CZolVekSession &oSession);
    void closePending();
    void close(CZolVekSession &oSession);
    void deleteClosed();
    void tick();
    void dropUnplaced(CZolVekSession &oSession);
    unsigned int unregistered() const { return static_cast<unsigned int>(m_oSessions.size() - m_oRoutes.size()); }

    SZolVekSettings m_oSettings;
    TClock m_fnClock;

    SZolVekMemory m_oMemory;
    SZolVekStatistics m_oStatistics;
    SZolVekAgenda m_oAgenda;
    CZolVekRoutes m_oRoutes;
    CZolVekRouter m_oRouter;
    CZolVekRegistrar m_oRegistrar;
    CZolVekReporter m_oReporter;
    CZolVekThrottle m_oThrottle;
    CZolVekFlusher m_oFlusher;
    CZolVekNewcomers m_oNewcomers;
    CZolVekSweeper m_oSweeper;
    CZolVekDrain m_oDrain;
    CZolVekReadBuffer m_oBuffer;
    CZolVekLargeFrames m_oLargeFrames;
    std::vector<CZolVekSession *> m_oTurns; // of this round; empty between rounds
    CZolVekRateLimit m_oUnregisteredLines;  // by address

    int m_iEpoll = -1;
    std::vector<std::function<void()>> m_oWatched; // epoll names them by index, the listener by LISTENER_EVENT

    std::unordered_map<CZolVekSession *, std::unique_ptr<CZolVekSession>> m_oSessions; // all that are open
    std::vector<std::unique_ptr<CZolVekSession>> m_oClosed;                            // closed in this turn
    std::uint64_t m_ulLastSerial = 0;

    std::uint64_t m_ulLastTickMs = 0;
    std::uint64_t m_ulNextSweepMs = 0;
};

#endif
