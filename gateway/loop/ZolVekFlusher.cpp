#include "gateway/loop/ZolVekFlusher.h"

#include <cerrno>

void CZolVekFlusher::flush(CZolVekSession &oSession)
{
    if (!oSession.m_bBroken && !oSession.m_bBlocked && !oSession.m_oOutbox.isEmpty())
    {
        std::uint64_t ulWritten = 0;
        const EnumZolVekFlush eResult = oSession.m_oOutbox.flush(oSession.m_iSocket, ulWritten);
        if (ulWritten > 0)
        {
            oSession.m_ulSentMs = m_oAgenda.m_ulNowMs;
            oSession.m_ulStuckSinceMs = m_oAgenda.m_ulNowMs;
            oSession.m_ulBytesOut += ulWritten;
            m_oStatistics.m_ulBytesOut += ulWritten;
        }
        if (eResult == VEK_FLUSH_BROKEN)
        {
            breakPipe(oSession, errno);
        }
        else if (eResult == VEK_FLUSH_BLOCKED)
        {
            oSession.m_ulStuckSinceMs =
                oSession.m_ulStuckSinceMs == 0 ? m_oAgenda.m_ulNowMs : oSession.m_ulStuckSinceMs;
            oSession.m_bBlocked = true;
        }
        else if (eResult == VEK_FLUSH_DONE)
        {
            oSession.m_ulStuckSinceMs = 0;
        }
    }
    if (oSession.m_bBroken)
    {
        dropQueued(oSession);
    }
    oSession.m_oOutbox.settle();
    countSent(oSession);
    m_oRouter.wakeWaiters(oSession);
}

void CZolVekFlusher::countSent(CZolVekSession &oSession)
{
    const std::uint64_t ulSent = oSession.m_oOutbox.sent();
    if (oSession.m_eState == VEK_UP && ulSent > 0)
    {
        m_oStatistics.m_ulFramesOut += ulSent - 1 - oSession.m_ulFramesOut; // the first one answered its registration
        oSession.m_ulFramesOut = ulSent - 1;
    }
}

void CZolVekFlusher::flushDirty()
{
    for (CZolVekSession *poSession : m_oAgenda.m_oDirty)
    {
        poSession->m_bDirty = false;
        if (poSession->m_eState != VEK_CLOSED)
        {
            flush(*poSession);
        }
    }
    m_oAgenda.m_oDirty.clear();
}

void CZolVekFlusher::breakPipe(CZolVekSession &oSession, int iError)
{
    if (oSession.m_bBroken)
    {
        return;
    }
    oSession.m_bBroken = true;
    oSession.m_iError = iError;
    oSession.m_ulBrokenMs = m_oAgenda.m_ulNowMs;
    oSession.m_bReadable = true;
    oSession.m_bEnded = true;
    m_oAgenda.ready(oSession);
}

void CZolVekFlusher::dropQueued(CZolVekSession &oSession)
{
    const std::uint64_t ulFrames = oSession.m_eState == VEK_UP ? oSession.m_oOutbox.frames() : 0;
    oSession.m_ulUnsent += ulFrames;
    m_oStatistics.m_ulDropQueued += ulFrames;
    oSession.m_oOutbox.clear();
    countSent(oSession);
    oSession.m_bBlocked = false;
    oSession.m_ulStuckSinceMs = 0;
}
