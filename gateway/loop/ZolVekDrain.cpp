#include "gateway/loop/ZolVekDrain.h"

#include "ZolRunLog.h"
#include "gateway/watch/ZolVekLog.h"

#include <cinttypes>
#include <sys/socket.h>

void CZolVekDrain::begin()
{
    m_bOn = true;
    m_ulUntilMs = m_oAgenda.m_ulNowMs + std::uint64_t{1000} * m_oSettings.m_uiDrainSeconds;
    CZolVekLog::line(CZolRunLog::LEVEL_INFO, "CZolVekDrain::begin", "draining, %zu pipes are up", m_oRoutes.size());
}

void CZolVekDrain::tick(bool bThrottled, const TDropUnplaced &fnDropUnplaced)
{
    m_bFinishing = m_bFinishing || isSettled(bThrottled);
    if (m_bFinishing && finishAll())
    {
        m_bOver = true;
    }
    else if (!m_bOver && m_oAgenda.m_ulNowMs >= m_ulUntilMs)
    {
        dropRest(fnDropUnplaced);
        m_bOver = true;
    }
}

bool CZolVekDrain::isSettled(bool bThrottled) const
{
    bool bWaiting = !m_oAgenda.m_oReady.empty() || bThrottled;
    m_oRoutes.forEach([&](const CZolVekSession *poSession)
                      { bWaiting = bWaiting || poSession->m_poWaitsFor != nullptr; });
    return !bWaiting;
}

bool CZolVekDrain::finishAll()
{
    bool bAll = true;
    m_oRoutes.forEach(
        [&](CZolVekSession *poSession)
        {
            if (!poSession->m_bFinished && poSession->m_oOutbox.isEmpty())
            {
                shutdown(poSession->m_iSocket, SHUT_WR);
                poSession->m_bFinished = true;
                poSession->m_bReadable = true;
                m_oAgenda.giveUp(*poSession);
            }
            bAll = bAll && poSession->m_bFinished && (poSession->m_bBroken || poSession->unacknowledged() == 0);
        });
    return bAll;
}

void CZolVekDrain::dropRest(const TDropUnplaced &fnDropUnplaced)
{
    std::uint64_t ulLeft = 0;
    std::size_t ulWaiting = 0;
    m_oRoutes.forEach(
        [&](CZolVekSession *poSession)
        {
            ulLeft += poSession->m_oOutbox.bytes() + poSession->unacknowledged();
            ulWaiting += poSession->m_poWaitsFor != nullptr ? 1 : 0;
            m_oStatistics.m_ulDropDraining += poSession->m_oOutbox.frames();
            poSession->m_bFinished = true;
            poSession->m_bDiscard = true;
            fnDropUnplaced(*poSession);
        });
    CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekDrain::dropRest",
                     "the time to drain is over, %" PRIu64 " bytes are lost, %zu sources had to wait", ulLeft,
                     ulWaiting);
}
