#ifndef ZOL_GATEWAY_HTTP_ZOLHTTPPEERS_H
#define ZOL_GATEWAY_HTTP_ZOLHTTPPEERS_H

#include <list>
#include <microhttpd.h>

/// The open HTTP connections, the one that has been without a finished request for longest in front. When there are too
/// many, that one goes: clients that only hold connections, or send a byte now and then, push out each other and never
/// the page that asks every second.
///
/// Threads: all by the HTTP thread, as callbacks of its daemon.
class CZolHttpPeers
{
public:
    explicit CZolHttpPeers(unsigned int uiMost) : m_uiMost(uiMost) {}

    /// For MHD_OPTION_NOTIFY_CONNECTION.
    static void onConnection(void *pvSelf, MHD_Connection *poConnection, void **ppvPeer,
                             MHD_ConnectionNotificationCode eCode);

    /// For MHD_OPTION_NOTIFY_COMPLETED.
    static void onCompleted(void *pvSelf, MHD_Connection *poConnection, void **ppvRequest,
                            MHD_RequestTerminationCode eCode);

private:
    struct SPeer
    {
        int m_iFd;
        bool m_bEnding; // was shut down; its end is not yet seen
        std::list<SPeer>::iterator m_oPlace;
    };

    void add(MHD_Connection *poConnection, void **ppvPeer);
    void endOldest();

    const unsigned int m_uiMost;
    std::list<SPeer> m_oPeers;
    unsigned int m_uiEnding = 0; // how many of them are ending
};

#endif
