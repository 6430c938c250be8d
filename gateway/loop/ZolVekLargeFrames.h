#ifndef ZOL_VEK_LARGE_FRAMES_H
#define ZOL_VEK_LARGE_FRAMES_H

#include "gateway/route/ZolVekAgenda.h"

#include <algorithm>
#include <cstdint>
#include <vector>

/// Frames that have memory of their own and of which bytes are still to come, in the order of beginning.
///
/// What has arrived of them counts against the total bound, what they announce does not. When the bound is reached only
/// the one that began first is read on, so that it comes to its end and frees its memory; the others wait.
///
/// Threads: the routing thread only.
class CZolVekLargeFrames
{
public:
    /// Whether oSession may be read. If not, wake() makes it ready when that has changed.
    bool admit(CZolVekSession &oSession, std::uint64_t ulFreeBytes)
    {
        note(oSession);
        oSession.m_bWaitsForMemory = !mayGoOn(oSession, ulFreeBytes);
        if (oSession.m_bWaitsForMemory)
        {
            m_oWaiting.push_back(&oSession);
        }
        return !oSession.m_bWaitsForMemory;
    }

    /// To be called when oSession has been read: a frame may have begun or come to its end.
    void note(CZolVekSession &oSession)
    {
        const bool bUnderWay = oSession.m_oReader.isLargeUnderWay();
        if (bUnderWay && !oSession.m_bLargeUnderWay)
        {
            m_oInOrder.push_back(&oSession);
        }
        else if (!bUnderWay && oSession.m_bLargeUnderWay)
        {
            takeOut(m_oInOrder, oSession);
        }
        oSession.m_bLargeUnderWay = bUnderWay;
    }

    /// Makes those ready that may go on.
    void wake(std::uint64_t ulFreeBytes, SZolVekAgenda &oAgenda)
    {
        const auto oFirst = std::partition(m_oWaiting.begin(), m_oWaiting.end(),
                                           [&](const CZolVekSession *po) { return !mayGoOn(*po, ulFreeBytes); });
        std::for_each(oFirst, m_oWaiting.end(),
                      [&](CZolVekSession *po)
                      {
                          po->m_bWaitsForMemory = false;
                          oAgenda.ready(*po);
                      });
        m_oWaiting.erase(oFirst, m_oWaiting.end());
    }

    void gone(CZolVekSession &oSession)
    {
        takeOut(m_oInOrder, oSession);
        takeOut(m_oWaiting, oSession);
    }

private:
    bool mayGoOn(const CZolVekSession &oSession, std::uint64_t ulFreeBytes) const
    {
        return !oSession.m_bLargeUnderWay || ulFreeBytes >= CZolVekFrameReader::LARGE_READ_BYTES ||
               m_oInOrder.front() == &oSession;
    }
    static void takeOut(std::vector<CZolVekSession *> &oList, const CZolVekSession &oSession)
    {
        oList.erase(std::remove(oList.begin(), oList.end(), &oSession), oList.end());
    }

    std::vector<CZolVekSession *> m_oInOrder;
    std::vector<CZolVekSession *> m_oWaiting; // m_bWaitsForMemory
};

#endif
