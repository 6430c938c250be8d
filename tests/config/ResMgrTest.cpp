#include "ZolApi.h"
#include "support/Installation.h"

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace
{

using Resources = std::map<std::string, std::string>;

class ResMgrTest : public testing::Test
{
protected:
    ResMgrTest() { zol::initResMgr(); }

    // What a file with this text gives.
    const Resources &load(const std::string &strText)
    {
        const std::string strFile = m_oInstallation.root() + "/file.cfg";
        std::ofstream(strFile, std::ios::binary) << strText;
        EXPECT_TRUE(zol::addResFile(strFile));
        return zol::getResMgr();
    }

    zoltest::CInstallation m_oInstallation;
};

} // namespace

TEST_F(ResMgrTest, Format)
{
    const std::string strLong(600, 'v');
    const struct
    {
        const char *pcName;
        std::string strText;
        Resources oExpected;
    } aCases[] = {
        {"empty file", "", {}},
        {"plain", "a=1\nb=2\n", {{"a", "1"}, {"b", "2"}}},
        {"last line without a line end", "a=1\nb=2", {{"a", "1"}, {"b", "2"}}},
        {"blanks and tabs around all", " \t a\t = \t1 \t\n", {{"a", "1"}}},
        {"inner blanks stay", "my key=some  value\n", {{"my key", "some  value"}}},
        {"comment", "#a=1\n \t#b=2\nc=3#no comment\n", {{"c", "3#no comment"}}},
        {"further equal signs belong to the value", "a=b=c==\n", {{"a", "b=c=="}}},
        {"no equal sign", "just words\n\n \t \na=1\n", {{"a", "1"}}},
        {"no key", "=1\n  = 2\n", {}},
        {"empty value", "a=\nb= \t\n", {{"a", ""}, {"b", ""}}},
        {"sections and quotes are nothing special", "[head]\n[x=1]\na=\"1\"\n", {{"[x", "1]"}, {"a", "\"1\""}}},
        {"the first value wins", "a=1\na=2\n", {{"a", "1"}}},
        {"keys differ by case", "Key=1\nkey=2\n", {{"Key", "1"}, {"key", "2"}}},
        {"up to a NUL byte", std::string("a=1\0b=2\nc=3\n", 12), {{"a", "1"}, {"c", "3"}}},
        {"a carriage return is no blank", "a=1\r\n", {{"a", "1\r"}}},
        {"511 characters fit", "a=" + strLong.substr(0, 509) + "\nb=2\n", {{"a", strLong.substr(0, 509)}, {"b", "2"}}},
        {"511 characters at the end of the file", "a=" + strLong.substr(0, 509), {{"a", strLong.substr(0, 509)}}},
        {"of 512 the first 511",
         "a=" + strLong.substr(0, 510) + "\nb=2\n",
         {{"a", strLong.substr(0, 509)}, {"b", "2"}}},
        {"the rest of a long line is no line",
         "a=" + strLong + "\nz=1\n" + strLong + "b=2\nc=3\n",
         {{"a", strLong.substr(0, 509)}, {"z", "1"}, {"c", "3"}}},
        {"a long line at the end of the file", "a=" + strLong, {{"a", strLong.substr(0, 509)}}},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        zol::initResMgr();
        EXPECT_EQ(oCase.oExpected, load(oCase.strText));
    }
}

TEST_F(ResMgrTest, FirstValueStaysOverFilesAndASaveReplacesIt)
{
    load("a=1\n");
    const std::string *const pstrValue = zol::getResByKey("a");
    load("a=2\nb=3\n");
    EXPECT_EQ("1", *pstrValue);
    EXPECT_EQ("3", zol::getResByKey("b", "other"));
    EXPECT_EQ("other", zol::getResByKey("B", "other"));
    zol::saveResWithKey("empty", "");
    EXPECT_EQ("", zol::getResByKey("empty", "other"));
    zol::saveResWithKey("a", "4");
    zol::saveResWithKey("new", "5");
    EXPECT_EQ("4", *pstrValue) << "the pointer refers to the value inside the table";
    EXPECT_EQ("5", zol::getResByKey("new", ""));
    zol::initResMgr();
    EXPECT_EQ(nullptr, zol::getResByKey("a"));
}

TEST_F(ResMgrTest, Numbers)
{
    const struct
    {
        const char *pcText;
        int iResult, iPlain, iClamped; // clamped to [100, 2000]
    } aCases[] = {
        {"0", 0, 0, 100},
        {"99", 0, 99, 100},
        {"100", 0, 100, 100},
        {"00101", 0, 101, 101},
        {"2000", 0, 2000, 2000},
        {"2001", 0, 2001, 2000},
        {"2147483647", 0, INT_MAX, 2000},
        {"2147483648", 0, INT_MAX, 2000},
        {"99999999999999999999999999", 0, INT_MAX, 2000},
        {"-1", -1, 7, 7},
        {"+1", -1, 7, 7},
        {"1 000", -1, 7, 7},
        {"0x10", -1, 7, 7},
        {"100k", -1, 7, 7},
        {"", -1, 7, 7},
        {"\xB2", -1, 7, 7},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcText);
        zol::saveResWithKey("n", oCase.pcText);
        int iValue = 7;
        EXPECT_EQ(oCase.iResult, zol::getResByKey("n", iValue));
        EXPECT_EQ(oCase.iPlain, iValue);
        iValue = 7;
        EXPECT_EQ(oCase.iResult, zol::getResByKey("n", iValue, 2000, 100));
        EXPECT_EQ(oCase.iClamped, iValue);
    }
    int iValue = 7;
    EXPECT_EQ(-1, zol::getResByKey("absent", iValue, 2000, 100));
    EXPECT_EQ(7, iValue);
}

TEST_F(ResMgrTest, InitReadsTheFileOfTheInstallation)
{
    m_oInstallation.writeConfig("VEKPort = 7100\n");
    setenv("ZOLROOT", ("  " + m_oInstallation.root() + "\t").c_str(), 1);
    EXPECT_EQ(0, zol::init());
    m_oInstallation.writeConfig("VEKPort = 1\nmore = 2\n");
    EXPECT_EQ(0, zol::init());
    EXPECT_EQ((Resources{{"VEKPort", "7100"}, {"more", "2"}}), zol::getResMgr());
}

// The line on standard error says which file was looked for, and so where the root was sought.
TEST_F(ResMgrTest, WithoutAFileInitSaysWhichOneIsMissing)
{
    const struct
    {
        const char *pcRoot; // null: not set
        std::string strFolder;
    } aCases[] = {{"/nowhere", "/nowhere"},
                  {" \t", ""}, // set to blanks: the root of the system
                  {nullptr, fs::read_symlink("/proc/self/exe").parent_path().string() + "/.."}};
    for (const auto &oCase : aCases)
    {
        const std::string strFile = oCase.strFolder + "/conf/zol.cfg";
        SCOPED_TRACE(strFile);
        oCase.pcRoot != nullptr ? setenv("ZOLROOT", oCase.pcRoot, 1) : unsetenv("ZOLROOT");
        const bool bFound = fs::exists(strFile); // a tree that was built as a whole has one above the executable
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_EQ(bFound ? 0 : -1, zol::init());
        const std::string strOut = testing::internal::GetCapturedStdout();
        const std::string strErr = testing::internal::GetCapturedStderr();
        EXPECT_EQ(bFound ? "" : "Fail to open resource file: " + strFile + "\n", strOut);
        EXPECT_EQ(bFound ? "" : "zol::init failed to add " + strFile + " as a resource file.\n", strErr);
    }
    EXPECT_FALSE(zol::addResFile(m_oInstallation.root())) << "a folder is no file";
}
