#include "task/ZolSynWaiters.h"

#include "ZolMemMan.h"
#include "ZolTask.h"

#include <ace/Guard_T.h>

void CZolSynWaiters::add(CZolTask &oTask)
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMutex);
    m_oList.emplace(oTask.getTaskID(), &oTask);
}

void CZolSynWaiters::remove(CZolTask &oTask)
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oMutex);
    const auto itFound = m_oList.find(oTask.getTaskID());
    if (itFound != m_oList.end() && itFound->second == &oTask)
    {
        m_oList.erase(itFound);
    }
}

bool CZolSynWaiters::deliver(CZolMemBlock *poBlock)
{
    ACE_Guard<ACE_Thread_Mutex> oWaitGuard(m_oMutex);
    const auto itFound = m_oList.find(zolPduOf(poBlock)->m_usDestSubModuleId);
    if (itFound == m_oList.end())
    {
        return false;
    }
    CZolTask &oTask = *itFound->second;
    ACE_Guard<ACE_Thread_Mutex> oStatusGuard(oTask.m_oStatusMutex);
    if (!oTask.m_bSynCall)
    {
        return false; // not in the call yet, or on its way out of it
    }
    m_oList.erase(itFound);
    oTask.buffer(zolPduOf(poBlock));
    oTask.m_bDelivered.store(true, std::memory_order_release);
    oTask.m_oSynCondition.signal();
    return true;
}
