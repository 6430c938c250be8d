#ifndef ZOL_TASK_ZOLTASKINDEX_H
#define ZOL_TASK_ZOLTASKINDEX_H

#include "ZolTask.h"

#include <cstdint>
#include <memory>

/// The index of a table of tasks: from an id to its node in one step, and which ids are taken.
///
/// Threads:   none of its own; the lock of the table guards it.
/// Ownership: of its pages, not of the nodes.
class CZolTaskIndex
{
public:
    SZolTaskNode *find(unsigned short usTaskID) const
    {
        const auto &poPage = m_arrPages[usTaskID / PAGE_IDS];
        return poPage ? poPage[usTaskID % PAGE_IDS] : nullptr;
    }

    /// Enters a node, or null to take one out. False when memory is out; never for null in place of a node.
    bool set(unsigned short usTaskID, SZolTaskNode *poNode);

    void take(unsigned short usTaskID) { m_arrTaken[usTaskID / 64] |= bitOf(usTaskID); }
    void release(unsigned short usTaskID) { m_arrTaken[usTaskID / 64] &= ~bitOf(usTaskID); }
    bool isTaken(unsigned short usTaskID) const { return (m_arrTaken[usTaskID / 64] & bitOf(usTaskID)) != 0; }

    /// The first free id from uiFrom to uiTo, or 0.
    unsigned int findFree(unsigned int uiFrom, unsigned int uiTo) const;

private:
    static constexpr unsigned int PAGE_IDS = 256; // ids of one page
    static constexpr unsigned int ALL_IDS = 65536;

    static std::uint64_t bitOf(unsigned short usTaskID) { return std::uint64_t{1} << (usTaskID % 64); }

    std::unique_ptr<SZolTaskNode *[]> m_arrPages[ALL_IDS / PAGE_IDS]; // made a page at a time
    std::uint64_t m_arrTaken[ALL_IDS / 64] = {};                      // one bit for each id in use
};

#endif
