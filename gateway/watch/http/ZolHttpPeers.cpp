#include "gateway/watch/http/ZolHttpPeers.h"

#include <algorithm>
#include <sys/socket.h>

void CZolHttpPeers::onConnection(void *pvSelf, MHD_Connection *poConnection, void **ppvPeer,
                                 MHD_ConnectionNotificationCode eCode)
{
    auto *const poSelf = static_cast<CZolHttpPeers *>(pvSelf);
    if (eCode == MHD_CONNECTION_NOTIFY_STARTED)
    {
        poSelf->add(poConnection, ppvPeer);
        return;
    }
    auto *const poPeer = static_cast<SPeer *>(*ppvPeer);
    if (poPeer != nullptr)
    {
        poSelf->m_uiEnding -= poPeer->m_bEnding ? 1 : 0;
        poSelf->m_oPeers.erase(poPeer->m_oPlace);
        *ppvPeer = nullptr;
    }
}

void CZolHttpPeers::onCompleted(void *pvSelf, MHD_Connection *poConnection, void **, MHD_RequestTerminationCode)
{
    auto *const poSelf = static_cast<CZolHttpPeers *>(pvSelf);
    const MHD_ConnectionInfo *const poInfo = MHD_get_connection_info(poConnection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    auto *const poPeer = poInfo == nullptr ? nullptr : static_cast<SPeer *>(poInfo->socket_context);
    if (poPeer != nullptr)
    {
        poSelf->m_oPeers.splice(poSelf->m_oPeers.end(), poSelf->m_oPeers, poPeer->m_oPlace);
    }
}

void CZolHttpPeers::add(MHD_Connection *poConnection, void **ppvPeer)
{
    const MHD_ConnectionInfo *const poInfo = MHD_get_connection_info(poConnection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (poInfo == nullptr)
    {
        return;
    }
    if (m_oPeers.size() - m_uiEnding >= m_uiMost)
    {
        endOldest();
    }
    m_oPeers.push_back({poInfo->connect_fd, false, {}});
    m_oPeers.back().m_oPlace = std::prev(m_oPeers.end());
    *ppvPeer = &m_oPeers.back();
}

void CZolHttpPeers::endOldest()
{
    const auto oOldest =
        std::find_if(m_oPeers.begin(), m_oPeers.end(), [](const SPeer &oPeer) { return !oPeer.m_bEnding; });
    if (oOldest != m_oPeers.end())
    {
        // the daemon still owns the descriptor: it sees the end of the stream and closes
        (void)shutdown(oOldest->m_iFd, SHUT_RDWR);
        oOldest->m_bEnding = true;
        ++m_uiEnding;
    }
}
