#include "gateway/config/ZolVekMemoryLimit.h"
#include "gateway/config/ZolVekSettings.h"
#include "gateway/route/ZolVekPolicy.h"
#include "support/Installation.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

namespace
{

TEST(SettingsTest, ReadsTheFormatOfConfigurationFiles)
{
    CZolVekSettingsReader oReader;
    oReader.addText("vek.cfg", "# comment = 1\n\n  Listen =  127.0.0.1:7200\t\nLogLevel=2\nLogLevel=5\n=x\nno entry\n"
                               "LogPath = /a = b # c\nAllowFrom.9 = 10.1.0.0/16, 127.0.0.1\nPort.7=70\nPort.7.3 = 73\n"
                               "SlowConsumer = drop\nPipeQueueBytes = 65536");
    ASSERT_TRUE(oReader.check()) << oReader.faults()[0];
    const SZolVekSettings &oSettings = oReader.settings();
    EXPECT_EQ(7200u, oSettings.m_uiListenPort);
    EXPECT_EQ(2u, oSettings.m_uiLogLevel) << "the first of two wins";
    EXPECT_EQ("/a = b # c", oSettings.m_strLogPath);
    EXPECT_EQ(VEK_SLOW_DROP, oSettings.m_eSlowConsumer);
    EXPECT_EQ(65536u, oSettings.m_ulPipeQueueBytes);
    EXPECT_EQ(70, oSettings.m_oPortsById.at(7));
    EXPECT_EQ(73, oSettings.m_oPorts.at(zolVekKey(7, 3)));
    EXPECT_NE(std::string::npos, oReader.effective().find("LogLevel = 2    (0 to 5; vek.cfg:4)"));
    EXPECT_NE(std::string::npos, oReader.effective().find("GraceSeconds = 0    (seconds; default)"));
}

// Every key wrong in every way: refused, and the line says where and which. The last one wants AllowFrom.
TEST(SettingsTest, NamesEachBadLine)
{
    const std::pair<const char *, const char *> aoBad[] = {
        {"Listen", "127.0.0.1|127.0.0.1:65536|nowhere:1|1.2.3:4|127.0.0.1:-1|0.0.0.0:7100"},
        {"Http", "|localhost:80|127.0.0.1:65536|127.0.0.1|:80|127.0.0.1:|80x|1.2.3:80"},
        {"LogLevel", "6|-1||0x1"},
        {"MaxLogNumber", "11"},
        {"MaxLogSize", "1023|10485761"},
        {"MaxConnections", "0|1000001"},
        {"MaxUnregistered", "0|100001"},
        {"MaxFrameBytes", "8191|1073741825|99999999999999999999999"},
        {"RegisterSeconds", "0|3601"},
        {"PipeQueueBytes", "65535|64k|1099511627777"},
        {"TotalQueueBytes", "1048575|17592186044417"},
        {"SlowConsumer", "Block|"},
        {"StuckSeconds", "0|86401"},
        {"HelloSeconds", "0|86401|1.5"},
        {"SilenceSeconds", "0|86401"},
        {"ProbeSeconds", "0|61"},
        {"HandleRestSeconds", "86401|1 2"},
        {"GraceSeconds", "3601"},
        {"DrainSeconds", "3601|ten"},
        {"MaxPipesPerAddress", "-1|1000001"},
        {"AllowFrom", "|1.2.3.4/33|1.2.3.4,|1.2.3.4,,1.2.3.5"},
        {"AllowFrom.0", "1.2.3.4"},
        {"AllowFrom.65535", "1.1.1.1"},
        {"AllowFrom.x", "1.2.3.4"},
        {"DebugFrom", "|0|7,|65535|everybody"},
        {"CheckSource", "on"},
        {"MaxRatePerPipe", "10|10, |1, 2, 3|1000000000001, 0"},
        {"Port.7", "0|65536"},
        {"Port.", "7"},
        {"Port.7.x", "7"},
        {"Port.7.65536", "7"},
        {"Unknown", "1"},
        {"listen", "127.0.0.1:1"},
    };
    for (const auto &[pcKey, pcValues] : aoBad)
    {
        std::string strRest = std::string(pcValues) + "|";
        for (std::size_t ulBar = 0; (ulBar = strRest.find('|')) != std::string::npos; strRest.erase(0, ulBar + 1))
        {
            const std::string strLine = std::string(pcKey) + " = " + strRest.substr(0, ulBar);
            SCOPED_TRACE(strLine);
            CZolVekSettingsReader oReader;
            oReader.addText("vek.cfg", "# first\n" + strLine + "\n");
            EXPECT_FALSE(oReader.check());
            ASSERT_EQ(1u, oReader.faults().size());
            EXPECT_EQ(0u, oReader.faults()[0].find("vek.cfg:2: " + std::string(pcKey) + ": ")) << oReader.faults()[0];
        }
    }
}

TEST(SettingsTest, RefusesALineThatWouldBeCut)
{
    const std::string strFits = "Port.1 =" + std::string(511 - 10, ' ') + "70";
    const std::string strNul = "AllowFrom = 10.0.0.0/2" + std::string(1, '\0') + "4";
    CZolVekSettingsReader oReader;
    oReader.addText("a", "#" + std::string(600, '=') + "\n" + strFits);
    EXPECT_TRUE(oReader.check());
    oReader.addText("vek.cfg", "\nAllowFrom = " + std::string(500, ' ') + "10.0.0.0/24\n" + strNul + "\n");
    EXPECT_FALSE(oReader.check());
    const std::vector<std::string> oWanted = {"vek.cfg:2: a line longer than 511 characters",
                                              "vek.cfg:3: a line with a zero byte in it"};
    EXPECT_EQ(oWanted, oReader.faults());
}

TEST(PolicyTest, HoldsAnIdAgainstItsOwnListOrTheCommonOne)
{
    CZolVekSettingsReader oReader;
    oReader.addText("a", "Listen = 0.0.0.0:1\nAllowFrom = 10.0.0.0/8, 127.0.0.1\nAllowFrom.9 = 192.168.1.7");
    ASSERT_TRUE(oReader.check());
    const CZolVekPolicy oPolicy(oReader.settings());
    EXPECT_TRUE(oPolicy.mayRegister(7, 0x0A010203));
    EXPECT_TRUE(oPolicy.mayRegister(7, 0x7F000001));
    EXPECT_FALSE(oPolicy.mayRegister(7, 0x7F000002));
    EXPECT_FALSE(oPolicy.mayRegister(7, 0x0B000000));
    EXPECT_TRUE(oPolicy.mayRegister(9, 0xC0A80107));
    EXPECT_FALSE(oPolicy.mayRegister(9, 0x0A010203)) << "the list of an id replaces the common one";
    EXPECT_FALSE(oPolicy.mayRegister(0, 0x7F000001));
    EXPECT_FALSE(oPolicy.mayRegister(65535, 0x7F000001));
}

// doc/gateway.md has a row for every key, with its option, unit, and whether it reloads.
TEST(SettingsTest, DocumentsEveryKey)
{
    const std::string strText = zoltest::readFile(ZOL_GATEWAY_DOC);
    const SZolVekSettings oDefaults;
    for (const SZolVekKeyInfo &oKey : zolVekKeys())
    {
        const std::string strKey = oKey.m_pcKey;
        const std::string strDefault = oKey.m_fnPrint(oDefaults);
        const std::string strShown = strKey == "TotalQueueBytes" ? "1 GiB, or half of the memory"
                                     : strDefault.empty()        ? "none"
                                                                 : strDefault;
        const std::string strRow = "| `" + strKey + "` | `" + oKey.m_pcOption + "` | " + strShown + " | " +
                                   oKey.m_pcUnit + " | " + (oKey.m_bReloads ? "yes" : "no") + " | ";
        EXPECT_NE(std::string::npos, strText.find(strRow)) << strRow;
    }
}

// The queues of all pipes have half of what a container leaves, not of what the machine has.
TEST(MemoryLimitTest, LooksAtControlGroups)
{
    namespace fs = std::filesystem;
    char acRoot[] = "/tmp/zol_groups_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(acRoot));
    const fs::path oRoot = acRoot;
    const auto write = [&](const fs::path &oPath, const std::string &strText)
    {
        fs::create_directories(oPath.parent_path());
        std::ofstream(oPath) << strText;
    };
    write(oRoot / "memory.max", "max\n");
    write(oRoot / "outer/memory.max", "50000000\n");
    write(oRoot / "outer/inner/memory.max", "60000000\n");
    write(oRoot / "memory/memory.limit_in_bytes", "40000000\n");
    const std::uint64_t ulMachine = zolVekMemoryLimit("/nowhere", oRoot);
    const std::pair<const char *, std::uint64_t> aoRows[] = {{"", ulMachine},
                                                             {"damaged\n0:\n", ulMachine},
                                                             {"0::/\n", ulMachine},
                                                             {"0::/outer/inner\n", 50000000},
                                                             {"3:cpu:/outer\n2:pids,memory:/not/mounted\n", 40000000}};
    for (const auto &oRow : aoRows)
    {
        write(oRoot / "groups", oRow.first);
        EXPECT_EQ(oRow.second, zolVekMemoryLimit(oRoot / "groups", oRoot)) << oRow.first;
    }
    fs::remove_all(oRoot);
}

} // namespace
