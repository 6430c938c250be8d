#include "gateway/loop/ZolVekSweeper.h"

#include <algorithm>

namespace
{

const std::uint64_t LARGE_FRAME_MS = 5000; // without a byte of a large frame that has begun and is read

} // namespace

void CZolVekSweeper::sweep(bool bDraining)
{
    const std::uint64_t ulNow = m_oAgenda.m_ulNowMs;
    m_oRoutes.forEach(
        [&](CZolVekSession *poSession)
        {
            if (poSession->m_bFinished)
            {
                return; // the drain waits for it
            }
            if (poSession->m_bBroken)
            {
                if (ulNow - poSession->m_ulBrokenMs >= std::uint64_t{1000} * m_oSettings.m_uiProbeSeconds)
                {
                    m_oAgenda.giveUp(*poSession);
                }
                return;
            }
            if (poSession->m_oOutbox.isEmpty())
            {
                poSession->m_oOutbox.shrink();
                if (ulNow - poSession->m_ulSentMs >= std::uint64_t{1000} * m_oSettings.m_uiHelloSeconds ||
                    m_oReporter.wantsAnswer(*poSession, ulNow))
                {
                    poSession->m_ulAskedMs = poSession->m_ulAskedMs == 0 ? ulNow : poSession->m_ulAskedMs;
                    char acHello[zolwire::HEADER_BYTES];
                    poSession->fillHello(acHello);
                    poSession->m_oOutbox.addHello(acHello);
                    m_oAgenda.dirty(*poSession);
                }
            }
            else if (poSession->m_ulStuckSinceMs != 0 &&
                     ulNow - poSession->m_ulStuckSinceMs >= std::uint64_t{1000} * m_oSettings.m_uiStuckSeconds)
            {
                m_oAgenda.closeLater(*poSession,
                                     "it took no byte for " + std::to_string(m_oSettings.m_uiStuckSeconds) + " s");
            }
            sweepLargeFrame(*poSession, bDraining);
        });
}

void CZolVekSweeper::sweepLargeFrame(CZolVekSession &oSession, bool bDraining)
{
    const std::uint64_t ulNow = m_oAgenda.m_ulNowMs;
    if (!oSession.m_bLargeUnderWay || oSession.m_bReady || !oSession.m_strCloseReason.empty())
    {
        return;
    }
    if (bDraining || oSession.m_bReadable || oSession.m_bThrottled || oSession.m_poWaitsFor != nullptr)
    {
        oSession.m_ulLargeMs = ulNow; // it is up to us
    }
    else if (ulNow - std::max(oSession.m_ulReceivedMs, oSession.m_ulLargeMs) >= LARGE_FRAME_MS)
    {
        m_oAgenda.closeLater(oSession, "a frame of more than 64 KiB did not go on for 5 s");
    }
}
