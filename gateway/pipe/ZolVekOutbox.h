#ifndef ZOL_VEK_OUTBOX_H
#define ZOL_VEK_OUTBOX_H

#include "gateway/pipe/ZolVekFrame.h"
#include "gateway/pipe/ZolVekRecord.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// The address that a publication gets on its way to one subscriber.
struct SZolVekAddress
{
    TZolVekKey m_uiProcess = 0;
    std::uint8_t m_ucModule = 0;
    std::uint16_t m_usTask = 0;
    std::uint8_t m_ucType = 0; ///< 0: the frame leaves as it is
};

/// Gives a header, in wire order, the type and destination of a subscriber.
inline void zolVekPatch(char *pcHeader, const SZolVekAddress &oAddress)
{
    pcHeader[zolwire::AT_TYPE] = static_cast<char>(oAddress.m_ucType);
    zolwire::store16(pcHeader + zolwire::AT_DEST_PROC, zolVekProcOf(oAddress.m_uiProcess));
    zolwire::store16(pcHeader + zolwire::AT_DEST_HANDLE, zolVekHandleOf(oAddress.m_uiProcess));
    pcHeader[zolwire::AT_DEST_MODULE] = static_cast<char>(oAddress.m_ucModule);
    zolwire::store16(pcHeader + zolwire::AT_DEST_TASK, oAddress.m_usTask);
}

/// What a flush came to.
enum EnumZolVekFlush
{
    VEK_FLUSH_DONE,    ///< nothing is left
    VEK_FLUSH_BLOCKED, ///< the socket takes no more for now
    VEK_FLUSH_BROKEN   ///< the pipe is gone
};

/// Frames that wait for one pipe, oldest first, whole.
///
/// Three kinds of items: a *span* of bytes in the read buffer that lives for the present turn only, a *chunk* of bytes
/// of the outbox's own, a *record* that other outboxes may share. addBytes() makes spans, and the usual flush at the
/// end of the turn writes them from where they were read, without a copy. What the socket does not take settle() copies
/// to chunks, which is why a pipe at rest owns no memory but this object.
///
///     items   [ chunk, 812 of 4096 bytes sent ][ record, patched for task 7 ][ span ][ span ]
///             ^ m_uiHead, m_uiHeadDone = 812                                 only within a turn
///
/// Threads:   the routing thread only.
/// Order:     that of adding; only a hello passes, and it never cuts into a frame.
class CZolVekOutbox
{
public:
    explicit CZolVekOutbox(SZolVekMemory *poMemory) : m_poMemory(poMemory) {}
    ~CZolVekOutbox();
    CZolVekOutbox(const CZolVekOutbox &) = delete;
    CZolVekOutbox &operator=(const CZolVekOutbox &) = delete;

    /// A frame that stays where it is until settle().
    void addBytes(const char *pcData, std::uint32_t uiLength);

    /// A frame whose bytes the caller reuses at once.
    void addCopy(const char *pcData, std::uint32_t uiLength);

    /// One frame; the outbox takes a reference of its own.
    void addRecord(SZolVekRecord *poRecord, const SZolVekAddress &oAddress);

    /// A hello of 28 bytes, always the same: goes ahead of all frames of which no byte has left.
    void addHello(const char *pcHello);

    /// Writes to iSocket until all is out or the socket takes no more. ulWritten grows by what it took.
    EnumZolVekFlush flush(int iSocket, std::uint64_t &ulWritten);

    /// Copies what the read buffer still holds of this outbox. To be called before that buffer is used again.
    void settle();

    /// Forgets all that waits.
    void clear();

    /// Gives back the memory that an empty list keeps for its next use.
    void shrink();

    bool isEmpty() const { return !hasItems() && m_uiHellos == 0; }

    /// Bytes waiting, and what the list of them takes: what the bound of a pipe is held against.
    std::uint64_t bytes() const { return m_ulBytes; }

    /// Frames of which not every byte has left, without hellos. Walks over all of them.
    std::uint64_t frames() const;

    /// Frames that sockets have taken, hellos included. Those of a chunk count when all of it is taken, or at clear():
    /// telling them apart would cost a walk with each flush of a backlog.
    std::uint64_t sent() const { return m_ulSent; }

    /// Hellos among the waiting frames.
    unsigned int hellos() const { return m_uiHellos; }

private:
    enum EnumKind : std::uint8_t
    {
        KIND_SPAN,
        KIND_CHUNK,
        KIND_RECORD
    };
    struct SItem
    {
        union
        {
            const char *m_pcSpan;
            char *m_pcChunk; // owned
            SZolVekRecord *m_poRecord;
        };
        std::uint32_t m_uiLength;
        std::uint32_t m_uiCapacity; // chunk: bytes allocated
        std::uint32_t m_uiFrames;   // that it holds
        EnumKind m_eKind;
        SZolVekAddress m_oAddress; // record only
    };
    class CGather;

    bool hasItems() const { return m_uiHead < m_oItems.size(); }
    static std::uint32_t overheadOf(const SItem &oItem);
    static SItem item(EnumKind eKind, std::uint32_t uiLength);
    void grow(SItem &oChunk, std::uint32_t uiCapacity);
    const char *bytesOf(const SItem &oItem) const;
    std::uint32_t frameEnd(const SItem &oItem, std::uint32_t uiDone) const;
    std::uint32_t helloPlace() const;
    void gather(CGather &oGather) const;
    void copyIn(const char *pcData, std::uint32_t uiLength, std::uint32_t uiFrames);
    void cutSentFrames(SItem &oSpan);
    void push(const SItem &oItem);
    void release(SItem &oItem);
    void consume(std::size_t ulBytes);
    void consumeItems(std::size_t ulBytes);
    void trim();

    SZolVekMemory *const m_poMemory;

    std::vector<SItem> m_oItems; // live from m_uiHead on
    std::uint32_t m_uiHead = 0;
    std::uint32_t m_uiHeadDone = 0; // bytes of the first live item that have left
    std::uint32_t m_uiSpans = 0;    // spans among the items; they are the youngest, but for records of the same turn

    // Hellos stand beside the items, so that one costs the same however long the list is.
    std::unique_ptr<char[]> m_pcHello; // null until there is one, and again after shrink()
    std::uint32_t m_uiHellos = 0;
    std::uint32_t m_uiHelloDone = 0; // bytes of the first one that have left

    std::uint64_t m_ulBytes = 0;
    std::uint64_t m_ulAdded = 0; // frames ever
    std::uint64_t m_ulSent = 0;  // of them those in items that have left
};

#endif
