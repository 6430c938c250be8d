#ifndef ZOL_VEK_RUNS_H
#define ZOL_VEK_RUNS_H

#include "gateway/route/ZolVekBackPressure.h"

/// Big messages on their way, block by block.
///
/// A run is a big message that goes to one pipe: blocks 1, 2, 3 and so on, then block 0. It stands in the table of that
/// pipe (CZolVekSession::m_poRuns), under its source, from block 1 until block 0, and belongs to the pipe that its
/// blocks come from. It ends as well at a block whose number does not follow, since the receiver then drops its part.
///
/// A process may forward blocks of another one, or forge them. So a run of foreign blocks never holds up the process
/// that is registered under their source: its blocks end that run. Blocks of any other pipe under the same source wait;
/// whole frames never do. When the owner of a run goes, or its run is ended, the receiver holds a part that nothing
/// would ever free: an empty block whose number does not follow makes it drop the part.
///
/// Threads: the routing thread only.
class CZolVekRuns
{
public:
    CZolVekRuns(const SZolVekSettings &oSettings, SZolVekStatistics &oStatistics, const CZolVekRoutes &oRoutes,
                SZolVekAgenda &oAgenda, CZolVekBackPressure &oBackPressure)
        : m_oSettings(oSettings), m_oStatistics(oStatistics), m_oRoutes(oRoutes), m_oAgenda(oAgenda),
          m_oBackPressure(oBackPressure)
    {
    }
    CZolVekRuns(const CZolVekRuns &) = delete;
    CZolVekRuns &operator=(const CZolVekRuns &) = delete;

    /// A frame, block or not, is about to be queued: ends the run of another pipe under the source of oFrom.
    void makeWay(CZolVekSession &oTarget, const CZolVekSession &oFrom, const CZolVekFrame &oFrame);

    /// A frame, block or not, has been queued. poAddress is the one that it leaves with, null for its own.
    void noteBlock(CZolVekSession &oTarget, CZolVekSession &oFrom, const CZolVekFrame &oFrame,
                   const SZolVekAddress *poAddress);

    /// A frame, block or not, has been dropped: the rest of its message is to go the same way.
    void loseBlock(CZolVekSession &oTarget, CZolVekSession &oFrom, const CZolVekFrame &oFrame);

    /// Ends runs to oTarget that stand still and hold back others.
    void endStuck(CZolVekSession &oTarget);

    /// A pipe has gone: the runs that come from it are ended where they go, those to it are forgotten.
    void gone(CZolVekSession &oSession);

private:
    static SZolVekRun *find(const CZolVekSession &oTarget, TZolVekKey uiSource);
    SZolVekRun &begin(CZolVekSession &oTarget, CZolVekSession &oFrom, TZolVekKey uiSource);
    void goOn(SZolVekRun &oRun, const CZolVekFrame &oFrame) const;
    void endRun(CZolVekSession &oTarget, TZolVekKey uiSource);
    void abortRun(CZolVekSession &oTarget, const SZolVekRun &oRun);
    void abortRunsOf(const CZolVekSession &oOwner);

    const SZolVekSettings &m_oSettings;
    SZolVekStatistics &m_oStatistics;
    const CZolVekRoutes &m_oRoutes;
    SZolVekAgenda &m_oAgenda;
    CZolVekBackPressure &m_oBackPressure;
};

#endif
