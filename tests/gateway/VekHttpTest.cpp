#include "support/ChildProcess.h"
#include "support/Installation.h"
#include "support/RawPipe.h"
#include "support/WaitUntil.h"

#include <csignal>
#include <gtest/gtest.h>
#include <memory>

using namespace zoltest;
using namespace std::chrono_literals;

namespace
{

/// The program vek with a status port.
class VekHttpTest : public testing::Test
{
protected:
    void start(std::vector<std::string> oOptions = {})
    {
        oOptions.insert(oOptions.begin(), {ZOL_VEK, "--listen", "127.0.0.1:0", "--http", "0"});
        m_poVek = std::make_unique<CChildProcess>(oOptions);
        ASSERT_TRUE(m_poVek->waitForOutput("status on port ")) << m_poVek->errors();
        ASSERT_TRUE(waitUntil([this] { return m_poVek->output().back() == '\n'; }));
        m_usPort = numberBehind("listening on 127.0.0.1:");
        m_usHttp = numberBehind("status on port ");
    }

    unsigned short numberBehind(const std::string &strText) const
    {
        const std::string strOutput = m_poVek->output();
        return static_cast<unsigned short>(std::stoul(strOutput.substr(strOutput.find(strText) + strText.size())));
    }

    std::string get(const std::string &strPath) const
    {
        CRawPipe oClient = CRawPipe::connectTo(m_usHttp);
        EXPECT_TRUE(oClient.send("GET " + strPath + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"));
        return oClient.read(10 << 20);
    }

    std::unique_ptr<CChildProcess> m_poVek;
    unsigned short m_usPort = 0;
    unsigned short m_usHttp = 0;
};

TEST_F(VekHttpTest, TellsOfThePipesThatAreUp)
{
    start();
    CRawPipe oPipe = CRawPipe::connectTo(m_usPort);
    ASSERT_EQ(0, oPipe.registerAs(7, 3));
    EXPECT_NE(std::string::npos, get("/").find("<title>vek</title>"));
    EXPECT_TRUE(waitUntil([this] { return countOf(get("/metrics"), "\nzol_vek_pipes 1\n") == 1; }));
    EXPECT_NE(std::string::npos, get("/status.json").find(R"("id":7,"handle":3,"address":"127.0.0.1:)"));
    EXPECT_NE(std::string::npos, get("/healthz").find("\r\n\r\nrouting\n"));
}

// Bytes that wait for a process that does not read keep the gateway draining, and a load balancer must see it.
TEST_F(VekHttpTest, TellsThatItDrains)
{
    start({"--drain-seconds", "60"});
    CRawPipe oStopped = CRawPipe::connectTo(m_usPort);
    ASSERT_EQ(0, oStopped.registerAs(8, 1));
    CRawPipe oPipe = CRawPipe::connectTo(m_usPort);
    ASSERT_EQ(0, oPipe.registerAs(7, 1));
    SFrame oFrame;
    oFrame.m_usSrcProc = 7;
    oFrame.m_usSrcHandle = 1;
    oFrame.m_usDestProc = 8;
    oFrame.m_usDestHandle = 1;
    const std::string strFrame = oFrame.body(std::string(4 << 20, 'x')).wire();
    for (int iFrame = 0; iFrame < 4; ++iFrame)
    {
        ASSERT_TRUE(oPipe.send(strFrame));
    }
    ASSERT_TRUE(waitUntil([this] { return countOf(get("/metrics"), "zol_vek_frames_received_total 4\n") == 1; }));
    m_poVek->signal(SIGTERM);
    EXPECT_TRUE(waitUntil([this] { return get("/healthz").find("\r\n\r\ndraining\n") != std::string::npos; }));
    m_poVek->signal(SIGTERM); // the second one does not wait
    EXPECT_EQ(0, m_poVek->exitCode());
}

TEST_F(VekHttpTest, EndsAlthoughClientsHang)
{
    start();
    CRawPipe oSilent = CRawPipe::connectTo(m_usHttp);
    CRawPipe oHalf = CRawPipe::connectTo(m_usHttp);
    ASSERT_TRUE(oHalf.send("GET / HTTP/1.1\r\nHost: loc"));
    EXPECT_NE(std::string::npos, get("/healthz").find("routing"));
    m_poVek->signal(SIGTERM);
    EXPECT_EQ(0, m_poVek->exitCode());
    EXPECT_TRUE(oSilent.waitClosed());
}

TEST_F(VekHttpTest, SaysInOneLineWhyThereIsNoStatusPort)
{
    const CRawListener oTaken;
    const struct
    {
        std::string strHttp;
        int iCode;
        std::string strErrors;
    } aCases[] = {
        {std::to_string(oTaken.port()), 1, "cannot listen: Address already in use\n"},
        {"198.51.100.7:80", 1, "cannot listen: Cannot assign requested address\n"},
        {"eighty", 78, "--http: Http: \"eighty\" is no port, and no IPv4 address and port with a colon between\n"},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.strHttp);
        CChildProcess oVek({ZOL_VEK, "--listen", "127.0.0.1:0", "--log-level", "0", "--http", oCase.strHttp});
        EXPECT_EQ(oCase.iCode, oVek.exitCode());
        const std::string strErrors = oVek.errors();
        EXPECT_EQ(1u, countOf(strErrors, "\n")) << strErrors;
        EXPECT_NE(std::string::npos, strErrors.find(oCase.strErrors)) << strErrors;
    }
}

// Whatever is sent to the status port, frames pass on next to it.
TEST_F(VekHttpTest, RoutesWhileTheStatusPortIsAbused)
{
    start();
    CRawPipe oPipe = CRawPipe::connectTo(m_usPort);
    ASSERT_EQ(0, oPipe.registerAs(7, 1));
    SFrame oFrame;
    oFrame.m_usSrcProc = 7;
    oFrame.m_usSrcHandle = 1;
    oFrame.m_usDestProc = 7;
    oFrame.m_usDestHandle = 1;
    const std::string astrAbuse[] = {"", "GET / HTTP/1.1\r\nHost: lo", "GET /status.json HTTP/1.1\r\n\r\n",
                                     std::string(100000, 'A'), std::string(3000, '\0')};
    std::vector<CRawPipe> oAbusers;
    for (unsigned int uiRound = 0; uiRound < 600; ++uiRound)
    {
        oAbusers.push_back(CRawPipe::connectTo(m_usHttp));
        (void)oAbusers.back().send(astrAbuse[uiRound % std::size(astrAbuse)], 20ms);
        ASSERT_TRUE(oPipe.send(oFrame.body(word32(uiRound)).wire()));
        SFrame oBack;
        ASSERT_TRUE(oPipe.readFrame(oBack));
        ASSERT_EQ(word32(uiRound), oBack.m_strBody);
    }
    EXPECT_NE(std::string::npos, get("/healthz").find("routing"));
}

} // namespace
