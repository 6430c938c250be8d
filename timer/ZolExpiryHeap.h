#ifndef ZOL_EXPIRY_HEAP_H
#define ZOL_EXPIRY_HEAP_H

#include <cstddef>
#include <cstdint>
#include <vector>

/// When each of a set of numbered slots expires, the earliest first: a heap in a flat array, with four children to a
/// node and everything that the order needs in the entries themselves. Slots with the same expiry go in the order in
/// which they got it.
///
/// Threads: none of its own; whoever owns it guards it.
/// Units:   microseconds of a clock of the owner's.
/// Cost:    O(log n) to add, remove and postpone; 20 bytes a slot.
class CZolExpiryHeap
{
public:
    using Micros = std::int64_t;

    /// Makes room for slots 0 to uiSlots - 1; false without memory. What follows needs none.
    bool reserve(std::size_t uiSlots);

    bool isEmpty() const { return m_arrHeap.empty(); }
    bool holds(std::uint32_t uiSlot) const { return m_arrPlaces[uiSlot] != NOWHERE; }

    /// Of a heap that is not empty.
    Micros earliest() const { return m_arrHeap.front().m_llExpiry; }
    std::uint32_t earliestSlot() const { return m_arrHeap.front().m_uiSlot; }

    void add(std::uint32_t uiSlot, Micros llExpiry); ///< of a slot that it does not hold
    void remove(std::uint32_t uiSlot);               ///< of one that it holds
    void postponeEarliest(Micros llExpiry);          ///< gives the earliest slot a later expiry

private:
    static constexpr std::uint32_t NOWHERE = 0xFFFFFFFF;

    struct SEntry
    {
        Micros m_llExpiry;
        std::uint32_t m_uiOrder; // counts the expiries that were given
        std::uint32_t m_uiSlot;
        bool isBefore(const SEntry &oOther) const;
    };

    void put(std::size_t uiPlace, const SEntry &oEntry);
    void moveUp(std::size_t uiPlace, const SEntry &oEntry);
    void moveDown(std::size_t uiPlace, const SEntry &oEntry);

    std::vector<SEntry> m_arrHeap;
    std::vector<std::uint32_t> m_arrPlaces; // by slot: where in the heap it is, or NOWHERE
    std::uint32_t m_uiOrder = 0;
};

#endif
