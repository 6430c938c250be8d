#ifndef ZOL_VEK_SWEEPER_H
#define ZOL_VEK_SWEEPER_H

#include "gateway/watch/ZolVekReporter.h"

/// Looks after the pipes that are up, once a second: says hello on one that was silent, and ends one that takes
/// nothing, has broken, or does not go on with a large frame.
///
/// Threads: the routing thread only.
class CZolVekSweeper
{
public:
    CZolVekSweeper(const SZolVekSettings &oSettings, SZolVekAgenda &oAgenda, const CZolVekRoutes &oRoutes,
                   const CZolVekReporter &oReporter)
        : m_oSettings(oSettings), m_oAgenda(oAgenda), m_oRoutes(oRoutes), m_oReporter(oReporter)
    {
    }
    CZolVekSweeper(const CZolVekSweeper &) = delete;
    CZolVekSweeper &operator=(const CZolVekSweeper &) = delete;

    void sweep(bool bDraining);

private:
    void sweepLargeFrame(CZolVekSession &oSession, bool bDraining);

    const SZolVekSettings &m_oSettings;
    SZolVekAgenda &m_oAgenda;
    const CZolVekRoutes &m_oRoutes;
    const CZolVekReporter &m_oReporter;
};

#endif
