#include "gateway/loop/ZolVekThrottle.h"

#include <algorithm>

bool CZolVekThrottle::holds(CZolVekSession &oSession)
{
    if ((m_oSettings.m_ulMaxFramesPerSecond | m_oSettings.m_ulMaxBytesPerSecond) == 0 || oSession.m_bBroken ||
        oSession.m_bDiscard ||
        oSession.m_oRate.mayTake(m_oSettings.m_ulMaxFramesPerSecond, m_oSettings.m_ulMaxBytesPerSecond,
                                 m_oAgenda.m_ulNowMs))
    {
        return false;
    }
    oSession.m_bThrottled = true;
    m_oThrottled.push_back(&oSession);
    ++m_oStatistics.m_ulThrottled;
    return true;
}

void CZolVekThrottle::wake()
{
    std::vector<CZolVekSession *> oThrottled;
    oThrottled.swap(m_oThrottled);
    for (CZolVekSession *poSession : oThrottled)
    {
        poSession->m_bThrottled = false; // its turn finds out whether it may go on
        m_oAgenda.ready(*poSession);
    }
}

void CZolVekThrottle::letGo(CZolVekSession &oSession)
{
    if (oSession.m_bThrottled)
    {
        oSession.m_bThrottled = false;
        m_oThrottled.erase(std::remove(m_oThrottled.begin(), m_oThrottled.end(), &oSession), m_oThrottled.end());
    }
}
