#include "gateway/pipe/ZolVekOutbox.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <sys/uio.h>

namespace
{

const std::uint32_t CHUNK_BYTES = 64 * 1024;
const std::uint32_t ITEM_BYTES = 64; // what an item takes in the list, with the room that the list keeps for more

constexpr std::size_t HELLO_BYTES = zolwire::HEADER_BYTES;

/// Below this a piece is copied beside its neighbours: a copy of that size costs less than one more element of writev.
const std::uint32_t SMALL_PIECE_BYTES = 1024;

/// Of a frame that a reader has found whole.
std::uint32_t frameLength(const char *pcFrame)
{
    return zolwire::load16(pcFrame + zolwire::AT_HEADER_LENGTH) + zolwire::load32(pcFrame + zolwire::AT_DATA_LENGTH);
}

/// What the frames at pcFrames take of uiRoom, as many as fit whole, and how many those are; together they are longer.
std::uint32_t wholeFrames(const char *pcFrames, std::uint32_t uiRoom, std::uint32_t &uiFrames)
{
    std::uint32_t uiWhole = 0;
    uiFrames = 0;
    for (std::uint32_t uiNext = frameLength(pcFrames); uiNext <= uiRoom; uiNext += frameLength(pcFrames + uiNext))
    {
        uiWhole = uiNext;
        ++uiFrames;
    }
    return uiWhole;
}

} // namespace

/// Collects the next bytes of the queue for one writev: large pieces from where they lie, small and patched ones side
/// by side in a scratch buffer that all outboxes of the thread share.
class CZolVekOutbox::CGather
{
public:
    static constexpr std::size_t MAX_PIECES = 64;
    static constexpr std::size_t MAX_BYTES = 256 * 1024;
    static constexpr std::size_t SCRATCH_BYTES = 128 * 1024;

    bool isFull(std::size_t ulNext) const
    {
        return m_ulPieces + 2 > MAX_PIECES || (m_ulBytes > 0 && m_ulBytes + ulNext > MAX_BYTES) ||
               m_ulScratch + zolwire::HEADER_BYTES + SMALL_PIECE_BYTES > SCRATCH_BYTES;
    }

    void add(const char *pcData, std::size_t ulLength)
    {
        if (ulLength < SMALL_PIECE_BYTES)
        {
            std::memcpy(copyTo(ulLength), pcData, ulLength);
            return;
        }
        m_aoPieces[m_ulPieces].iov_base = const_cast<char *>(pcData);
        m_aoPieces[m_ulPieces].iov_len = ulLength;
        ++m_ulPieces;
        m_ulBytes += ulLength;
    }

    /// The record as its subscriber gets it, without the first uiDone bytes.
    void addRecord(const SItem &oItem, std::uint32_t uiDone)
    {
        const SZolVekRecord &oRecord = *oItem.m_poRecord;
        const SZolVekAddress &oAddress = oItem.m_oAddress;
        if (oAddress.m_ucType == 0 || uiDone >= zolwire::HEADER_BYTES)
        {
            add(oRecord.m_pcData + uiDone, oRecord.m_uiLength - uiDone);
            return;
        }
        char acHeader[zolwire::HEADER_BYTES];
        std::memcpy(acHeader, oRecord.m_pcData, sizeof acHeader);
        zolVekPatch(acHeader, oAddress);
        std::memcpy(copyTo(zolwire::HEADER_BYTES - uiDone), acHeader + uiDone, zolwire::HEADER_BYTES - uiDone);
        if (oRecord.m_uiLength > zolwire::HEADER_BYTES)
        {
            add(oRecord.m_pcData + zolwire::HEADER_BYTES, oRecord.m_uiLength - zolwire::HEADER_BYTES);
        }
    }

    ssize_t write(int iSocket)
    {
        if (m_ulPieces == 1)
        {
            return send(iSocket, m_aoPieces[0].iov_base, m_aoPieces[0].iov_len, MSG_NOSIGNAL | MSG_DONTWAIT);
        }
        msghdr oMessage{};
        oMessage.msg_iov = m_aoPieces;
        oMessage.msg_iovlen = m_ulPieces;
        return sendmsg(iSocket, &oMessage, MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    std::size_t bytes() const { return m_ulBytes; }

private:
    char *copyTo(std::size_t ulLength)
    {
        static thread_local char acScratch[SCRATCH_BYTES];
        char *const pcAt = acScratch + m_ulScratch;
        m_ulScratch += ulLength;
        m_ulBytes += ulLength;
        if (m_ulPieces > 0)
        {
            iovec &oLast = m_aoPieces[m_ulPieces - 1];
            if (static_cast<char *>(oLast.iov_base) + oLast.iov_len == pcAt)
            {
                oLast.iov_len += ulLength;
                return pcAt;
            }
        }
        m_aoPieces[m_ulPieces].iov_base = pcAt;
        m_aoPieces[m_ulPieces].iov_len = ulLength;
        ++m_ulPieces;
        return pcAt;
    }

    iovec m_aoPieces[MAX_PIECES];
    std::size_t m_ulPieces = 0;
    std::size_t m_ulBytes = 0;
    std::size_t m_ulScratch = 0;
};

CZolVekOutbox::~CZolVekOutbox()
{
    for (std::size_t ulAt = m_uiHead; ulAt < m_oItems.size(); ++ulAt)
    {
        release(m_oItems[ulAt]);
    }
}

CZolVekOutbox::SItem CZolVekOutbox::item(EnumKind eKind, std::uint32_t uiLength)
{
    SItem oItem{};
    oItem.m_eKind = eKind;
    oItem.m_uiLength = uiLength;
    oItem.m_uiFrames = 1;
    return oItem;
}

std::uint32_t CZolVekOutbox::overheadOf(const SItem &oItem)
{
    return ITEM_BYTES + (oItem.m_eKind == KIND_RECORD ? SZolVekRecord::OVERHEAD_BYTES : 0);
}

void CZolVekOutbox::push(const SItem &oItem)
{
    m_oItems.push_back(oItem);
    m_ulBytes += oItem.m_uiLength + overheadOf(oItem);
    m_poMemory->m_ulBytes += ITEM_BYTES;
}

void CZolVekOutbox::addBytes(const char *pcData, std::uint32_t uiLength)
{
    ++m_ulAdded;
    if (hasItems())
    {
        SItem &oLast = m_oItems.back();
        if (oLast.m_eKind == KIND_SPAN && oLast.m_pcSpan + oLast.m_uiLength == pcData)
        {
            oLast.m_uiLength += uiLength;
            ++oLast.m_uiFrames;
            m_ulBytes += uiLength;
            return;
        }
    }
    SItem oItem = item(KIND_SPAN, uiLength);
    oItem.m_pcSpan = pcData;
    push(oItem);
    ++m_uiSpans;
}

void CZolVekOutbox::addRecord(SZolVekRecord *poRecord, const SZolVekAddress &oAddress)
{
    ++m_ulAdded;
    poRecord->take();
    SItem oItem = item(KIND_RECORD, poRecord->m_uiLength);
    oItem.m_poRecord = poRecord;
    oItem.m_oAddress = oAddress;
    push(oItem);
}

void CZolVekOutbox::grow(SItem &oChunk, std::uint32_t uiCapacity)
{
    char *const pcLarger = new char[uiCapacity];
    std::memcpy(pcLarger, oChunk.m_pcChunk, oChunk.m_uiLength);
    delete[] oChunk.m_pcChunk;
    m_poMemory->m_ulBytes += uiCapacity - oChunk.m_uiCapacity;
    oChunk.m_pcChunk = pcLarger;
    oChunk.m_uiCapacity = uiCapacity;
}

void CZolVekOutbox::addCopy(const char *pcData, std::uint32_t uiLength)
{
    ++m_ulAdded;
    copyIn(pcData, uiLength, 1);
}

void CZolVekOutbox::copyIn(const char *pcData, std::uint32_t uiLength, std::uint32_t uiFrames)
{
    // A chunk begins as large as its first frames and doubles, so that a list of records with little between them takes
    // no more than it holds; a backlog that has filled a chunk, to the last frame that fits, fills another.
    std::uint32_t uiCapacity = uiLength;
    if (hasItems() && m_oItems.back().m_eKind == KIND_CHUNK)
    {
        SItem &oLast = m_oItems.back();
        const std::uint32_t uiRoom = std::max(CHUNK_BYTES, oLast.m_uiCapacity) - oLast.m_uiLength;
        std::uint32_t uiFramesIn = uiFrames;
        const std::uint32_t uiFits = uiLength <= uiRoom ? uiLength : wholeFrames(pcData, uiRoom, uiFramesIn);
        const std::uint32_t uiTogether = oLast.m_uiLength + uiFits;
        if (uiTogether > oLast.m_uiCapacity)
        {
            grow(oLast, std::min(CHUNK_BYTES, std::max(2 * oLast.m_uiCapacity, uiTogether)));
        }
        std::memcpy(oLast.m_pcChunk + oLast.m_uiLength, pcData, uiFits);
        oLast.m_uiLength = uiTogether;
        oLast.m_uiFrames += uiFramesIn;
        m_ulBytes += uiFits;
        if (uiFits == uiLength)
        {
            return;
        }
        pcData += uiFits;
        uiLength -= uiFits;
        uiFrames -= uiFramesIn;
        uiCapacity = std::max(CHUNK_BYTES, uiLength);
    }
    SItem oItem = item(KIND_CHUNK, uiLength);
    oItem.m_uiCapacity = uiCapacity;
    oItem.m_uiFrames = uiFrames;
    oItem.m_pcChunk = new char[uiCapacity];
    std::memcpy(oItem.m_pcChunk, pcData, uiLength);
    m_poMemory->m_ulBytes += uiCapacity;
    push(oItem);
}

void CZolVekOutbox::settle()
{
    if (m_uiSpans == 0)
    {
        return;
    }
    // a backlog may be long, the spans are at its end
    std::size_t ulFirst = m_oItems.size();
    for (std::uint32_t uiSeen = 0; uiSeen < m_uiSpans;)
    {
        --ulFirst;
        uiSeen += m_oItems[ulFirst].m_eKind == KIND_SPAN ? 1 : 0;
    }
    if (ulFirst == m_uiHead)
    {
        cutSentFrames(m_oItems[ulFirst]);
    }
    std::vector<SItem> oYoungest(m_oItems.begin() + static_cast<std::ptrdiff_t>(ulFirst), m_oItems.end());
    m_oItems.resize(ulFirst);
    for (const SItem &oItem : oYoungest)
    {
        if (oItem.m_eKind != KIND_SPAN)
        {
            m_oItems.push_back(oItem);
            continue;
        }
        m_ulBytes -= oItem.m_uiLength + ITEM_BYTES;
        m_poMemory->m_ulBytes -= ITEM_BYTES;
        copyIn(oItem.m_pcSpan, oItem.m_uiLength, oItem.m_uiFrames);
    }
    m_uiSpans = 0;
}

void CZolVekOutbox::cutSentFrames(SItem &oSpan)
{
    std::uint32_t uiStart = 0;
    std::uint32_t uiSent = 0;
    for (std::uint32_t uiNext = frameLength(oSpan.m_pcSpan); uiNext <= m_uiHeadDone && uiNext < oSpan.m_uiLength;)
    {
        uiStart = uiNext;
        ++uiSent;
        uiNext += frameLength(oSpan.m_pcSpan + uiNext);
    }
    oSpan.m_uiFrames -= uiSent;
    m_ulSent += uiSent;
    // the frame on its way stays whole: an item begins where a frame begins
    oSpan.m_pcSpan += uiStart;
    oSpan.m_uiLength -= uiStart;
    m_uiHeadDone -= uiStart;
}

const char *CZolVekOutbox::bytesOf(const SItem &oItem) const
{
    switch (oItem.m_eKind)
    {
    case KIND_SPAN:
        return oItem.m_pcSpan;
    case KIND_CHUNK:
        return oItem.m_pcChunk;
    default:
        return oItem.m_poRecord->m_pcData;
    }
}

std::uint32_t CZolVekOutbox::frameEnd(const SItem &oItem, std::uint32_t uiDone) const
{
    if (oItem.m_eKind == KIND_RECORD)
    {
        return uiDone == 0 ? 0 : oItem.m_uiLength;
    }
    const char *const pcBytes = bytesOf(oItem);
    std::uint32_t uiAt = 0;
    while (uiAt < uiDone)
    {
        uiAt += frameLength(pcBytes + uiAt);
    }
    return uiAt;
}

void CZolVekOutbox::addHello(const char *pcHello)
{
    if (m_pcHello == nullptr)
    {
        m_pcHello = std::make_unique<char[]>(HELLO_BYTES);
    }
    std::memcpy(m_pcHello.get(), pcHello, HELLO_BYTES);
    m_ulBytes += HELLO_BYTES;
    ++m_uiHellos;
    ++m_ulAdded;
}

/// Bytes of the first item that go ahead of the hellos: those that have left, and the rest of a frame on its way.
std::uint32_t CZolVekOutbox::helloPlace() const
{
    return m_uiHelloDone > 0 || !hasItems() ? m_uiHeadDone : frameEnd(m_oItems[m_uiHead], m_uiHeadDone);
}

void CZolVekOutbox::release(SItem &oItem)
{
    m_poMemory->m_ulBytes -= ITEM_BYTES;
    switch (oItem.m_eKind)
    {
    case KIND_SPAN:
        --m_uiSpans;
        break;
    case KIND_CHUNK:
        m_poMemory->m_ulBytes -= oItem.m_uiCapacity;
        delete[] oItem.m_pcChunk;
        break;
    case KIND_RECORD:
        oItem.m_poRecord->drop();
        break;
    }
}

void CZolVekOutbox::consume(std::size_t ulBytes)
{
    if (m_uiHellos > 0)
    {
        const std::size_t ulAhead = std::min<std::size_t>(ulBytes, helloPlace() - m_uiHeadDone);
        consumeItems(ulAhead);
        const std::size_t ulHellos = std::min(ulBytes - ulAhead, m_uiHellos * HELLO_BYTES - m_uiHelloDone);
        const std::size_t ulDone = m_uiHelloDone + ulHellos;
        m_uiHellos -= static_cast<std::uint32_t>(ulDone / HELLO_BYTES);
        m_ulSent += ulDone / HELLO_BYTES;
        m_uiHelloDone = static_cast<std::uint32_t>(ulDone % HELLO_BYTES);
        m_ulBytes -= ulHellos;
        ulBytes -= ulAhead + ulHellos;
    }
    consumeItems(ulBytes);
}

void CZolVekOutbox::consumeItems(std::size_t ulBytes)
{
    while (ulBytes > 0)
    {
        SItem &oHead = m_oItems[m_uiHead];
        const std::uint32_t uiLeft = oHead.m_uiLength - m_uiHeadDone;
        if (ulBytes < uiLeft)
        {
            m_uiHeadDone += static_cast<std::uint32_t>(ulBytes);
            m_ulBytes -= ulBytes;
            return;
        }
        ulBytes -= uiLeft;
        m_ulBytes -= uiLeft + overheadOf(oHead);
        m_uiHeadDone = 0;
        m_ulSent += oHead.m_uiFrames;
        release(oHead);
        ++m_uiHead;
    }
}

void CZolVekOutbox::trim()
{
    if (!hasItems())
    {
        m_uiHead = 0;
        m_oItems.clear();
        return;
    }
    if (m_uiHead > 1024 && m_uiHead > m_oItems.size() / 2)
    {
        m_oItems.erase(m_oItems.begin(), m_oItems.begin() + static_cast<std::ptrdiff_t>(m_uiHead));
        m_uiHead = 0;
    }
}

std::uint64_t CZolVekOutbox::frames() const
{
    std::uint64_t ulFrames = 0;
    for (std::size_t ulAt = m_uiHead; ulAt < m_oItems.size(); ++ulAt)
    {
        const SItem &oItem = m_oItems[ulAt];
        if (oItem.m_eKind == KIND_RECORD)
        {
            ++ulFrames;
            continue;
        }
        const char *const pcBytes = bytesOf(oItem);
        const std::uint32_t uiDone = ulAt == m_uiHead ? m_uiHeadDone : 0;
        for (std::uint32_t uiFrame = 0; uiFrame < oItem.m_uiLength;)
        {
            uiFrame += frameLength(pcBytes + uiFrame);
            ulFrames += uiFrame > uiDone ? 1 : 0;
        }
    }
    return ulFrames;
}

void CZolVekOutbox::clear()
{
    m_ulSent = m_ulAdded - frames() - m_uiHellos; // to the frame, also in a chunk that has left in part
    m_ulAdded = m_ulSent;
    for (std::size_t ulAt = m_uiHead; ulAt < m_oItems.size(); ++ulAt)
    {
        release(m_oItems[ulAt]);
    }
    m_oItems.clear();
    m_uiHead = 0;
    m_uiHeadDone = 0;
    m_uiHellos = 0;
    m_uiHelloDone = 0;
    m_ulBytes = 0;
}

void CZolVekOutbox::shrink()
{
    if (isEmpty())
    {
        std::vector<SItem>().swap(m_oItems);
        m_pcHello.reset();
    }
}

void CZolVekOutbox::gather(CGather &oGather) const
{
    std::size_t ulAt = m_uiHead;
    std::uint32_t uiDone = m_uiHeadDone;
    if (m_uiHellos > 0)
    {
        const std::uint32_t uiPlace = helloPlace();
        if (uiPlace > uiDone)
        {
            const SItem &oHead = m_oItems[ulAt];
            oHead.m_eKind == KIND_RECORD ? oGather.addRecord(oHead, uiDone)
                                         : oGather.add(bytesOf(oHead) + uiDone, uiPlace - uiDone);
            uiDone = uiPlace;
        }
        oGather.add(m_pcHello.get() + m_uiHelloDone, HELLO_BYTES - m_uiHelloDone);
        for (std::uint32_t uiHello = 1; uiHello < m_uiHellos; ++uiHello)
        {
            if (oGather.isFull(HELLO_BYTES))
            {
                return;
            }
            oGather.add(m_pcHello.get(), HELLO_BYTES);
        }
        if (hasItems() && uiDone == m_oItems[ulAt].m_uiLength)
        {
            ++ulAt;
            uiDone = 0;
        }
    }
    for (; ulAt < m_oItems.size(); ++ulAt)
    {
        const SItem &oItem = m_oItems[ulAt];
        if (oGather.isFull(oItem.m_uiLength - uiDone))
        {
            return;
        }
        if (oItem.m_eKind == KIND_RECORD)
        {
            oGather.addRecord(oItem, uiDone);
        }
        else
        {
            oGather.add(bytesOf(oItem) + uiDone, oItem.m_uiLength - uiDone);
        }
        uiDone = 0;
    }
}

EnumZolVekFlush CZolVekOutbox::flush(int iSocket, std::uint64_t &ulWritten)
{
    while (!isEmpty())
    {
        CGather oGather;
        gather(oGather);
        const ssize_t lSent = oGather.write(iSocket);
        if (lSent < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            return errno == EAGAIN || errno == EWOULDBLOCK ? VEK_FLUSH_BLOCKED : VEK_FLUSH_BROKEN;
        }
        ulWritten += static_cast<std::uint64_t>(lSent);
        consume(static_cast<std::size_t>(lSent));
        trim();
        if (static_cast<std::size_t>(lSent) < oGather.bytes())
        {
            return VEK_FLUSH_BLOCKED;
        }
    }
    return VEK_FLUSH_DONE;
}
