#include "task/ZolTaskIndex.h"

#include <new>

bool CZolTaskIndex::set(unsigned short usTaskID, SZolTaskNode *poNode)
{
    auto &poPage = m_arrPages[usTaskID / PAGE_IDS];
    if (!poPage)
    {
        poPage.reset(new (std::nothrow) SZolTaskNode *[PAGE_IDS]());
    }
    if (!poPage)
    {
        return false;
    }
    poPage[usTaskID % PAGE_IDS] = poNode;
    return true;
}

/// A word of 64 ids at a time: with every id in use that is under a thousand steps.
unsigned int CZolTaskIndex::findFree(unsigned int uiFrom, unsigned int uiTo) const
{
    for (unsigned int uiID = uiFrom; uiID <= uiTo; uiID = (uiID / 64 + 1) * 64)
    {
        const std::uint64_t ulFree = ~m_arrTaken[uiID / 64] >> (uiID % 64);
        if (ulFree != 0)
        {
            const unsigned int uiFound = uiID + static_cast<unsigned int>(__builtin_ctzll(ulFree));
            return uiFound <= uiTo ? uiFound : 0;
        }
    }
    return 0;
}
