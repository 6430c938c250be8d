#include "gateway/watch/http/ZolHttpServer.h"

#include "gateway/config/ZolVekEndpoint.h"

#include "gateway/watch/http/ZolStatusPage.h"
#include "gateway/watch/http/ZolStatusText.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr std::chrono::milliseconds SNAPSHOT_AGE(500);   // younger ones are shown again
constexpr std::chrono::milliseconds SNAPSHOT_WAIT(1000); // after it the routing thread counts as not answering

constexpr std::chrono::milliseconds WATCHED_FOR(10000); // a page that asked so long ago is taken to be open

constexpr unsigned int MOST_PEERS = 200;            // above it the one without a request for longest is closed
constexpr unsigned int IDLE_SECONDS = 15;           // without a byte, in either direction
constexpr size_t CONNECTION_BYTES = 16 * 1024;      // for a request with all its header lines
constexpr char NONCE_PLACE[] = "NONCE-OF-THE-PAGE"; // where the page wants its nonce

std::string randomText()
{
    unsigned char aucBytes[16] = {};
    (void)!getrandom(aucBytes, sizeof aucBytes, 0); // 16 bytes come whole or, on kernels that cannot, stay 0
    std::string strText;
    for (const unsigned char ucByte : aucBytes)
    {
        char acHex[3];
        snprintf(acHex, sizeof acHex, "%02x", ucByte);
        strText += acHex;
    }
    return strText;
}

std::string errnoText(const char *pcWhat)
{
    const int iError = errno;
    const char *const pcText = strerrordesc_np(iError);
    return std::string(pcWhat) + ": " + (pcText == nullptr ? "unknown error" : pcText);
}

/// The thread of the daemon must not take the signals that end or reload the gateway.
class CSignalsBlocked
{
public:
    CSignalsBlocked()
    {
        sigset_t oAll;
        sigfillset(&oAll);
        pthread_sigmask(SIG_SETMASK, &oAll, &m_oBefore);
    }
    ~CSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_oBefore, nullptr); }
    CSignalsBlocked(const CSignalsBlocked &) = delete;
    CSignalsBlocked &operator=(const CSignalsBlocked &) = delete;

private:
    sigset_t m_oBefore{};
};

// What the daemon has to say is about single clients, and no client may fill the log.
void ignoreLog(void *, const char *, va_list) {}

} // namespace

CZolHttpServer::CZolHttpServer(CZolSnapshotExchange &oExchange) : m_oExchange(oExchange), m_oPeers(MOST_PEERS) {}

CZolHttpServer::~CZolHttpServer()
{
    stop();
}

bool CZolHttpServer::listen(std::uint32_t ulAddress, unsigned short usPort, std::string &strError)
{
    m_iListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_iListenFd < 0)
    {
        strError = errnoText("cannot make a socket");
        return false;
    }
    const int iOn = 1;
    (void)setsockopt(m_iListenFd, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof iOn);
    sockaddr_in oAddress{};
    oAddress.sin_family = AF_INET;
    oAddress.sin_addr.s_addr = htonl(ulAddress);
    oAddress.sin_port = htons(usPort);
    socklen_t uiLength = sizeof oAddress;
    auto *const poAddress = reinterpret_cast<sockaddr *>(&oAddress);
    if (bind(m_iListenFd, poAddress, uiLength) != 0 || ::listen(m_iListenFd, SOMAXCONN) != 0 ||
        getsockname(m_iListenFd, poAddress, &uiLength) != 0)
    {
        strError = errnoText("cannot listen");
        close(m_iListenFd);
        m_iListenFd = -1;
        return false;
    }
    m_usPort = ntohs(oAddress.sin_port);
    m_bLoopback = ulAddress >> 24 == 127;
    return true;
}

bool CZolHttpServer::start(const std::string &strListen, std::string &strError)
{
    std::uint32_t ulAddress = 0;
    unsigned short usPort = 0;
    if (!zolVekEndpointFrom(strListen, ulAddress, usPort))
    {
        strError = "not a port or an address with a port";
        return false;
    }
    if (!listen(ulAddress, usPort, strError))
    {
        return false;
    }
    m_poPage = makePage();
    const CSignalsBlocked oBlocked;
    m_poDaemon =
        MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ERROR_LOG, 0, nullptr, nullptr,
                         &CZolHttpServer::handle, this, MHD_OPTION_EXTERNAL_LOGGER, &ignoreLog, nullptr,
                         MHD_OPTION_LISTEN_SOCKET, m_iListenFd, MHD_OPTION_CONNECTION_LIMIT, MOST_CONNECTIONS,
                         MHD_OPTION_CONNECTION_TIMEOUT, IDLE_SECONDS, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                         CONNECTION_BYTES, MHD_OPTION_NOTIFY_CONNECTION, &CZolHttpPeers::onConnection, &m_oPeers,
                         MHD_OPTION_NOTIFY_COMPLETED, &CZolHttpPeers::onCompleted, &m_oPeers, MHD_OPTION_END);
    if (m_poDaemon == nullptr)
    {
        strError = errnoText("cannot start the HTTP thread");
        close(m_iListenFd);
    }
    m_iListenFd = -1;
    return m_poDaemon != nullptr;
}

void CZolHttpServer::stop()
{
    if (m_poDaemon != nullptr)
    {
        MHD_stop_daemon(m_poDaemon);
        m_poDaemon = nullptr;
    }
    for (MHD_Response **ppoResponse : {&m_poPage, &m_oJson.m_poResponse, &m_oMetrics.m_poResponse})
    {
        if (*ppoResponse != nullptr)
        {
            MHD_destroy_response(*ppoResponse);
            *ppoResponse = nullptr;
        }
    }
    m_usPort = 0;
}

MHD_Response *CZolHttpServer::makeResponse(const std::string &strBody, const char *pcType)
{
    MHD_Response *const poResponse = MHD_create_response_from_buffer(strBody.size(), const_cast<char *>(strBody.data()),
                                                                     MHD_RESPMEM_MUST_COPY); // only reads it
    if (poResponse != nullptr)
    {
        MHD_add_response_header(poResponse, "Content-Type", pcType);
        MHD_add_response_header(poResponse, "Cache-Control", "no-store");
        MHD_add_response_header(poResponse, "X-Content-Type-Options", "nosniff");
    }
    return poResponse;
}

// The page carries its script and its style with it. The nonce lets the browser run these and nothing that a text shown
// on the page might smuggle in.
MHD_Response *CZolHttpServer::makePage() const
{
    const std::string strNonce = randomText();
    std::string strPage(zolStatusPage());
    for (size_t uiAt = strPage.find(NONCE_PLACE); uiAt != std::string::npos; uiAt = strPage.find(NONCE_PLACE, uiAt))
    {
        strPage.replace(uiAt, sizeof NONCE_PLACE - 1, strNonce);
    }
    MHD_Response *const poResponse = makeResponse(strPage, "text/html; charset=utf-8");
    if (poResponse != nullptr)
    {
        const std::string strPolicy = "default-src 'none'; connect-src 'self'; img-src data:; style-src 'nonce-" +
                                      strNonce + "'; script-src 'nonce-" + strNonce +
                                      "'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
        MHD_add_response_header(poResponse, "Content-Security-Policy", strPolicy.c_str());
        MHD_add_response_header(poResponse, "Referrer-Policy", "no-referrer");
    }
    return poResponse;
}

MHD_Result CZolHttpServer::handle(void *pvSelf, MHD_Connection *poConnection, const char *pcUrl, const char *pcMethod,
                                  const char *, const char *, size_t *, void **)
{
    // answered as soon as the header is there: no request has a body that is of interest here
    return static_cast<CZolHttpServer *>(pvSelf)->answer(poConnection, pcUrl, pcMethod);
}

bool CZolHttpServer::isForUs(MHD_Connection *poConnection) const
{
    const char *const pcHost = MHD_lookup_connection_value(poConnection, MHD_HEADER_KIND, "Host");
    if (!m_bLoopback || pcHost == nullptr) // a browser always sends it
    {
        return true;
    }
    const std::string strHost(pcHost, std::strcspn(pcHost, ":"));
    in_addr oAddress{};
    return strHost == "localhost" || std::strncmp(pcHost, "[::1]", 5) == 0 ||
           (inet_pton(AF_INET, strHost.c_str(), &oAddress) == 1 && ntohl(oAddress.s_addr) >> 24 == 127);
}

MHD_Result CZolHttpServer::answer(MHD_Connection *poConnection, const std::string &strUrl, const std::string &strMethod)
{
    if (strMethod != "GET" && strMethod != "HEAD")
    {
        return answerText(poConnection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD\n");
    }
    if (!isForUs(poConnection))
    {
        return answerText(poConnection, MHD_HTTP_MISDIRECTED_REQUEST, "ask for localhost or a loopback address\n");
    }
    if (strUrl == "/" && m_poPage != nullptr)
    {
        return MHD_queue_response(poConnection, MHD_HTTP_OK, m_poPage);
    }
    if (strUrl == "/status.json")
    {
        m_oWatched = std::chrono::steady_clock::now();
        return answerRendered(poConnection, m_oJson, "application/json", &zolStatusJson);
    }
    if (strUrl == "/metrics")
    {
        return answerRendered(poConnection, m_oMetrics, "text/plain; version=0.0.4; charset=utf-8", &zolMetricsText);
    }
    if (strUrl == "/healthz")
    {
        return answerHealth(poConnection);
    }
    return answerText(poConnection, MHD_HTTP_NOT_FOUND, "there are /, /status.json, /metrics and /healthz\n");
}

MHD_Result CZolHttpServer::answerText(MHD_Connection *poConnection, unsigned int uiStatus, const char *pcText) const
{
    MHD_Response *const poResponse = makeResponse(pcText, "text/plain; charset=utf-8");
    if (poResponse == nullptr)
    {
        return MHD_NO;
    }
    if (uiStatus == MHD_HTTP_METHOD_NOT_ALLOWED)
    {
        MHD_add_response_header(poResponse, "Allow", "GET, HEAD");
    }
    const MHD_Result eResult = MHD_queue_response(poConnection, uiStatus, poResponse);
    MHD_destroy_response(poResponse);
    return eResult;
}

const SZolGatewaySnapshot *CZolHttpServer::look()
{
    return m_oExchange.get(SNAPSHOT_AGE, SNAPSHOT_WAIT, std::chrono::steady_clock::now() - m_oWatched < WATCHED_FOR);
}

MHD_Result CZolHttpServer::answerHealth(MHD_Connection *poConnection)
{
    const SZolGatewaySnapshot *const poSnapshot = look();
    if (poSnapshot == nullptr)
    {
        return answerText(poConnection, MHD_HTTP_SERVICE_UNAVAILABLE, "not answering\n");
    }
    return poSnapshot->m_bDraining ? answerText(poConnection, MHD_HTTP_SERVICE_UNAVAILABLE, "draining\n")
                                   : answerText(poConnection, MHD_HTTP_OK, "routing\n");
}

MHD_Result CZolHttpServer::answerRendered(MHD_Connection *poConnection, SRendered &oRendered, const char *pcType,
                                          std::string (*pfnRender)(const SZolGatewaySnapshot &))
{
    const SZolGatewaySnapshot *const poSnapshot = look();
    if (poSnapshot == nullptr)
    {
        return answerText(poConnection, MHD_HTTP_SERVICE_UNAVAILABLE, "the routing thread does not answer\n");
    }
    if (oRendered.m_poResponse == nullptr || oRendered.m_ulNumber != m_oExchange.number())
    {
        if (oRendered.m_poResponse != nullptr)
        {
            MHD_destroy_response(oRendered.m_poResponse); // connections that still send it keep it
        }
        oRendered.m_poResponse = makeResponse(pfnRender(*poSnapshot), pcType);
        oRendered.m_ulNumber = m_oExchange.number();
    }
    return oRendered.m_poResponse == nullptr ? MHD_NO
                                             : MHD_queue_response(poConnection, MHD_HTTP_OK, oRendered.m_poResponse);
}
