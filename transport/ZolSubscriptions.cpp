#include "transport/ZolSubscriptions.h"

#include "ZolErrors.h"
#include "transport/ZolHost.h"

#include <ace/Guard_T.h>

void CZolSubscriptions::add(unsigned long ulCmd, unsigned char ucModule, unsigned short usTask)
{
    ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oSubscribeLock);
    m_oSubscribeMap[static_cast<std::uint32_t>(ulCmd)].insert((std::uint32_t(ucModule) << 16) + usTask);
}

void CZolSubscriptions::remove(unsigned long ulCmd, unsigned char ucModule, unsigned short usTask)
{
    ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oSubscribeLock);
    const auto itFound = m_oSubscribeMap.find(static_cast<std::uint32_t>(ulCmd));
    if (itFound != m_oSubscribeMap.end())
    {
        itFound->second.erase((std::uint32_t(ucModule) << 16) + usTask);
        if (itFound->second.empty())
        {
            m_oSubscribeMap.erase(itFound);
        }
    }
}

void CZolSubscriptions::replay(IZolHost &oHost, bool bStopAtFailure)
{
    SubscribeMap oSubscriptions;
    {
        ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oSubscribeLock);
        oSubscriptions = m_oSubscribeMap;
    }
    for (const auto &[uiCmd, oTasks] : oSubscriptions)
    {
        for (const std::uint32_t uiTask : oTasks)
        {
            const int iResult = oHost.subscribe(uiCmd, static_cast<unsigned char>(uiTask >> 16),
                                                static_cast<unsigned short>(uiTask & 0xFFFF));
            if (bStopAtFailure && iResult != ZOL_OK && iResult != ZOL_ERR_TIMEOUT)
            {
                return;
            }
        }
    }
}
