#include "timer/ZolTimerIndex.h"

#include <new>

namespace
{
const unsigned int FIRST_BUCKETS = 256;
}

CZolTimerIndex::CZolTimerIndex(SZolTimerList &oList)
    : m_oList(oList), m_arrBuckets(new SZolTimerNode *[FIRST_BUCKETS]()), m_uiBuckets(FIRST_BUCKETS)
{
}

SZolTimerNode **CZolTimerIndex::headOf(unsigned char ucTaskMgrID, unsigned short usTaskID) const
{
    const SManager *poManager = m_arrManagers[ucTaskMgrID].get();
    SPage *poPage = poManager != nullptr ? poManager->m_arrPages[usTaskID / PAGE_TASKS].get() : nullptr;
    return poPage != nullptr ? &poPage->m_arrHeads[usTaskID % PAGE_TASKS] : nullptr;
}

SZolTimerNode **CZolTimerIndex::makeHead(unsigned char ucTaskMgrID, unsigned short usTaskID)
{
    std::unique_ptr<SManager> &poManager = m_arrManagers[ucTaskMgrID];
    if (poManager == nullptr)
    {
        poManager.reset(new (std::nothrow) SManager);
    }
    if (poManager == nullptr)
    {
        return nullptr;
    }
    std::unique_ptr<SPage> &poPage = poManager->m_arrPages[usTaskID / PAGE_TASKS];
    if (poPage == nullptr)
    {
        poPage.reset(new (std::nothrow) SPage);
    }
    return headOf(ucTaskMgrID, usTaskID);
}

SZolTimerNode *&CZolTimerIndex::bucketOf(unsigned int uiTimerId) const
{
    return m_arrBuckets[uiTimerId & (m_uiBuckets - 1)];
}

/// Doubles the buckets. Without memory for it the chains get longer, and all still works.
void CZolTimerIndex::grow()
{
    const unsigned int uiBuckets = m_uiBuckets * 2;
    std::unique_ptr<SZolTimerNode *[]> arrBuckets(new (std::nothrow) SZolTimerNode *[uiBuckets]());
    if (arrBuckets == nullptr)
    {
        return;
    }
    m_arrBuckets = std::move(arrBuckets);
    m_uiBuckets = uiBuckets;
    for (SZolTimerNode *poNode = m_oList.m_poHead; poNode != nullptr; poNode = poNode->m_poNext)
    {
        SZolTimerNode *&poBucket = bucketOf(poNode->m_ulTimerId);
        poNode->m_poHashNext = poBucket;
        poBucket = poNode;
    }
}

bool CZolTimerIndex::add(SZolTimerNode *poNode)
{
    SZolTimerNode **ppHead = makeHead(poNode->m_ucTaskMgrID, poNode->m_usTaskID);
    if (ppHead == nullptr)
    {
        return false;
    }
    if (m_oList.m_uiCount >= m_uiBuckets && m_uiBuckets <= 0x40000000U)
    {
        grow();
    }
    SZolTimerNode *&poBucket = bucketOf(poNode->m_ulTimerId);
    poNode->m_poHashNext = poBucket;
    poBucket = poNode;

    poNode->m_poTaskNext = *ppHead;
    if (*ppHead != nullptr)
    {
        (*ppHead)->m_poTaskPrev = poNode;
    }
    *ppHead = poNode;

    poNode->m_poPrev = m_oList.m_poTail;
    (m_oList.m_poTail != nullptr ? m_oList.m_poTail->m_poNext : m_oList.m_poHead) = poNode;
    m_oList.m_poTail = poNode;
    ++m_oList.m_uiCount;
    return true;
}

SZolTimerNode *CZolTimerIndex::find(unsigned int uiTimerId) const
{
    SZolTimerNode *poNode = bucketOf(uiTimerId);
    while (poNode != nullptr && poNode->m_ulTimerId != uiTimerId)
    {
        poNode = poNode->m_poHashNext;
    }
    return poNode;
}

SZolTimerNode *CZolTimerIndex::remove(unsigned int uiTimerId)
{
    SZolTimerNode *poNode = find(uiTimerId);
    if (poNode != nullptr)
    {
        unlinkFromBucket(poNode);
        unlinkFromTask(poNode);
        unlinkFromList(poNode);
    }
    return poNode;
}

SZolTimerNode *CZolTimerIndex::removeTask(unsigned char ucTaskMgrID, unsigned short usTaskID)
{
    SZolTimerNode **ppHead = headOf(ucTaskMgrID, usTaskID);
    if (ppHead == nullptr)
    {
        return nullptr;
    }
    SZolTimerNode *poFirst = *ppHead;
    *ppHead = nullptr;
    for (SZolTimerNode *poNode = poFirst; poNode != nullptr; poNode = poNode->m_poTaskNext)
    {
        unlinkFromBucket(poNode);
        unlinkFromList(poNode);
    }
    return poFirst;
}

void CZolTimerIndex::unlinkFromBucket(SZolTimerNode *poNode)
{
    SZolTimerNode **ppLink = &bucketOf(poNode->m_ulTimerId);
    while (*ppLink != poNode)
    {
        ppLink = &(*ppLink)->m_poHashNext;
    }
    *ppLink = poNode->m_poHashNext;
}

void CZolTimerIndex::unlinkFromList(SZolTimerNode *poNode)
{
    (poNode->m_poPrev != nullptr ? poNode->m_poPrev->m_poNext : m_oList.m_poHead) = poNode->m_poNext;
    (poNode->m_poNext != nullptr ? poNode->m_poNext->m_poPrev : m_oList.m_poTail) = poNode->m_poPrev;
    --m_oList.m_uiCount;
}

void CZolTimerIndex::unlinkFromTask(SZolTimerNode *poNode)
{
    if (poNode->m_poTaskPrev != nullptr)
    {
        poNode->m_poTaskPrev->m_poTaskNext = poNode->m_poTaskNext;
    }
    else
    {
        *headOf(poNode->m_ucTaskMgrID, poNode->m_usTaskID) = poNode->m_poTaskNext;
    }
    if (poNode->m_poTaskNext != nullptr)
    {
        poNode->m_poTaskNext->m_poTaskPrev = poNode->m_poTaskPrev;
    }
}
