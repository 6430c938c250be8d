#ifndef ZOL_TRANSPORT_ZOLPIPEPOLL_H
#define ZOL_TRANSPORT_ZOLPIPEPOLL_H

#include "transport/ZolPipeTable.h"

#include <functional>
#include <vector>

/// A pipe in one life of it.
struct SZolPipeLife
{
    CZolConnRef m_oConn;
    unsigned int m_uiLife;
};

/// What is to be done about the pipes every 20 s: open those that are down, say hello on one, find the silent ones. It
/// has no clock, no socket and no thread of its own.
///
/// Threads: one at a time.
/// Owner:   the connection manager, whose thread drives it.
/// Locks:   none.
/// Units:   times are seconds of the wall clock.
class CZolPipePoll
{
public:
    /// What the poll has others do.
    struct SHelpers
    {
        std::function<bool()> m_fnIsRunning; ///< pipes are read, so one that is silent is silent
        std::function<void(unsigned short usProcID, unsigned short usProcHandle)> m_fnSendHello;
        /// Tries to open all of these at once; gives those that came up.
        std::function<std::vector<CZolConnRef>(const std::vector<CZolConnRef> &)> m_fnOpenAll;
    };

    /// The time counts as that of the last hello.
    CZolPipePoll(CZolPipeTable &oTable, SHelpers oHelpers, long lNow);

    /// One cycle: reopened pipes go to oReconnected, silent ones to oDead. lLastPoll, 0 before the first cycle, is set
    /// to lNow.
    void run(std::vector<CZolConnRef> &oReconnected, std::vector<SZolPipeLife> &oDead, long lNow, long &lLastPoll);

private:
    static bool trustClock(long lNow, long &lLastPoll);
    bool isHelloDue(const CZolConnection &oConn, long lNow) const;
    static bool isSilent(CZolConnection &oConn, long lNow, bool bTrusted);

    CZolPipeTable &m_oTable;
    const SHelpers m_oHelpers;
    long m_lLastHelloTime; // one for all pipes
};

#endif
