#ifndef ZOL_VEK_FLUSHER_H
#define ZOL_VEK_FLUSHER_H

#include "gateway/route/ZolVekRouter.h"

/// Writes outboxes to their sockets, and knows what a socket that takes nothing, or nothing any more, means.
///
/// The peer has reset it, or the kernel has given it up. What it had sent is still in the socket and is routed before
/// its key is free; that its end is reached closes it. Nobody can be made to send less by not reading it, so it neither
/// keeps to a rate nor stops at the bound of a queue, but at twice that. What has no room within ProbeSeconds is
/// dropped.
///
/// Threads: the routing thread only.
class CZolVekFlusher
{
public:
    CZolVekFlusher(SZolVekStatistics &oStatistics, SZolVekAgenda &oAgenda, CZolVekRouter &oRouter)
        : m_oStatistics(oStatistics), m_oAgenda(oAgenda), m_oRouter(oRouter)
    {
    }
    CZolVekFlusher(const CZolVekFlusher &) = delete;
    CZolVekFlusher &operator=(const CZolVekFlusher &) = delete;

    /// Writes what the socket takes and keeps the rest, in memory of the outbox's own.
    void flush(CZolVekSession &oSession);

    /// The same for all that have got frames in this turn.
    void flushDirty();

    /// The connection is gone; iError is what a write met, or 0.
    void breakPipe(CZolVekSession &oSession, int iError);

    /// Forgets what waits, and counts it as dropped.
    void dropQueued(CZolVekSession &oSession);

private:
    void countSent(CZolVekSession &oSession);

    SZolVekStatistics &m_oStatistics;
    SZolVekAgenda &m_oAgenda;
    CZolVekRouter &m_oRouter;
};

#endif
