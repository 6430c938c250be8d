// The demonstration as a user runs it, on inputs that are small or awkward.

#include "support/ChildProcess.h"
#include "support/Installation.h"

#include <fstream>
#include <gtest/gtest.h>
#include <string>

using namespace std::chrono_literals;
using namespace zoltest;

namespace
{

class WordcountTest : public testing::Test
{
protected:
    std::string write(const std::string &strText) const
    {
        const std::string strPath = m_oFolder.root() + "/a file";
        std::ofstream(strPath, std::ios::binary) << strText;
        return strPath;
    }

    static CChildProcess::Environment environment() { return {{"ZOL_BIN", ZOL_BIN}}; }

    CInstallation m_oFolder;
};

} // namespace

TEST_F(WordcountTest, AgreesWithTheSystemsTools)
{
    std::string strLongLine;
    for (int iWord = 0; iWord < 100000; ++iWord)
    {
        strLongLine += "word" + std::string(1, static_cast<char>('a' + iWord % 26)) + ' ';
    }
    std::string strManyLines;
    for (int iLine = 0; iLine < 20000; ++iLine)
    {
        strManyLines += "line " + std::string(static_cast<size_t>(iLine % 7), 'x') + " of many\n";
    }
    const struct
    {
        const char *pcName;
        std::string strText;
        const char *pcTotal;
    } aCases[] = {
        {"nothing", "", "total: 0 lines, 0 words, 0 different"},
        {"no word", "12 34\n\n--\n", "total: 3 lines, 0 words, 0 different"},
        {"no end of the last line", "One two\none TWO two", "total: 2 lines, 5 words, 2 different"},
        {"bytes that are no text", std::string("a\0b\xFF\xFE c\r\nd", 10), "total: 2 lines, 4 words, 4 different"},
        {"many lines", strManyLines, "total: 20000 lines,"},
        {"one line that needs several messages", strLongLine, "total: 1 lines, 100000 words, 26 different"},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        CChildProcess oDemo({ZOL_DEMO, write(oCase.strText)}, environment());
        EXPECT_EQ(0, oDemo.exitCode(60s)) << oDemo.errors();
        EXPECT_EQ(1U, countOf(oDemo.output(), oCase.pcTotal)) << oDemo.output();
        EXPECT_EQ(1U, countOf(oDemo.output(), "every process left with code 0, no line was lost\n"));
        EXPECT_EQ("", oDemo.errors());
    }
}

TEST_F(WordcountTest, SaysWhatItCannotRead)
{
    for (const std::string &strFile : {m_oFolder.root() + "/missing", m_oFolder.root()})
    {
        CChildProcess oDemo({ZOL_DEMO, strFile}, environment());
        EXPECT_EQ(2, oDemo.exitCode());
        EXPECT_EQ("demo: cannot read '" + strFile + "'\n", oDemo.errors());
        EXPECT_EQ("", oDemo.output()) << "nothing was started";
    }
}
