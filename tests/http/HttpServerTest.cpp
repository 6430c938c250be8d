#include "gateway/watch/http/ZolHttpServer.h"
#include "http/Scenes.h"
#include "support/Installation.h"
#include "support/WaitUntil.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;
using zoltest::CSceneThread;
using zoltest::waitUntil;

namespace
{

bool isReadable(int iFd)
{
    pollfd oPoll = {iFd, POLLIN, 0};
    return poll(&oPoll, 1, 0) == 1;
}

/// A connection to the server, closed at the end.
class CClient
{
public:
    explicit CClient(unsigned short usPort) : m_iSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in oAddress{};
        oAddress.sin_family = AF_INET;
        oAddress.sin_port = htons(usPort);
        oAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_bConnected = connect(m_iSocket, reinterpret_cast<sockaddr *>(&oAddress), sizeof oAddress) == 0;
        const timeval oLimit = {20, 0};
        setsockopt(m_iSocket, SOL_SOCKET, SO_RCVTIMEO, &oLimit, sizeof oLimit);
    }
    ~CClient() { close(m_iSocket); }
    CClient(const CClient &) = delete;
    CClient &operator=(const CClient &) = delete;

    bool isConnected() const { return m_bConnected; }
    bool write(const std::string &strText) const
    {
        return ::send(m_iSocket, strText.data(), strText.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(strText.size());
    }

    /// All that comes until the server closes.
    std::string readAll() const
    {
        std::string strText;
        char acPart[65536];
        for (ssize_t iGot = 0; (iGot = recv(m_iSocket, acPart, sizeof acPart, 0)) > 0;)
        {
            strText.append(acPart, static_cast<size_t>(iGot));
        }
        return strText;
    }

    /// Whether the server has closed it, without waiting.
    bool isClosed() const
    {
        char cByte = 0;
        const ssize_t iGot = recv(m_iSocket, &cByte, 1, MSG_DONTWAIT | MSG_PEEK);
        return iGot == 0 || (iGot < 0 && errno != EAGAIN);
    }

private:
    const int m_iSocket;
    bool m_bConnected;
};

class HttpServerTest : public testing::Test
{
protected:
    void start(const std::string &strScene)
    {
        m_poScene = std::make_unique<CSceneThread>(m_oExchange, strScene);
        std::string strError;
        ASSERT_TRUE(m_oServer.start("127.0.0.1:0", strError)) << strError;
    }

    std::string ask(const std::string &strRequest) const
    {
        const CClient oClient(m_oServer.port());
        return oClient.write(strRequest) ? oClient.readAll() : "";
    }

    std::string get(const std::string &strPath, const std::string &strHost = "localhost") const
    {
        return ask("GET " + strPath + " HTTP/1.1\r\nHost: " + strHost + "\r\nConnection: close\r\n\r\n");
    }

    static std::string statusOf(const std::string &strAnswer)
    {
        return strAnswer.size() < 12 ? "none" : strAnswer.substr(9, 3);
    }

    CZolSnapshotExchange m_oExchange;
    std::unique_ptr<CSceneThread> m_poScene;
    CZolHttpServer m_oServer{m_oExchange};
};

} // namespace

TEST(SnapshotExchangeTest, AsksOnceAndKeepsWhatIsYoung)
{
    CZolSnapshotExchange oExchange;
    ASSERT_TRUE(oExchange.isOpen());
    EXPECT_FALSE(isReadable(oExchange.askedFd()));
    EXPECT_EQ(nullptr, oExchange.takeAsked());
    {
        const CSceneThread oThread(oExchange, "load");
        const SZolGatewaySnapshot *const poFirst = oExchange.get(1h, 20s, true);
        ASSERT_NE(nullptr, poFirst);
        EXPECT_EQ(50u, poFirst->m_oPipes.size());
        EXPECT_EQ(poFirst, oExchange.get(1h, 20s, true));
        EXPECT_EQ(1u, oExchange.number());
        EXPECT_NE(poFirst, oExchange.get(0ms, 20s, true));
        EXPECT_EQ(2u, oExchange.number());
        EXPECT_TRUE(oExchange.get(0ms, 20s, false) != nullptr);
        EXPECT_TRUE(oExchange.get(1h, 20s, true)->m_bWatched) << "one with less was young";
        EXPECT_EQ(4u, oExchange.number());
        (void)oExchange.get(1h, 20s, false);
        EXPECT_EQ(4u, oExchange.number());
    }
    EXPECT_FALSE(isReadable(oExchange.askedFd())) << "a question was left that nobody asked";
}

// A routing thread that hangs, and then answers late: nobody waits for long, it is not asked twice, and what comes late
// is not taken for the present.
TEST(SnapshotExchangeTest, OutlivesAThreadThatAnswersLate)
{
    CZolSnapshotExchange oExchange;
    EXPECT_EQ(nullptr, oExchange.get(1h, 20ms, true));
    EXPECT_EQ(nullptr, oExchange.get(1h, 1h, true)); // the second asker does not wait: nobody answers

    SZolGatewaySnapshot *const poLate = oExchange.takeAsked();
    ASSERT_NE(nullptr, poLate);
    EXPECT_EQ(nullptr, oExchange.takeAsked());
    poLate->m_ulFramesIn = 1;
    oExchange.publish(poLate);

    const CSceneThread oThread(oExchange, "load");
    const SZolGatewaySnapshot *poFresh = nullptr;
    ASSERT_TRUE(waitUntil([&] { return (poFresh = oExchange.get(0ms, 1s, true)) != nullptr; }));
    EXPECT_NE(1u, poFresh->m_ulFramesIn);
}

TEST_F(HttpServerTest, AnswersEachRequestWithItsStatus)
{
    start("load");
    const std::string strTail = " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
    const struct
    {
        const char *pcName;
        std::string strRequest;
        const char *pcStatus;
    } aCases[] = {
        {"page", "GET /" + strTail, "200"},
        {"status", "GET /status.json" + strTail, "200"},
        {"metrics", "GET /metrics" + strTail, "200"},
        {"health", "GET /healthz" + strTail, "200"},
        {"with a query", "GET /metrics?now=1" + strTail, "200"},
        {"head only", "HEAD /metrics" + strTail, "200"},
        {"unknown path", "GET /../etc/passwd" + strTail, "404"},
        {"post", "POST /metrics HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\nConnection: close\r\n\r\nhello",
         "405"},
        {"unknown method", "BREW /" + strTail, "405"},
        {"foreign name", "GET / HTTP/1.1\r\nHost: evil.example\r\nConnection: close\r\n\r\n", "421"},
        {"name that begins well", "GET / HTTP/1.1\r\nHost: localhost.evil.example\r\nConnection: close\r\n\r\n", "421"},
        {"no name", "GET /healthz HTTP/1.0\r\n\r\n", "200"},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        EXPECT_EQ(oCase.pcStatus, statusOf(ask(oCase.strRequest)));
    }
}

// The browser runs what carries the nonce and nothing else, so the two have to be the same, and fresh at each start.
TEST_F(HttpServerTest, PageCarriesTheNonceOfItsPolicy)
{
    start("load");
    const std::string strPage = get("/");
    const std::string strMark = "script-src 'nonce-";
    const size_t uiAt = strPage.find(strMark);
    ASSERT_NE(std::string::npos, uiAt);
    const std::string strNonce = strPage.substr(uiAt + strMark.size(), 32);
    EXPECT_EQ(1u, zoltest::countOf(strPage, "<script nonce=\"" + strNonce + "\">"));
    EXPECT_EQ(1u, zoltest::countOf(strPage, "<style nonce=\"" + strNonce + "\">"));
    EXPECT_EQ(0u, zoltest::countOf(strPage, "NONCE-OF-THE-PAGE"));
    EXPECT_EQ(0u, zoltest::countOf(strPage, "=\"http")) << "the page wants something from outside";

    m_oServer.stop();
    std::string strError;
    ASSERT_TRUE(m_oServer.start("127.0.0.1:0", strError)) << strError;
    EXPECT_EQ(std::string::npos, get("/").find(strNonce));
}

TEST_F(HttpServerTest, TellsWhenTheRoutingThreadHangs)
{
    start("load");
    m_poScene->setStuck(true);
    for (const char *pcPath : {"/healthz", "/status.json", "/metrics"})
    {
        EXPECT_EQ("503", statusOf(get(pcPath))) << pcPath;
    }
    EXPECT_EQ("200", statusOf(get("/"))) << "the page itself has to come, to say that nothing answers";
    m_poScene->setStuck(false);
    EXPECT_TRUE(waitUntil([this] { return statusOf(get("/healthz")) == "200"; }));
}

// Clients that hold what they can get: silent ones, ones that send half a request, ones that ask for everything and
// read nothing. The operator's page still answers.
TEST_F(HttpServerTest, ThousandIdleConnectionsHurtOnlyThemselves)
{
    rlimit oLimit{};
    getrlimit(RLIMIT_NOFILE, &oLimit);
    oLimit.rlim_cur = oLimit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &oLimit);
    start("many");
    std::vector<std::unique_ptr<CClient>> oClients;
    const std::string astrStarts[] = {"", "GET / HTTP/1.1\r\nHost: lo",
                                      "GET /status.json HTTP/1.1\r\nHost: localhost\r\n\r\n"};
    for (int iClient = 0; iClient < 1000; ++iClient)
    {
        oClients.push_back(std::make_unique<CClient>(m_oServer.port()));
        ASSERT_TRUE(oClients.back()->isConnected());
        (void)oClients.back()->write(astrStarts[iClient % 3]);
        if (iClient % 100 == 99)
        {
            EXPECT_EQ("200", statusOf(get("/healthz"))) << "with " << iClient + 1 << " connections";
        }
    }
    const auto countOpen = [&oClients] {
        return std::count_if(oClients.begin(), oClients.end(),
                             [](const auto &poClient) { return !poClient->isClosed(); });
    };
    EXPECT_TRUE(waitUntil([&] { return countOpen() <= 540; }))
        << countOpen(); // two thirds silent: 200 of them, and readable answers
    EXPECT_EQ("200", statusOf(get("/status.json")));
}

TEST_F(HttpServerTest, StopsWhileClientsHang)
{
    start("load");
    const CClient oClient(m_oServer.port());
    ASSERT_TRUE(oClient.write("GET / HTTP/1.1\r\n"));
    m_oServer.stop();
    EXPECT_EQ("", oClient.readAll());
    EXPECT_EQ(0u, m_oServer.port());
}
