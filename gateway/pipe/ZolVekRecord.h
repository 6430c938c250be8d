#ifndef ZOL_VEK_RECORD_H
#define ZOL_VEK_RECORD_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

/// Memory that frames occupy in the gateway: what the total bound is held against.
struct SZolVekMemory
{
    std::uint64_t m_ulBytes = 0;
};

/// One frame that several pipes are owed, or that is too large for the shared read buffer: one copy in memory however
/// many outboxes refer to it.
///
/// Threads:   the routing thread only, so the count is a plain number.
/// Ownership: by m_uiRefs. A record starts with one, its creator's.
/// A record may be born as a view of the read buffer (borrow). Before that buffer is used again whoever made it calls
/// keep(), which copies the bytes only if an outbox still wants them.
struct SZolVekRecord
{
    static constexpr std::uint32_t OVERHEAD_BYTES = 64; ///< what it takes beside its bytes

    const char *m_pcData;
    char *m_pcOwned; // the same bytes if they are the record's own, else null
    std::uint32_t m_uiLength;
    std::uint32_t m_uiRefs;
    SZolVekMemory *m_poMemory;
    std::uint32_t m_uiCounted = 0; // bytes of its own that count in m_poMemory

    /// A view of bytes that somebody else owns for now.
    static SZolVekRecord *borrow(const char *pcData, std::uint32_t uiLength, SZolVekMemory *poMemory)
    {
        return new SZolVekRecord{pcData, nullptr, uiLength, 1, poMemory};
    }

    /// Room for a frame of uiLength bytes, or null when there is no memory. Its bytes count when they have arrived: the
    /// system gives a page when it is written to.
    static SZolVekRecord *create(std::uint32_t uiLength, SZolVekMemory *poMemory)
    {
        char *pcOwned = static_cast<char *>(std::malloc(uiLength));
        if (pcOwned == nullptr)
        {
            return nullptr;
        }
        poMemory->m_ulBytes += OVERHEAD_BYTES;
        return new SZolVekRecord{pcOwned, pcOwned, uiLength, 1, poMemory};
    }

    /// So many more bytes have been written to m_pcOwned.
    void arrived(std::size_t ulBytes)
    {
        m_uiCounted += static_cast<std::uint32_t>(ulBytes);
        m_poMemory->m_ulBytes += ulBytes;
    }

    void take() { ++m_uiRefs; }

    void drop()
    {
        if (--m_uiRefs > 0)
        {
            return;
        }
        if (m_pcOwned != nullptr)
        {
            m_poMemory->m_ulBytes -= m_uiCounted + OVERHEAD_BYTES;
            std::free(m_pcOwned);
        }
        delete this;
    }

    /// Makes the bytes the record's own.
    void keep()
    {
        if (m_pcOwned != nullptr)
        {
            return;
        }
        m_pcOwned = static_cast<char *>(std::malloc(m_uiLength));
        if (m_pcOwned == nullptr)
        {
            throw std::bad_alloc(); // the program ends: it could not even hold what its bounds allow
        }
        std::memcpy(m_pcOwned, m_pcData, m_uiLength);
        m_pcData = m_pcOwned;
        m_poMemory->m_ulBytes += OVERHEAD_BYTES;
        arrived(m_uiLength);
    }
};

#endif
