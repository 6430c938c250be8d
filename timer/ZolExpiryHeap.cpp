#include "timer/ZolExpiryHeap.h"

#include <algorithm>
#include <new>

namespace
{
const std::size_t CHILDREN = 4; // of the node at place p: 4p + 1 to 4p + 4
}

bool CZolExpiryHeap::SEntry::isBefore(const SEntry &oOther) const
{
    if (m_llExpiry != oOther.m_llExpiry)
    {
        return m_llExpiry < oOther.m_llExpiry;
    }
    return static_cast<std::int32_t>(m_uiOrder - oOther.m_uiOrder) < 0; // the count wraps
}

bool CZolExpiryHeap::reserve(std::size_t uiSlots)
{
    try
    {
        if (m_arrHeap.capacity() < uiSlots)
        {
            m_arrHeap.reserve(uiSlots + uiSlots / 2);
        }
        m_arrPlaces.resize(uiSlots, NOWHERE);
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
    return true;
}

void CZolExpiryHeap::add(std::uint32_t uiSlot, Micros llExpiry)
{
    const SEntry oEntry = {llExpiry, m_uiOrder++, uiSlot};
    m_arrHeap.push_back(oEntry);
    moveUp(m_arrHeap.size() - 1, oEntry);
}

void CZolExpiryHeap::remove(std::uint32_t uiSlot)
{
    const std::size_t uiPlace = m_arrPlaces[uiSlot];
    m_arrPlaces[uiSlot] = NOWHERE;
    const SEntry oLast = m_arrHeap.back();
    m_arrHeap.pop_back();
    if (uiPlace == m_arrHeap.size())
    {
        return;
    }
    if (uiPlace > 0 && oLast.isBefore(m_arrHeap[(uiPlace - 1) / CHILDREN]))
    {
        moveUp(uiPlace, oLast);
    }
    else
    {
        moveDown(uiPlace, oLast);
    }
}

void CZolExpiryHeap::postponeEarliest(Micros llExpiry)
{
    moveDown(0, {llExpiry, m_uiOrder++, earliestSlot()});
}

void CZolExpiryHeap::put(std::size_t uiPlace, const SEntry &oEntry)
{
    m_arrHeap[uiPlace] = oEntry;
    m_arrPlaces[oEntry.m_uiSlot] = static_cast<std::uint32_t>(uiPlace);
}

/// Finds the place of oEntry from uiPlace, which is free, upwards.
void CZolExpiryHeap::moveUp(std::size_t uiPlace, const SEntry &oEntry)
{
    while (uiPlace > 0)
    {
        const std::size_t uiParent = (uiPlace - 1) / CHILDREN;
        if (!oEntry.isBefore(m_arrHeap[uiParent]))
        {
            break;
        }
        put(uiPlace, m_arrHeap[uiParent]);
        uiPlace = uiParent;
    }
    put(uiPlace, oEntry);
}

/// The same downwards.
void CZolExpiryHeap::moveDown(std::size_t uiPlace, const SEntry &oEntry)
{
    for (std::size_t uiChild = CHILDREN * uiPlace + 1; uiChild < m_arrHeap.size(); uiChild = CHILDREN * uiPlace + 1)
    {
        std::size_t uiLeast = uiChild;
        const std::size_t uiEnd = std::min(uiChild + CHILDREN, m_arrHeap.size());
        while (++uiChild < uiEnd)
        {
            uiLeast = m_arrHeap[uiChild].isBefore(m_arrHeap[uiLeast]) ? uiChild : uiLeast;
        }
        if (!m_arrHeap[uiLeast].isBefore(oEntry))
        {
            break;
        }
        put(uiPlace, m_arrHeap[uiLeast]);
        uiPlace = uiLeast;
    }
    put(uiPlace, oEntry);
}
