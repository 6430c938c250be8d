// What the thread of the connection manager does every 20 seconds.

#include "ZolRunLog.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolHost.h"
#include "transport/ZolPipeOpener.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolSocket.h"
#include "transport/ZolText.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_unistd.h>

int CZolConnMgr::svc()
{
    m_oStart.arrived();
    long lLastPoll = 0;
    for (;;)
    {
        ACE_OS::sleep(static_cast<unsigned int>(zolpipe::POLL_SECONDS));
        runPollCycle(zolsocket::wallSeconds(), lLastPoll);
    }
}

void CZolConnMgr::runPollCycle(long lNow, long &lLastPoll)
{
    std::vector<CZolConnRef> oReconnected;
    std::vector<SPipeLife> oDead;
    pollConnectons(oReconnected, oDead, lNow, lLastPoll);
    for (const SPipeLife &oPipe : oDead)
    {
        closePipe(oPipe.m_oConn.get(), oPipe.m_uiLife);
    }
    finishReconnect(oReconnected);
}

// The name lacks a letter; the scopes of log lines carry it.
void CZolConnMgr::pollConnectons(std::vector<CZolConnRef> &oReconnected, std::vector<SPipeLife> &oDead, long lNow,
                                 long &lLastPoll)
{
    const bool bTrusted = trustClock(lNow, lLastPoll);
    std::vector<std::unique_ptr<CZolPipeOpener>> oOpeners;
    CZolConnRef oGreeted;
    {
        ACE_READ_GUARD(ACE_RW_Mutex, oGuard, m_oConnLock);
        for (const auto &oEntry : m_oHandleMap)
        {
            CZolConnection *poConn = oEntry.second;
            const bool bActive = poConn->getPipeType() != CZolConnection::CONN_PASSIVE;
            if (poConn->getPipeStatus())
            {
                // strictly before: the second pipe of the cycle must not take an equal time for a clock set back
                if (bActive && (lNow < m_lLastHelloTime || lNow - m_lLastHelloTime >= zolpipe::HELLO_SECONDS))
                {
                    m_lLastHelloTime = lNow;
                    oGreeted = CZolConnRef(poConn);
                }
                pollPipe(poConn, lNow, bTrusted, oDead);
            }
            else if (bActive)
            {
                oOpeners.push_back(std::make_unique<CZolPipeOpener>(CZolConnRef(poConn)));
            }
        }
    }
    if (oGreeted)
    {
        sendHandshakeMsg(oGreeted->getOppProcID(), oGreeted->getOppProcHandle());
    }
    // all at once, so that peers that do not answer cost one wait and not one each
    for (const auto &poOpener : oOpeners)
    {
        poOpener->start(true);
    }
    CZolPipeOpener::run(oOpeners);
    for (const auto &poOpener : oOpeners)
    {
        if (poOpener->getResult() == 0)
        {
            oReconnected.push_back(poOpener->getConnection());
        }
    }
}

// Two polls that are not 0 to 60 s apart mean that the clock was set, or that a cycle was slow: times of receipt then
// say nothing.
bool CZolConnMgr::trustClock(long lNow, long &lLastPoll)
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

// The silence check of one pipe that is up. At the initial stage nobody reads, so nobody is silent.
void CZolConnMgr::pollPipe(CZolConnection *poConn, long lNow, bool bTrusted, std::vector<SPipeLife> &oDead)
{
    if (!zolHost().isRunning())
    {
        return;
    }
    const long lLast = poConn->getLastRecvTime();
    if (!bTrusted || lNow < lLast)
    {
        poConn->setLastRecvTime(lNow);
    }
    else if (lNow - lLast >= zolpipe::SILENCE_SECONDS)
    {
        oDead.push_back({CZolConnRef(poConn), poConn->getLife()});
    }
}

void CZolConnMgr::finishReconnect(const std::vector<CZolConnRef> &oReconnected)
{
    std::vector<CZolConnRef> oEntered;
    if (!oReconnected.empty())
    {
        ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oConnLock);
        for (const CZolConnRef &oConn : oReconnected)
        {
            if (rekey(oConn.get()))
            {
                oEntered.push_back(oConn);
            }
        }
    }
    for (const CZolConnRef &oConn : oEntered)
    {
        oConn->registerEvent();
        if (oConn->getPipeType() == CZolConnection::CONN_VEK)
        {
            replaySubscribe(true);
        }
    }
}
