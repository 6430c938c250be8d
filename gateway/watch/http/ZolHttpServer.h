#ifndef ZOL_GATEWAY_HTTP_ZOLHTTPSERVER_H
#define ZOL_GATEWAY_HTTP_ZOLHTTPSERVER_H

#include "gateway/watch/http/ZolHttpPeers.h"
#include "gateway/watch/http/ZolSnapshot.h"

#include <microhttpd.h>
#include <string>

/// Shows what the gateway does: GET of
///
///     /             the status page for people, one file
///     /status.json  everything that the page shows
///     /metrics      totals for Prometheus
///     /healthz      200 while routing, 503 while draining or when the routing thread does not answer
///
/// It has one thread of its own, asks the routing thread for at most two snapshots a second however many clients there
/// are, and renders each of them once. Nobody logs in here, so it changes nothing. When it listens on the loopback
/// interface it answers only requests for a loopback name: a page from elsewhere that points its own name at 127.0.0.1
/// cannot read it through the operator's browser.
///
/// Threads: start(), stop() and destruction by one thread. If that is the routing thread, it calls end() of the
/// exchange
///          before stop(), or a request that waits for a snapshot would hold it up.
class CZolHttpServer
{
public:
    static constexpr unsigned int MOST_CONNECTIONS = 400; ///< open at once; further ones wait to be accepted

    explicit CZolHttpServer(CZolSnapshotExchange &oExchange);
    ~CZolHttpServer();
    CZolHttpServer(const CZolHttpServer &) = delete;
    CZolHttpServer &operator=(const CZolHttpServer &) = delete;

    /// Listens and starts the thread. On failure strError says why, in one line.
    bool start(const std::string &strListen, std::string &strError);

    /// Ends the thread and closes all its connections. Does nothing if it does not run.
    void stop();

    /// The port that it listens on, 0 before start().
    unsigned short port() const { return m_usPort; }

    /// Only this machine can reach it.
    bool isLoopback() const { return m_bLoopback; }

private:
    struct SRendered // a response that holds for one snapshot
    {
        MHD_Response *m_poResponse = nullptr;
        std::uint64_t m_ulNumber = 0; // of the snapshot
    };

    bool listen(std::uint32_t ulAddress, unsigned short usPort, std::string &strError);
    static MHD_Result handle(void *pvSelf, MHD_Connection *poConnection, const char *pcUrl, const char *pcMethod,
                             const char *pcVersion, const char *pcUpload, size_t *puiUpload, void **ppvRequest);
    MHD_Result answer(MHD_Connection *poConnection, const std::string &strUrl, const std::string &strMethod);
    MHD_Result answerText(MHD_Connection *poConnection, unsigned int uiStatus, const char *pcText) const;
    MHD_Result answerHealth(MHD_Connection *poConnection);
    MHD_Result answerRendered(MHD_Connection *poConnection, SRendered &oRendered, const char *pcType,
                              std::string (*pfnRender)(const SZolGatewaySnapshot &));
    const SZolGatewaySnapshot *look();
    bool isForUs(MHD_Connection *poConnection) const;
    static MHD_Response *makeResponse(const std::string &strBody, const char *pcType);
    MHD_Response *makePage() const;

    CZolSnapshotExchange &m_oExchange;
    bool m_bLoopback = true;
    unsigned short m_usPort = 0;
    int m_iListenFd = -1; // until the daemon owns it
    MHD_Daemon *m_poDaemon = nullptr;

    // of the HTTP thread
    CZolHttpPeers m_oPeers;
    MHD_Response *m_poPage = nullptr;
    SRendered m_oJson;
    SRendered m_oMetrics;
    std::chrono::steady_clock::time_point m_oWatched; // when the page, or whoever wants all, last asked
};

#endif
