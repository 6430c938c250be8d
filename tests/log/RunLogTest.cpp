#include "ZolRunLog.h"
#include "log/ManualLog.h"

namespace
{

class RunLogTest : public CLogTestBase
{
protected:
    // The log of the process, with its file open.
    void open() { ASSERT_EQ(0, CZolLogTask::instance()->init(1, 0, "p", nullptr)); }

    std::string flushed() const
    {
        CZolLogTask::instance()->writeLog();
        return withoutStamps(text(0));
    }
};

} // namespace

TEST_F(RunLogTest, EachLevelLetsPassWhatIsAtLeastAsGrave)
{
    CZolRunLog::startupLog("no log yet");
    open();
    CZolRunLog::logLevel(CZolRunLog::LEVEL_OFF);
    CZolRunLog::startupLog("lines of the start pass every level");
    std::string strExpected = "lines of the start pass every level\n";
    const char *const aTexts[] = {"", "fatal", "error", "warning", "info", "debug"};
    for (int iLevel = CZolRunLog::LEVEL_OFF; iLevel <= CZolRunLog::LEVEL_DEBUG; ++iLevel)
    {
        CZolRunLog::logLevel(iLevel);
        EXPECT_EQ(iLevel, CZolRunLog::logLevel());
        const CZolDebugInfo oDebug("CScope::call");
        CZolRunLog::debug("debug");
        CZolRunLog::info("info");
        CZolRunLog::warning("warning");
        CZolRunLog::error("error");
        CZolRunLog::fatal("fatal");
        oDebug.debug("debug");
        oDebug.info("info");
        oDebug.warning("warning");
        oDebug.error("error");
        oDebug.fatal("fatal");
        for (const char *const pcScope : {"", "CScope::call "})
        {
            for (int iLine = iLevel; iLine > 0; --iLine)
            {
                strExpected += pcScope + std::string(aTexts[iLine]) + "\n";
            }
        }
    }
    EXPECT_EQ(strExpected, flushed());
}

TEST_F(RunLogTest, BadLevelChangesNothing)
{
    open();
    EXPECT_EQ(CZolRunLog::LEVEL_INFO, CZolRunLog::logLevel()) << "what a process starts with";
    CZolRunLog::logLevel(6); // not visible below the level of debug
    EXPECT_EQ(4, CZolRunLog::logLevel());
    CZolRunLog::logLevel(5);
    CZolRunLog::logLevel(6);
    CZolRunLog::logLevel(-1);
    EXPECT_EQ(5, CZolRunLog::logLevel());
    EXPECT_EQ("CZolRunLog::logLevel get a bad log level: 6\nCZolRunLog::logLevel get a bad log level: -1\n", flushed());
}

TEST_F(RunLogTest, NothingForNulls)
{
    open();
    const CZolDebugInfo oNameless(nullptr);
    oNameless.fatal("text");
    const CZolDebugInfo oDebug("CScope::call");
    oDebug.fatal(nullptr);
    CZolRunLog::fatal(nullptr);
    CZolRunLog::startupLog(nullptr);
    oDebug.fatal("");
    EXPECT_EQ("CScope::call \n", flushed());
}

// Callers skip the formatting of a line that would be dropped.
TEST_F(RunLogTest, IsReady)
{
    CZolRunLog::info("no log yet");
    EXPECT_FALSE(CZolRunLog::isReady());
    CZolLogTask::instance();
    EXPECT_TRUE(CZolRunLog::isReady());
    CZolRunLog::logLevel(CZolRunLog::LEVEL_OFF);
    EXPECT_FALSE(CZolRunLog::isReady());
    CZolRunLog::logLevel(CZolRunLog::LEVEL_FATAL);
    EXPECT_TRUE(CZolRunLog::isReady());

    CZolRunLog::fatal(std::string(65536 - 25 - 26, 'x').c_str()); // one more line of one character fits
    EXPECT_TRUE(CZolRunLog::isReady());
    CZolRunLog::fatal("yy");
    EXPECT_FALSE(CZolRunLog::isReady()) << "lines are being lost";
    open();
    CZolLogTask::instance()->writeLog();
    EXPECT_TRUE(CZolRunLog::isReady());
}
