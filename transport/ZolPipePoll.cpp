#include "transport/ZolPipePoll.h"

#include "ZolRunLog.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolText.h"

#include <utility>

CZolPipePoll::CZolPipePoll(CZolPipeTable &oTable, SHelpers oHelpers, long lNow)
    : m_oTable(oTable), m_oHelpers(std::move(oHelpers)), m_lLastHelloTime(lNow)
{
}

void CZolPipePoll::run(std::vector<CZolConnRef> &oReconnected, std::vector<SZolPipeLife> &oDead, long lNow,
                       long &lLastPoll)
{
    const bool bTrusted = trustClock(lNow, lLastPoll);
    const bool bRunning = m_oHelpers.m_fnIsRunning();
    std::vector<CZolConnRef> oDown;
    for (const CZolConnRef &oConn : m_oTable.getAll())
    {
        const unsigned int uiLife = oConn->getLife(); // before what is said of it: a later life is not closed for it
        if (!oConn->getPipeStatus())
        {
            if (oConn->getPipeType() != CZolConnection::CONN_PASSIVE)
            {
                oDown.push_back(oConn);
            }
            continue;
        }
        if (isHelloDue(*oConn.get(), lNow))
        {
            m_lLastHelloTime = lNow;
            m_oHelpers.m_fnSendHello(oConn->getOppProcID(), oConn->getOppProcHandle());
        }
        // at the initial stage nobody reads, so nobody is silent
        if (bRunning && isSilent(*oConn.get(), lNow, bTrusted))
        {
            oDead.push_back({oConn, uiLife});
        }
    }
    if (!oDown.empty())
    {
        oReconnected = m_oHelpers.m_fnOpenAll(oDown);
    }
}

// Two polls that are not 0 to 60 s apart mean that the clock was set, or that a cycle was slow: times of receipt then
// say nothing.
bool CZolPipePoll::trustClock(long lNow, long &lLastPoll)
{
    const bool bTrusted = lLastPoll != 0 && lNow > lLastPoll && lNow - lLastPoll < zolpipe::CLOCK_JUMP_SECONDS;
    if (!bTrusted && lLastPoll != 0)
    {
        CZolDebugInfo("CZolConnMgr::pollConnectons")
            .warning(zoltext("the system time maybe had been adjusted, the last poll time: ", lLastPoll,
                             ", current time: ", lNow)
                         .c_str());
    }
    lLastPoll = lNow;
    return bTrusted;
}

bool CZolPipePoll::isHelloDue(const CZolConnection &oConn, long lNow) const
{
    // strictly before: the second pipe of the cycle must not take an equal time for a clock set back
    return oConn.getPipeType() != CZolConnection::CONN_PASSIVE &&
           (lNow < m_lLastHelloTime || lNow - m_lLastHelloTime >= zolpipe::HELLO_SECONDS);
}

bool CZolPipePoll::isSilent(CZolConnection &oConn, long lNow, bool bTrusted)
{
    const long lLast = oConn.getLastRecvTime();
    if (!bTrusted || lNow < lLast)
    {
        oConn.setLastRecvTime(lNow);
        return false;
    }
    return lNow - lLast >= zolpipe::SILENCE_SECONDS;
}
