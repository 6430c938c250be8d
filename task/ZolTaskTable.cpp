#include "ZolTaskMgr.h"
#include "task/ZolTaskIndex.h"

CZolTaskTable::CZolTaskTable() : m_poIndex(new CZolTaskIndex)
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
    delete m_poIndex;
}

unsigned short CZolTaskTable::bucketOf(unsigned short usTaskID) const
{
    const unsigned int uiProduct = (usTaskID * 40507U) & 0xFFFFU;
    return static_cast<unsigned short>(uiProduct >> (16 - m_usHashShift));
}

CZolTask *CZolTaskTable::find(unsigned short usTaskID) const
{
    const SZolTaskNode *poNode = m_poIndex->find(usTaskID);
    return poNode != nullptr ? poNode->m_poTask : nullptr;
}

bool CZolTaskTable::insert(CZolTask *poTask, unsigned short usTaskID)
{
    SZolTaskNode *poNode = &poTask->m_oNode;
    if (!m_poIndex->set(usTaskID, poNode))
    {
        return false;
    }
    SZolTaskNode **ppHead = &m_ppBuckets[bucketOf(usTaskID)];
    *poNode = {poTask, usTaskID, *ppHead, nullptr};
    if (*ppHead != nullptr)
    {
        (*ppHead)->m_poPrevNode = poNode;
    }
    *ppHead = poNode;
    m_poIndex->take(usTaskID);
    return true;
}

CZolTask *CZolTaskTable::unlink(unsigned short usTaskID)
{
    SZolTaskNode *poNode = m_poIndex->find(usTaskID);
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
    m_poIndex->set(usTaskID, nullptr);
    return poNode->m_poTask;
}

void CZolTaskTable::release(unsigned short usTaskID)
{
    m_poIndex->release(usTaskID);
}

bool CZolTaskTable::isTaken(unsigned short usTaskID) const
{
    return m_poIndex->isTaken(usTaskID);
}

unsigned short CZolTaskTable::findFree(unsigned short usFrom, unsigned short usFirst, unsigned short usLast) const
{
    unsigned int uiFound = m_poIndex->findFree(usFrom, usLast);
    if (uiFound == 0 && usFrom > usFirst)
    {
        uiFound = m_poIndex->findFree(usFirst, usFrom - 1U);
    }
    return static_cast<unsigned short>(uiFound);
}
