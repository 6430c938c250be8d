#ifndef ZOL_VEK_FRAME_READER_H
#define ZOL_VEK_FRAME_READER_H

#include "gateway/pipe/ZolVekFrame.h"
#include "gateway/pipe/ZolVekRecord.h"

#include <cstddef>
#include <memory>

/// What next() found.
enum EnumZolVekRead
{
    VEK_READ_FRAME,  ///< a whole frame
    VEK_READ_MORE,   ///< the rest of a frame has not come yet
    VEK_READ_DAMAGED ///< a header that no frame can have: the stream cannot go on
};

/// The buffer that all pipes are read into, one after the other: 64 KiB for a read, and room in front of it for what
/// the last read of that pipe left over.
class CZolVekReadBuffer
{
public:
    static constexpr std::size_t READ_BYTES = 64 * 1024; ///< the most that one read takes
    static constexpr std::size_t BYTES = 3 * READ_BYTES;

    CZolVekReadBuffer() : m_pcData(new char[BYTES]) {}
    char *data() { return m_pcData.get(); }

private:
    std::unique_ptr<char[]> m_pcData;
};

/// Cuts the byte stream of one pipe into frames, where they lie.
///
/// A turn:    begin(buffer), then read at most room() bytes to space() and tell filled(), then next() until it wants
///            more, then end(). A turn without reading looks at what the last one kept.
/// Memory:    between turns the reader owns just the bytes of an unfinished frame and those of whole frames that the
///            turn did not take; a pipe at rest owns nothing. A frame of more than DIRECT_BYTES is read straight into a
///            record of its own.
/// Frames:    valid until end(). The header length is at least 28, the sum at most the limit.
class CZolVekFrameReader
{
public:
    static constexpr std::uint32_t DIRECT_BYTES = 64 * 1024;    ///< larger frames get memory of their own
    static constexpr std::size_t LARGE_READ_BYTES = 256 * 1024; ///< of such a frame in one turn, for the sake of others

    explicit CZolVekFrameReader(SZolVekMemory *poMemory) : m_poMemory(poMemory) {}
    ~CZolVekFrameReader();
    CZolVekFrameReader(const CZolVekFrameReader &) = delete;
    CZolVekFrameReader &operator=(const CZolVekFrameReader &) = delete;

    void begin(CZolVekReadBuffer &oBuffer);
    char *space();
    std::size_t room() const;
    void filled(std::size_t ulBytes);

    /// uiMaxBytes is the limit of a frame, header included. The frame taken last is consumed by the next call; a caller
    /// that cannot place it says so with undo() before end().
    EnumZolVekRead next(CZolVekFrame &oFrame, std::uint32_t uiMaxBytes);

    /// The frame that next() gave last was not taken: it comes again in the next turn.
    void undo();

    void end();

    /// Bytes that belong to no frame that was taken: an unfinished one, and whole ones that had to wait.
    std::size_t pendingBytes() const
    {
        return m_poLarge != nullptr ? m_uiLargeFilled : m_uiKept + (m_ulEnd - m_ulBegin);
    }

    /// The length that the stream announced, for the log line about a damaged one.
    std::uint64_t announcedBytes() const { return m_ulAnnounced; }

    /// A frame that has memory of its own has begun, and some of its bytes are still to come.
    bool isLargeUnderWay() const { return m_poLarge != nullptr && m_uiLargeFilled < m_poLarge->m_uiLength; }

private:
    EnumZolVekRead startLarge(std::uint32_t uiLength);

    SZolVekMemory *const m_poMemory;

    char *m_pcBuffer = nullptr; // the shared buffer, during a turn only
    std::size_t m_ulBegin = 0;  // first byte in it that no frame has taken
    std::size_t m_ulEnd = 0;    // behind the last byte read

    std::unique_ptr<char[]> m_pcKept; // between turns: bytes that belong to no frame yet
    std::uint32_t m_uiKept = 0;
    std::uint32_t m_uiLast = 0; // length of the frame that next() gave last, in the present turn

    SZolVekRecord *m_poLarge = nullptr; // a large frame under way, or done and not yet taken
    std::uint32_t m_uiLargeFilled = 0;
    bool m_bLargeGiven = false; // next() has given it out in this turn
    std::uint64_t m_ulAnnounced = 0;
};

#endif
