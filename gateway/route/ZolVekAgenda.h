#ifndef ZOL_VEK_AGENDA_H
#define ZOL_VEK_AGENDA_H

#include "gateway/pipe/ZolVekSession.h"

#include <string>
#include <vector>

/// What the parts of the gateway leave for the event loop to do: pipes to read, outboxes to flush, pipes to close.
struct SZolVekAgenda
{
    std::vector<CZolVekSession *> m_oReady;   ///< may have frames; each once (m_bReady)
    std::vector<CZolVekSession *> m_oDirty;   ///< have got frames in this turn; each once (m_bDirty)
    std::vector<CZolVekSession *> m_oToClose; ///< to be closed at the end of the turn; m_strCloseReason says why
    std::uint64_t m_ulNowMs = 0;              ///< monotonic time of the turn

    void ready(CZolVekSession &oSession)
    {
        if (!oSession.m_bReady)
        {
            oSession.m_bReady = true;
            m_oReady.push_back(&oSession);
        }
    }
    void dirty(CZolVekSession &oSession)
    {
        if (!oSession.m_bDirty)
        {
            oSession.m_bDirty = true;
            m_oDirty.push_back(&oSession);
        }
    }
    /// The rest of what it sent is read and dropped in its next turn, up to the end that it has come to.
    void giveUp(CZolVekSession &oSession)
    {
        oSession.m_bDiscard = true;
        ready(oSession);
    }
    void closeLater(CZolVekSession &oSession, const std::string &strReason)
    {
        if (oSession.m_strCloseReason.empty() && oSession.m_eState != VEK_CLOSED)
        {
            oSession.m_strCloseReason = strReason;
            m_oToClose.push_back(&oSession);
        }
    }
};

#endif
