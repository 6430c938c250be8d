#include "ZolTaskMgr.h"

#include <new>

CZolTaskTable::CZolTaskTable()
{
    m_ppBuckets = new SZolTaskNode *[m_usBucketCount]();
}

CZolTaskTable::~CZolTaskTable()
{
    for (unsigned short usIndex = 0; usIndex < m_usBucketCount; ++usIndex)
    {
        while (SZolTaskNode *poNode = m_ppBuckets[usIndex])
        {
            m_ppBuckets[usIndex] = poNode->m_poNextNode;
            delete poNode->m_poTask; // and the node with it
        }
    }
    delete[] m_ppBuckets;
}

unsigned short CZolTaskTable::bucketOf(unsigned short usTaskID) const
{
    const unsigned int uiProduct = (usTaskID * 40507U) & 0xFFFFU;
    return static_cast<unsigned short>(uiProduct >> (16 - m_usHashShift));
}

CZolTask *CZolTaskTable::find(unsigned short usTaskID) const
{
    const auto &poPage = m_arrPages[usTaskID / PAGE_IDS];
    const SZolTaskNode *poNode = poPage ? poPage[usTaskID % PAGE_IDS] : nullptr;
    return poNode != nullptr ? poNode->m_poTask : nullptr;
}

bool CZolTaskTable::insert(CZolTask *poTask, unsigned short usTaskID)
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
    SZolTaskNode **ppHead = &m_ppBuckets[bucketOf(usTaskID)];
    SZolTaskNode *poNode = &poTask->m_oNode;
    *poNode = {poTask, usTaskID, *ppHead, nullptr};
    if (*ppHead != nullptr)
    {
        (*ppHead)->m_poPrevNode = poNode;
    }
    *ppHead = poNode;
    poPage[usTaskID % PAGE_IDS] = poNode;
    m_arrTaken[usTaskID / 64] |= std::uint64_t{1} << (usTaskID % 64);
    return true;
}

CZolTask *CZolTaskTable::unlink(unsigned short usTaskID)
{
    const auto &poPage = m_arrPages[usTaskID / PAGE_IDS];
    SZolTaskNode *poNode = poPage ? poPage[usTaskID % PAGE_IDS] : nullptr;
    if (poNode == nullptr)
    {
        return nullptr;
    }
    SZolTaskNode **ppLink =
        poNode->m_poPrevNode != nullptr ? &poNode->m_poPrevNode->m_poNextNode : &m_ppBuckets[bucketOf(usTaskID)];
    *ppLink = poNode->m_poNextNode;
    if (poNode->m_poNextNode != nullptr)
    {
        poNode->m_poNextNode->m_poPrevNode = poNode->m_poPrevNode;
    }
    poPage[usTaskID % PAGE_IDS] = nullptr;
    return poNode->m_poTask;
}

void CZolTaskTable::release(unsigned short usTaskID)
{
    m_arrTaken[usTaskID / 64] &= ~(std::uint64_t{1} << (usTaskID % 64));
}

bool CZolTaskTable::isTaken(unsigned short usTaskID) const
{
    return (m_arrTaken[usTaskID / 64] >> (usTaskID % 64) & 1U) != 0;
}

unsigned short CZolTaskTable::findFree(unsigned short usFrom, unsigned short usFirst, unsigned short usLast) const
{
    unsigned int uiFound = findFreeFrom(usFrom, usLast);
    if (uiFound == 0 && usFrom > usFirst)
    {
        uiFound = findFreeFrom(usFirst, usFrom - 1U);
    }
    return static_cast<unsigned short>(uiFound);
}

/// A word of 64 ids at a time: with every id in use that is under a thousand steps.
unsigned int CZolTaskTable::findFreeFrom(unsigned int uiFrom, unsigned int uiTo) const
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
