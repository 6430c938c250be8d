// The exchange as its demo runs it: real processes, a real gateway that is killed on the way.

#include "support/ChildProcess.h"
#include "support/Installation.h"
#include "support/WaitUntil.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

using namespace zoltest;

namespace
{

const std::chrono::seconds LIMIT(180);

class ExchangeDemoTest : public testing::Test
{
protected:
    /// Writes a file of orders into a folder of the test's own.
    std::string fileOf(const std::string &strText) const
    {
        const std::string strFile = m_oInstallation.root() + "/orders.csv";
        std::ofstream(strFile) << strText;
        return strFile;
    }

    /// Processes of this test's demos that run. Their programs lie under a path of the test's own.
    unsigned int running() const
    {
        unsigned int uiCount = 0;
        for (const auto &oEntry : std::filesystem::directory_iterator("/proc"))
        {
            uiCount += readFile(oEntry.path().string() + "/cmdline").rfind(m_strBin, 0) == 0 ? 1 : 0;
        }
        return uiCount;
    }

    void SetUp() override { std::filesystem::create_directory_symlink(ZOL_BIN, m_strBin); }

    CInstallation m_oInstallation;
    const std::string m_strBin = m_oInstallation.root() + "/bin";
    const CChildProcess::Environment m_oEnvironment = {{"ZOL_BIN", m_strBin}};
};

} // namespace

TEST_F(ExchangeDemoTest, EveryViewIsTheBookAlthoughTheGatewayDied)
{
    CChildProcess oDemo({ZOL_DEMO}, m_oEnvironment);
    EXPECT_EQ(0, oDemo.exitCode(LIMIT)) << oDemo.output() << oDemo.errors();
    const std::string strOutput = oDemo.output();
    EXPECT_EQ(3U, countOf(strOutput, "the view is the market's book")) << strOutput;
    EXPECT_EQ(1U, countOf(strOutput, "the gateway was killed")) << strOutput;
    EXPECT_EQ(0U, countOf(strOutput, " 0 repeated")) << "the gateway died too late to be missed: " << strOutput;
    EXPECT_EQ("", oDemo.errors());
}

// Less orders than clients, and none that trades.
TEST_F(ExchangeDemoTest, TakesTheSmallestFile)
{
    CChildProcess oDemo({ZOL_DEMO, "--steady", fileOf("OAK,buy,12,3\n")}, m_oEnvironment);
    EXPECT_EQ(0, oDemo.exitCode(LIMIT)) << oDemo.output() << oDemo.errors();
    EXPECT_NE(std::string::npos, oDemo.output().find("the three views are the market's book, 1 levels"));
}

TEST_F(ExchangeDemoTest, RefusesAFileThatItCannotRead)
{
    const std::string aFiles[] = {"/nonexistent/orders.csv", m_oInstallation.root(), fileOf("OAK,buy,12\n")};
    for (const std::string &strFile : aFiles)
    {
        CChildProcess oDemo({ZOL_DEMO, strFile}, m_oEnvironment);
        EXPECT_EQ(2, oDemo.exitCode(LIMIT)) << strFile;
        EXPECT_EQ("", oDemo.output()) << strFile;
        EXPECT_EQ(1U, countOf(oDemo.errors(), "\n")) << "one clear line: " << oDemo.errors();
    }
}

// At whatever point it is told to end: it ends with its code and takes all processes along.
TEST_F(ExchangeDemoTest, LeavesNothingBehindWhenItIsInterrupted)
{
    for (const char *pcLine : {"trading 100000 orders", "market:  10 %", "the gateway was killed"})
    {
        SCOPED_TRACE(pcLine);
        CChildProcess oDemo({ZOL_DEMO}, m_oEnvironment);
        ASSERT_TRUE(oDemo.waitForOutput(pcLine, LIMIT)) << oDemo.output() << oDemo.errors();
        EXPECT_NE(0U, running());
        oDemo.signal(SIGTERM);
        EXPECT_EQ(1, oDemo.exitCode());
        EXPECT_TRUE(waitUntil([this] { return running() == 0; }));
    }
}
