// The program as an operator meets it: its command line, its signals, what it says and the code that it leaves with.

#include "support/ChildProcess.h"
#include "support/Installation.h"
#include "support/RawPipe.h"
#include "support/WaitUntil.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zoltest;
using namespace std::chrono_literals;

namespace
{

class VekProgramTest : public testing::Test
{
protected:
    /// A gateway that is ready, on a port of its own choice.
    unsigned short start(const std::vector<std::string> &oOptions, const CChildProcess::Environment &oEnvironment = {})
    {
        std::vector<std::string> oCommand = {ZOL_VEK, "--listen", "127.0.0.1:0"};
        oCommand.insert(oCommand.end(), oOptions.begin(), oOptions.end());
        m_poVek = std::make_unique<CChildProcess>(oCommand, oEnvironment);
        EXPECT_TRUE(m_poVek->waitForOutput("vek listening on 127.0.0.1:")) << m_poVek->errors();
        const std::string strText = m_poVek->output();
        const std::size_t ulAt = strText.find("vek listening on 127.0.0.1:");
        return ulAt == std::string::npos ? 0 : static_cast<unsigned short>(std::stoi(strText.substr(ulAt + 27)));
    }

    static int run(const std::vector<std::string> &oOptions, std::string *pstrErrors = nullptr,
                   std::string *pstrOutput = nullptr)
    {
        std::vector<std::string> oCommand = {ZOL_VEK};
        oCommand.insert(oCommand.end(), oOptions.begin(), oOptions.end());
        CChildProcess oVek(oCommand);
        const int iCode = oVek.exitCode();
        if (pstrErrors != nullptr)
        {
            *pstrErrors = oVek.errors();
        }
        if (pstrOutput != nullptr)
        {
            *pstrOutput = oVek.output();
        }
        return iCode;
    }

    /// Process usProc, handle 1.
    static CRawPipe up(unsigned short usPort, unsigned short usProc)
    {
        CRawPipe oPipe = CRawPipe::connectTo(usPort);
        EXPECT_EQ(0, oPipe.registerAs(usProc, 1));
        return oPipe;
    }

    static SFrame toHandleOne(unsigned short usProc)
    {
        SFrame oFrame;
        oFrame.m_usDestProc = usProc;
        oFrame.m_usDestHandle = 1;
        return oFrame;
    }

    /// What the status port answers.
    std::string get(const std::string &strPath) const
    {
        const std::string strMark = "status on port ";
        EXPECT_TRUE(
            waitUntil([&] { return countOf(m_poVek->output(), strMark) == 1 && m_poVek->output().back() == '\n'; }));
        const std::string strText = m_poVek->output();
        const int iPort = std::stoi(strText.substr(strText.find(strMark) + strMark.size()));
        CRawPipe oClient = CRawPipe::connectTo(static_cast<unsigned short>(iPort));
        EXPECT_TRUE(oClient.send("GET " + strPath + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"));
        return oClient.read(10 << 20);
    }

    std::string write(const std::string &strName, const std::string &strText) const
    {
        std::ofstream(m_oInstallation.root() + "/" + strName) << strText;
        return m_oInstallation.root() + "/" + strName;
    }

    CInstallation m_oInstallation;
    std::unique_ptr<CChildProcess> m_poVek;
};

TEST_F(VekProgramTest, LeavesWithTheCodeThatTellsWhy)
{
    const std::string strBad = write("bad.cfg", "LogLevel = 9\nNonsense = 1\nHelloSeconds = 60\n");
    const CRawListener oTaken;
    std::string strErrors;
    EXPECT_EQ(2, run({"--nonsense"}));
    EXPECT_EQ(2, run({"--log-level"}));
    EXPECT_EQ(0, run({"--help"}));
    EXPECT_EQ(0, run({"--version"}));
    EXPECT_EQ(78, run({"--config", strBad}, &strErrors));
    EXPECT_NE(std::string::npos, strErrors.find("bad.cfg:1: LogLevel: \"9\"")) << strErrors;
    EXPECT_NE(std::string::npos, strErrors.find("bad.cfg:2: Nonsense: unknown key")) << strErrors;
    EXPECT_EQ(78, run({"--config", m_oInstallation.root() + "/none.cfg"}, &strErrors));
    EXPECT_EQ("cannot read " + m_oInstallation.root() + "/none.cfg\n", strErrors);
    EXPECT_EQ(78, run({"--config", m_oInstallation.root()}, &strErrors)) << "a folder is no file";
    EXPECT_EQ(1, run({"--listen", "127.0.0.1:" + std::to_string(oTaken.port())}, &strErrors));
    EXPECT_EQ(1u, countOf(strErrors, "\n")) << strErrors;
    EXPECT_NE(std::string::npos, strErrors.find("cannot listen on 127.0.0.1:")) << strErrors;
    const std::string strTaken = std::to_string(oTaken.port());
    EXPECT_EQ(1, run({"--listen", "127.0.0.1:0", "--log-level", "0", "--http", strTaken}, &strErrors));
    EXPECT_EQ("vek: " + strTaken + ": cannot listen: Address already in use\n", strErrors);
}

TEST_F(VekProgramTest, PrintsEverySettingAndWhereItIsFrom)
{
    const std::string strGood = write("good.cfg", "# mine\nLogLevel = 2\nDrainSeconds = 3\nPort.7 = 70\n");
    std::string strOutput;
    EXPECT_EQ(0, run({"--config", strGood, "--log-level", "5", "--port", "8=80", "--port", "8.1=81", "--check-config"},
                     nullptr, &strOutput));
    for (const std::string &strLine :
         {std::string("LogLevel = 5    (0 to 5; --log-level)\n"), "DrainSeconds = 3    (seconds; " + strGood + ":3)\n",
          std::string("StuckSeconds = 120    (seconds; default)\n"),
          "Port.<id> = 7=70 8=80 8.1=81    (id=port; --port, --port, " + strGood + ":4)\n"})
    {
        EXPECT_NE(std::string::npos, strOutput.find(strLine)) << strLine << strOutput;
    }
    EXPECT_EQ(78, run({"--log-level", "7", "--check-config"}));
    EXPECT_EQ(0, run({"--config", ZOL_PACKAGED_CONFIG, "--check-config"}));
}

// What waits for a process that does not read keeps the gateway draining, as a load balancer sees, until the process
// has it or a second signal ends the wait.
TEST_F(VekProgramTest, DrainsOnTheFirstSignalAndEndsOnTheSecond)
{
    for (const bool bReads : {true, false})
    {
        SCOPED_TRACE(bReads);
        const unsigned short usPort = start({"--drain-seconds", "600", "--http", "0"});
        CRawPipe oSlow = up(usPort, 8);
        CRawPipe oA = up(usPort, 7);
        SFrame oFrame = toHandleOne(8);
        for (int i = 0; i < 30; ++i)
        {
            ASSERT_TRUE(oA.send(oFrame.body(std::string(1 << 20, static_cast<char>(i))).wire()));
        }
        SFrame oSelf = toHandleOne(7);
        ASSERT_TRUE(oA.send(oSelf.wire()));
        ASSERT_TRUE(oA.readFrame(oSelf)) << "the gateway has read all that came before";
        EXPECT_NE(std::string::npos, get("/").find("<title>vek</title>"));
        EXPECT_TRUE(waitUntil([this] { return countOf(get("/metrics"), "\nzol_vek_pipes 2\n") == 1; }));
        EXPECT_NE(std::string::npos, get("/status.json").find(R"("id":7,"handle":1,"address":"127.0.0.1:)"));
        EXPECT_NE(std::string::npos, get("/healthz").find("\r\n\r\nrouting\n"));
        m_poVek->signal(SIGTERM);
        EXPECT_EQ(-1, CRawPipe::connectTo(usPort).registerAs(9, 1));
        EXPECT_TRUE(waitUntil([this] { return get("/healthz").find("\r\n\r\ndraining\n") != std::string::npos; }));
        EXPECT_EQ(0u, get("/healthz").find("HTTP/1.1 503 "));
        EXPECT_TRUE(m_poVek->isRunning()) << "the slow one has not got everything";
        ASSERT_TRUE(oSlow.send(oSelf.wire())) << "unread input must not reset the connection";
        for (int i = 0; bReads && i < 30; ++i)
        {
            ASSERT_TRUE(oSlow.readFrame(oFrame)) << i;
            ASSERT_EQ(std::string(1 << 20, static_cast<char>(i)), oFrame.m_strBody);
        }
        if (!bReads)
        {
            m_poVek->signal(SIGTERM);
        }
        EXPECT_TRUE(!bReads || oSlow.waitClosed());
        EXPECT_EQ(0, m_poVek->exitCode());
    }
}

TEST_F(VekProgramTest, ReadsItsFileAgainAllOrNothing)
{
    const std::string strConfig = write("vek.cfg", "MaxConnections = 1\n");
    const unsigned short usPort = start({"--config", strConfig});
    CRawPipe oA = up(usPort, 7);
    EXPECT_EQ(-10, CRawPipe::connectTo(usPort).registerAs(8, 1));
    write("vek.cfg", "MaxConnections = 2\nDrainSeconds = none\n");
    m_poVek->signal(SIGHUP);
    ASSERT_TRUE(waitUntil([&] { return countOf(m_poVek->errors(), "nothing changed: ") == 1; }));
    EXPECT_EQ(-10, CRawPipe::connectTo(usPort).registerAs(8, 1));
    write("vek.cfg", "MaxConnections = 2\nMaxLogNumber = 3\n");
    m_poVek->signal(SIGHUP);
    ASSERT_TRUE(waitUntil([&] { return countOf(m_poVek->errors(), "read again, 1 values changed") == 1; }))
        << m_poVek->errors();
    EXPECT_EQ(1u, countOf(m_poVek->errors(), "MaxConnections: 1 -> 2"));
    EXPECT_EQ(1u, countOf(m_poVek->errors(), "only a restart changes MaxLogNumber: 10 -> 3"));
    CRawPipe oB = CRawPipe::connectTo(usPort);
    EXPECT_EQ(0, oB.registerAs(8, 1));
    SFrame oHello;
    oHello.m_ucType = 4;
    ASSERT_TRUE(oA.send(oHello.wire()));
    EXPECT_TRUE(oA.readFrame(oHello)) << "pipes stay up";
}

TEST_F(VekProgramTest, LogsToTheFolderAndKeepsTheLastLines)
{
    const unsigned short usPort = start({"--log-path", m_oInstallation.logFolder()});
    {
        CRawPipe oA = up(usPort, 7);
    }
    m_poVek->signal(SIGTERM);
    EXPECT_EQ(0, m_poVek->exitCode());
    const std::string strLog = m_oInstallation.logText();
    EXPECT_EQ(1u, countOf(strLog, ") is up, 1 in all")) << strLog;
    EXPECT_EQ(1u, countOf(strLog, "draining")) << strLog;
    EXPECT_EQ(1u, countOf(strLog, "run end, ")) << strLog;
    EXPECT_EQ("", m_poVek->errors());
}

TEST_F(VekProgramTest, SaysWhereItLogsWhenItsFolderOrAFileCannotBeUsed)
{
    const std::string strFolder = m_oInstallation.logFolder();
    ASSERT_EQ(0, mkdir((strFolder + "/vek_1.log").c_str(), 0755)); // the second of the ring: lost at a size, not now
    const std::string astrCases[][2] = {
        {m_oInstallation.root() + "/none", m_oInstallation.root() + "/none: No such file or directory"},
        {strFolder, strFolder + "/vek_1.log: Is a directory"}};
    for (const auto &astrCase : astrCases)
    {
        const unsigned short usPort = start({"--log-path", astrCase[0]});
        CRawPipe oA = up(usPort, 7);
        EXPECT_EQ(1u, countOf(m_poVek->errors(), astrCase[1] + "; the log goes to standard error\n"));
        EXPECT_EQ(1u, countOf(m_poVek->errors(), ") is up, 1 in all")) << "what goes to the log goes there";
        m_poVek->signal(SIGTERM);
        EXPECT_EQ(0, m_poVek->exitCode());
    }
}

// /dev/full stands for a full disk: every write to it fails.
TEST_F(VekProgramTest, RunsOnWhenTheDiskUnderItsLogIsFull)
{
    ASSERT_EQ(0, symlink("/dev/full", (m_oInstallation.logFolder() + "/vek_0.log").c_str()));
    const unsigned short usPort = start({"--log-path", m_oInstallation.logFolder()});
    for (unsigned short i = 1; i <= 20; ++i)
    {
        CRawPipe oA = CRawPipe::connectTo(usPort);
        EXPECT_EQ(0, oA.registerAs(7, i));
    }
    m_poVek->signal(SIGTERM);
    EXPECT_EQ(0, m_poVek->exitCode());
}

// Out of descriptors it closes what it cannot take, serves the pipes that it has, and does not spin.
TEST_F(VekProgramTest, SurvivesHavingNoDescriptorLeft)
{
    rlimit oOld{};
    getrlimit(RLIMIT_NOFILE, &oOld);
    rlimit oFew = oOld;
    oFew.rlim_cur = oFew.rlim_max = 40;
    // the child inherits the hard limit, which this process can raise again only if it is privileged: a soft one is
    // enough for a gateway that is told to want no more
    oFew.rlim_max = oOld.rlim_max;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &oFew));
    const unsigned short usPort = start({});
    ASSERT_EQ(0, prlimit(m_poVek->pid(), RLIMIT_NOFILE, &oFew, nullptr));
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &oOld));
    CRawPipe oGood = up(usPort, 7);
    std::vector<CRawPipe> oPipes;
    unsigned int uiRefused = 0;
    for (unsigned short i = 1; i <= 60; ++i)
    {
        oPipes.push_back(CRawPipe::connectTo(usPort));
        if (oPipes.back().registerAs(8, i) != 0)
        {
            ++uiRefused;
        }
    }
    EXPECT_GT(uiRefused, 20u);
    SFrame oSelf = toHandleOne(7);
    ASSERT_TRUE(oGood.send(oSelf.wire()));
    EXPECT_TRUE(oGood.readFrame(oSelf));
    oPipes.clear();
    EXPECT_TRUE(waitUntil([&] { return CRawPipe::connectTo(usPort).registerAs(9, 1) == 0; }));
}

// The service manager hears of the start, of the end, and that the loop is alive.
TEST_F(VekProgramTest, TellsTheServiceManager)
{
    const std::string strPath = m_oInstallation.root() + "/notify";
    const int iSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un oAddress{};
    oAddress.sun_family = AF_UNIX;
    strPath.copy(oAddress.sun_path, sizeof oAddress.sun_path - 1);
    ASSERT_EQ(0, bind(iSocket, reinterpret_cast<sockaddr *>(&oAddress), sizeof oAddress));
    std::string strTold;
    const auto fnTold = [&](const char *pcText)
    {
        return waitUntil(
            [&]
            {
                char acText[256];
                const ssize_t lLength = recv(iSocket, acText, sizeof acText, MSG_DONTWAIT);
                strTold += lLength > 0 ? std::string(acText, static_cast<std::size_t>(lLength)) + "\n" : std::string();
                return strTold.find(pcText) != std::string::npos;
            });
    };
    start({}, {{"NOTIFY_SOCKET", strPath}, {"WATCHDOG_USEC", "20000000"}});
    EXPECT_TRUE(fnTold("READY=1"));
    EXPECT_TRUE(fnTold("WATCHDOG=1"));
    m_poVek->signal(SIGTERM);
    EXPECT_TRUE(fnTold("STOPPING=1"));
    close(iSocket);
}

// A log that nobody reads: the pipe of standard error fills, the routing goes on.
TEST_F(VekProgramTest, RoutesOnWhenNobodyReadsItsLog)
{
    int aiLog[2];
    ASSERT_EQ(0, ::pipe2(aiLog, O_NONBLOCK));
    while (::write(aiLog[1], "fill the pipe to its last byte, so that the next one would wait\n", 64) > 0)
    {
    }
    fcntl(aiLog[1], F_SETFL, 0);
    const unsigned short usPort = freePort();
    const std::string strOut = m_oInstallation.root() + "/out";
    const pid_t iPid = fork();
    if (iPid == 0)
    {
        dup2(aiLog[1], STDERR_FILENO);
        execl(ZOL_VEK, ZOL_VEK, "--listen", ("127.0.0.1:" + std::to_string(usPort)).c_str(), nullptr);
        _exit(127);
    }
    CRawPipe oA;
    ASSERT_TRUE(waitUntil(
        [&]
        {
            try
            {
                oA = CRawPipe::connectTo(usPort);
                return true;
            }
            catch (const std::exception &)
            {
                return false;
            }
        }));
    EXPECT_EQ(0, oA.registerAs(7, 1));
    close(aiLog[0]); // and then its reader goes for good
    EXPECT_EQ(0, CRawPipe::connectTo(usPort).registerAs(8, 1));
    kill(iPid, SIGTERM);
    int iStatus = 0;
    ASSERT_EQ(iPid, waitpid(iPid, &iStatus, 0));
    EXPECT_EQ(0, iStatus);
    close(aiLog[1]);
}

} // namespace
