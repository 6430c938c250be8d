#ifndef ZOL_VEK_SESSION_H
#define ZOL_VEK_SESSION_H

#include "gateway/pipe/ZolVekFrameReader.h"
#include "gateway/pipe/ZolVekOutbox.h"
#include "gateway/pipe/ZolVekRate.h"
#include "gateway/route/ZolVekFlows.h"
#include "gateway/route/ZolVekSubscriptions.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

/// Where a pipe stands.
enum EnumZolVekState
{
    VEK_UNREGISTERED, ///< connected; its register message is awaited
    VEK_PROBING,      ///< has registered under a key that is up: the old pipe is asked whether it lives
    VEK_UP,
    VEK_REFUSED, ///< has its refusal; the peer closes, or the time to register ends it
    VEK_CLOSED   ///< socket gone; the object lives to the end of the turn
};

class CZolVekSession;

/// A big message that goes out on a pipe block by block. Receivers join blocks by source alone, so while it is under
/// way blocks of other pipes under the same source wait.
struct SZolVekRun
{
    CZolVekSession *m_poOwner = nullptr;    ///< the pipe that the blocks come from
    char m_acHeader[zolwire::HEADER_BYTES]; ///< of the last block, as it left
    std::uint64_t m_ulLastMs = 0;           ///< when it left
    bool m_bLost = false;                   ///< a block was dropped: the rest goes the same way

    /// The number of the last block.
    std::uint16_t last() const { return zolwire::load16(m_acHeader + zolwire::AT_SEGMENT); }
};

/// A big publication under way: its subscribers were chosen at its first block, so that none gets a part.
struct SZolVekPublication
{
    std::vector<SZolVekSubscriber> m_oNow; ///< one for each pipe: gets each block as it comes
    std::vector<SZolVekSubscriber>
        m_oLater;                           ///< further tasks behind the same pipes: get it whole, after the last block
    std::vector<SZolVekRecord *> m_oBlocks; ///< kept for m_oLater; each with a reference
    std::uint64_t m_ulBytes = 0;            ///< of m_oBlocks
};

/// The pipe that a source keeps to for messages that name a process id alone.
struct SZolVekChoice
{
    TZolVekKey m_uiKey = 0;
    std::uint64_t m_ulSerial = 0;
};

/// One pipe: its socket, its identity, and how far its protocol has come. It decides nothing about other pipes: the
/// router does, and the gateway runs the turns.
///
/// Threads:   the routing thread only.
/// Ownership: the gateway owns sessions. A pointer to one stays good to the end of the turn in which it closes; whoever
///            keeps one longer takes it out when the session goes (CZolVekRouter::gone).
class CZolVekSession
{
public:
    CZolVekSession(int iSocket, std::uint32_t uiAddress, std::uint16_t usPort, std::uint64_t ulSerial,
                   SZolVekMemory *poMemory)
        : m_iSocket(iSocket), m_uiAddress(uiAddress), m_usPort(usPort), m_ulSerial(ulSerial), m_oReader(poMemory),
          m_oOutbox(poMemory)
    {
    }
    ~CZolVekSession();
    CZolVekSession(const CZolVekSession &) = delete;
    CZolVekSession &operator=(const CZolVekSession &) = delete;

    /// "process 7 handle 3 (127.0.0.1:4242)", or the address alone before it is up.
    std::string name() const;

    /// Reads once, at most ulMost bytes, into the reader, which must have begun a turn. Above 0 that many bytes came; 0
    /// there are none for now; -1 the pipe has ended, with the reason in strReason.
    int receive(std::size_t ulMost, std::string &strReason);

    /// Whom it sends to, from now on.
    CZolVekFlows &flows()
    {
        if (m_poFlows == nullptr)
        {
            m_poFlows = std::make_unique<CZolVekFlows>();
        }
        return *m_poFlows;
    }

    /// Bytes that the kernel of the peer has not acknowledged, the end of the stream included.
    std::uint64_t unacknowledged() const;

    /// The hello of the gateway to this process.
    void fillHello(char *pcHello) const;

    /// It is registered under the source that the frame names.
    bool isSourceOf(const CZolVekFrame &oFrame) const { return m_uiKey == oFrame.source(); }

    /// No run on this pipe stands against a frame that poFrom sends: only blocks ever wait for one, and those of the
    /// process that they name as their source wait for none.
    bool isFree(const CZolVekFrame &oFrame, const CZolVekSession *poFrom) const
    {
        if (m_poRuns == nullptr || !oFrame.isBlock() || (poFrom != nullptr && poFrom->isSourceOf(oFrame)))
        {
            return true;
        }
        const auto oFound = m_poRuns->find(oFrame.source());
        return oFound == m_poRuns->end() || oFound->second.m_poOwner == poFrom;
    }

    // Fixed at construction
    const int m_iSocket;
    const std::uint32_t m_uiAddress; ///< of the peer, host order
    const std::uint16_t m_usPort;    ///< of the peer
    const std::uint64_t m_ulSerial;  ///< tells it from a later session under the same key

    // The protocol
    EnumZolVekState m_eState = VEK_UNREGISTERED;
    TZolVekKey m_uiKey = 0; ///< id and handle; valid in VEK_UP
    CZolVekFrameReader m_oReader;
    CZolVekOutbox m_oOutbox;
    std::string m_strCloseReason; ///< why it is to be closed at the end of the turn

    // Where the event loop stands with it
    bool m_bReadable = false;           ///< the socket may have bytes
    bool m_bBlocked = false;            ///< the socket takes no bytes for now
    bool m_bReady = false;              ///< on the list of pipes to read
    bool m_bDirty = false;              ///< on the list of outboxes to flush
    bool m_bEnded = false;              ///< the peer sends no more
    bool m_bBroken = false;             ///< the connection is gone: it gets nothing more, what it sent is still read
    bool m_bFinished = false;           ///< it has got everything, and that it is the end; draining only
    bool m_bDiscard = false;            ///< what it sent is read and dropped
    bool m_bLargeUnderWay = false;      ///< in the list of CZolVekLargeFrames
    bool m_bWaitsForMemory = false;     ///< not read until its large frame may go on
    bool m_bThrottled = false;          ///< has exceeded its rate: not read until the next tick lets it go on
    int m_iError = 0;                   ///< that broke it, if a write met that
    std::uint64_t m_ulBrokenMs = 0;     ///< when it broke
    std::uint64_t m_ulUnsent = 0;       ///< frames that waited for it when it broke
    std::int64_t m_lSinceWallMs = 0;    ///< connected, milliseconds since the epoch
    std::uint64_t m_ulAskedMs = 0;      ///< since when a hello of ours is not answered by any byte; 0 is none
    std::uint64_t m_ulReceivedMs = 0;   ///< last byte from the peer
    std::uint64_t m_ulSentMs = 0;       ///< last byte that the socket took
    std::uint64_t m_ulStuckSinceMs = 0; ///< since when a waiting frame has not moved; 0 is none
    std::uint64_t m_ulFramesIn = 0;
    std::uint64_t m_ulBytesIn = 0;
    std::uint64_t m_ulFramesOut = 0;     ///< taken by its socket, as far as they are counted
    std::uint64_t m_ulFramesQueued = 0;  ///< for it
    std::uint64_t m_ulOwnIn = 0;         ///< of the frames in: hellos and questions, which go to nobody else
    std::uint64_t m_ulOwnOut = 0;        ///< of the queued ones: echoes and answers
    std::uint64_t m_ulFramesDropped = 0; ///< meant for it, and dropped because its queue was full
    std::uint64_t m_ulBytesOut = 0;

    CZolVekRate m_oRate;
    std::uint64_t m_ulLargeMs = 0;           ///< when that frame was last not read by our own choice
    std::unique_ptr<CZolVekFlows> m_poFlows; ///< whom it sends to; null until somebody looks

    // Back-pressure: this pipe is not read while it waits for another one
    CZolVekSession *m_poWaitsFor = nullptr;
    std::vector<CZolVekSession *> m_oWaiters; ///< pipes that wait for this one

    // Routing. The last destination is kept: frames come in runs to one receiver.
    TZolVekKey m_uiLastKey = 0;
    unsigned int m_uiRunsOwned = 0;       ///< runs on other pipes whose blocks come from here
    std::uint64_t m_ulLastGeneration = 0; ///< of the routes, when m_poLastTarget was found; 0 is none
    CZolVekSession *m_poLastTarget = nullptr;
    std::unique_ptr<std::unordered_map<std::uint16_t, SZolVekChoice>>
        m_poChosen;                  ///< by process id: the pipe for messages without a handle; null until there is one
    std::uint64_t m_ulKeptBytes = 0; ///< in the blocks of m_poPublications
    std::unique_ptr<std::unordered_map<TZolVekKey, SZolVekRun>> m_poRuns;                 ///< on this pipe, by source
    std::unique_ptr<std::unordered_map<TZolVekKey, SZolVekPublication>> m_poPublications; ///< from here, by source
};

#endif
