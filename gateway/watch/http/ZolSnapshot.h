#ifndef ZOL_GATEWAY_HTTP_ZOLSNAPSHOT_H
#define ZOL_GATEWAY_HTTP_ZOLSNAPSHOT_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

/// One registered pipe.
struct SZolPipeView
{
    unsigned short m_usProcID = 0;
    unsigned short m_usProcHandle = 0;
    std::uint32_t m_ulAddress = 0;   ///< IPv4 address of the peer, host order
    unsigned short m_usPort = 0;     ///< port of the peer, host order
    bool m_bSlow = false;            ///< takes its messages more slowly than they come
    bool m_bSilent = false;          ///< does not answer a hello
    bool m_bHeld = false;            ///< not read at present: what it sends to is slow, or it exceeds its rate
    std::int64_t m_lSinceMs = 0;     ///< when it connected, milliseconds since the epoch; never changes
    std::int64_t m_lSilentMs = 0;    ///< milliseconds since its last byte came in
    std::uint64_t m_ulFramesIn = 0;  ///< from the process to the gateway
    std::uint64_t m_ulBytesIn = 0;   ///< header bytes included, as all bytes here
    std::uint64_t m_ulFramesOut = 0; ///< from the gateway to the process
    std::uint64_t m_ulBytesOut = 0;
    std::uint64_t m_ulFramesDropped = 0; ///< that were meant for it
    std::uint64_t m_ulQueueBytes = 0;    ///< waiting to be written to it
    std::uint64_t m_ulQueueLimitBytes = 0;
};

/// How much one pipe has sent to another through the gateway. The ends are indices into m_oPipes of the snapshot.
struct SZolEdgeView
{
    unsigned int m_uiFrom = 0;
    unsigned int m_uiTo = 0;
    std::uint64_t m_ulFrames = 0;
    std::uint64_t m_ulBytes = 0;
};

/// One subscriber of one command.
struct SZolSubscriptionView
{
    unsigned int m_ulCmdID = 0;
    unsigned short m_usProcID = 0;
    unsigned short m_usProcHandle = 0;
    unsigned char m_ucModule = 0;
    unsigned short m_usSubModuleId = 0;
};

/// A counter of a family with a fixed set of members, such as the reasons of drops. The name is a literal of letters,
/// digits, '_' and '-': it becomes a label value as it stands.
struct SZolNamedCount
{
    const char *m_pcName = "";
    std::uint64_t m_ulCount = 0;
};

/// An effective setting, as --check-config words it.
struct SZolSettingView
{
    const char *m_pcName = "";
    std::string m_strValue;
};

enum EnumZolEventLevel
{
    ZOL_EVENT_INFO = 0,
    ZOL_EVENT_WARNING = 1,
    ZOL_EVENT_ERROR = 2
};

/// What the run log also tells: connections up and down, refusals, slow consumers.
struct SZolEventView
{
    std::uint64_t m_ulNumber = 0; ///< counts up by one from the start of the gateway
    std::int64_t m_lWhenMs = 0;   ///< milliseconds since the epoch
    EnumZolEventLevel m_eLevel = ZOL_EVENT_INFO;
    std::string m_strText; ///< any bytes; whoever shows it escapes it
};

/// Time that one turn of the routing loop took, from the return of epoll to the next wait.
struct SZolLatencyView
{
    static constexpr unsigned int BUCKETS = 14;
    /// Upper bounds in seconds; one more bucket behind the last takes the rest.
    static constexpr double sm_adBounds[BUCKETS] = {0.00001, 0.000025, 0.00005, 0.0001, 0.00025, 0.0005, 0.001,
                                                    0.0025,  0.005,    0.01,    0.025,  0.1,     0.5,    2.5};
    std::uint64_t m_aulCounts[BUCKETS + 1] = {}; ///< per bucket, not cumulative
    double m_dSumSeconds = 0;
};

/// Everything that the status page and the metrics show, as the routing thread saw it at one moment. Counters count
/// from the start of the gateway and include pipes that have gone.
struct SZolGatewaySnapshot
{
    bool m_bWatched =
        false; ///< set by the asker: somebody looks at the page, so the lists below m_oPipes are wanted too

    std::int64_t m_lTakenMs = 0;   ///< milliseconds since the epoch
    std::int64_t m_lStartedMs = 0; ///< milliseconds since the epoch
    bool m_bDraining = false;

    std::uint64_t m_ulConnections = 0; ///< accepted ever, registered or not
    std::uint64_t m_ulCrowdedOut = 0;  ///< connections closed at once: their address had its share
    std::uint64_t m_ulFramesIn = 0;
    std::uint64_t m_ulBytesIn = 0;
    std::uint64_t m_ulFramesOut = 0;
    std::uint64_t m_ulBytesOut = 0;
    std::uint64_t m_ulQueueBytes = 0;
    std::uint64_t m_ulQueueLimitBytes = 0; ///< of all pipes together
    unsigned int m_uiUnregistered = 0;     ///< accepted connections that have not registered yet
    unsigned int m_uiPipesLimit = 0;
    std::uint64_t m_ulEdgeFramesLeftOut = 0; ///< between pipes for which m_oEdges had no place
    unsigned int m_uiSubscriptions = 0;      ///< all of them, also where m_oSubscriptions is cut short

    std::vector<SZolNamedCount> m_oDrops;         ///< frames by reason; every reason, also at 0
    std::vector<SZolNamedCount> m_oRegistrations; ///< by status: "0", "-1", "-8", "-9", "-10"; every one, also at 0
    SZolLatencyView m_oLatency;

    std::vector<SZolPipeView> m_oPipes;
    std::vector<SZolEdgeView> m_oEdges;
    std::vector<SZolSubscriptionView> m_oSubscriptions;
    std::vector<SZolEventView> m_oEvents; ///< the latest, oldest first
    std::vector<SZolSettingView> m_oSettings;

    /// Empties it and keeps the memory of the lists.
    void clear();
};

/// Where the HTTP thread asks for a snapshot and the routing thread leaves one. Nothing happens while nobody asks, and
/// neither side takes a lock: a record lies in one of two slots or in one thread's hands.
///
///     HTTP thread                          routing thread
///     get():  empty record -> m_poAsked
///             count        -> askedFd()    its epoll sees askedFd()
///                                          takeAsked(), fill, publish()
///             waits        <- m_iFilledFd  record -> m_poFilled
///
/// Threads: askedFd(), takeAsked(), publish() and end() the routing thread; get() one other thread. Constructed before
///          both and destroyed after both.
class CZolSnapshotExchange
{
public:
    CZolSnapshotExchange(); ///< isOpen() tells whether the descriptors could be had
    ~CZolSnapshotExchange();
    CZolSnapshotExchange(const CZolSnapshotExchange &) = delete;
    CZolSnapshotExchange &operator=(const CZolSnapshotExchange &) = delete;

    bool isOpen() const { return m_iAskedFd >= 0 && m_iFilledFd >= 0; }

    /// Becomes readable when a snapshot is wanted.
    int askedFd() const { return m_iAskedFd; }

    /// The empty record to fill, or null if none is wanted; makes askedFd() unreadable again. The caller owes a
    /// publish() of the same record.
    SZolGatewaySnapshot *takeAsked();

    /// Gives a filled record back. Never waits.
    void publish(SZolGatewaySnapshot *poFilled);

    /// There will be no more answers: get() stops waiting and gives null from now on.
    void end();

    /// A snapshot not older than oMaxAge, waiting for the routing thread for at most oWait; null if that does not
    /// answer in time. Belongs to the exchange and stays as it is until the next call.
    /// bWatched asks for the lists behind the pipes too.
    const SZolGatewaySnapshot *get(std::chrono::milliseconds oMaxAge, std::chrono::milliseconds oWait, bool bWatched);

    /// Counts the snapshots that get() has received: tells whether one that was rendered is still the present one.
    std::uint64_t number() const { return m_ulNumber; }

private:
    void ask(bool bWatched);
    bool waitFilled(std::chrono::milliseconds oWait);

    int m_iAskedFd;  // eventfd, written by get()
    int m_iFilledFd; // eventfd, written by publish()

    std::atomic<SZolGatewaySnapshot *> m_poAsked{nullptr};  // release in get(), acquire in takeAsked()
    std::atomic<SZolGatewaySnapshot *> m_poFilled{nullptr}; // release in publish(), acquire in waitFilled()

    std::atomic<bool> m_bEnded{false}; // set by end() before its signal on m_iFilledFd

    // of the thread of get()
    SZolGatewaySnapshot m_aoRecords[2];
    SZolGatewaySnapshot *m_poPresent = nullptr; // the one last received, null before the first
    bool m_bOutstanding = false;                // the other one is with the routing thread or in a slot
    std::chrono::steady_clock::time_point m_oReceived;
    bool m_bSilent = false; // the last call got no answer; m_oGivenUp is when it stopped waiting
    std::chrono::steady_clock::time_point m_oGivenUp;
    std::uint64_t m_ulNumber = 0;
};

#endif
