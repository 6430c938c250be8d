#include "config/ZolCounters.h"
#include "log/ManualLog.h"
#include "support/WaitUntil.h"

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <fnmatch.h>
#include <thread>
#include <vector>

namespace
{

using LogTaskTest = CLogTestBase;

const size_t BUFFER = 65536;
const size_t OVERHEAD = 25; // of a line besides its text

bool isStamp(const std::string &strText)
{
    const char *const pcPattern =
        "[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9].[0-9][0-9][0-9]";
    return fnmatch(pcPattern, strText.c_str(), 0) == 0;
}

// Checks a report of lost lines: its own stamp and the end of the period are the same instant.
void expectReport(const std::string &strLine)
{
    const std::string strReport =
        " CZolLogTask::writeLog Run logs have been discarded because of buffer overflow, which "
        "time ranged from ";
    ASSERT_EQ(23 + strReport.size() + 23 + 4 + 23, strLine.size()) << strLine;
    const std::string strNow = strLine.substr(0, 23);
    const std::string strFrom = strLine.substr(23 + strReport.size(), 23);
    EXPECT_TRUE(isStamp(strNow) && isStamp(strFrom)) << strLine;
    EXPECT_EQ(strNow + strReport + strFrom + " to " + strNow, strLine);
    EXPECT_LE(strFrom, strNow);
    EXPECT_NE("2007-12-29 14:42:50.000", strFrom);
}

std::string lastLine(const std::string &strText)
{
    const size_t uiBegin = strText.rfind('\n', strText.size() - 2);
    return strText.substr(uiBegin + 1, strText.size() - uiBegin - 2);
}

} // namespace

TEST_F(LogTaskTest, LineIsStampBlankTextLineFeed)
{
    CZolLogTask &oLog = start();
    oLog.output("");
    oLog.output("two\nlines");
    oLog.output(nullptr);
    EXPECT_EQ("", text(0)) << "a line was written ahead of the flush";
    oLog.writeLog();
    const std::string strText = text(0);
    ASSERT_EQ(OVERHEAD * 2 + 9, strText.size());
    EXPECT_TRUE(isStamp(strText.substr(0, 23))) << strText;
    EXPECT_EQ(" \n", strText.substr(23, 2));
    EXPECT_EQ(" two\nlines\n", strText.substr(OVERHEAD + 23));
}

// From the first line that does not fit, all are lost, also those that would: the report tells one period.
TEST_F(LogTaskTest, OverflowDropsUntilTheNextFlushWhichReportsIt)
{
    CZolLogTask &oLog = start();
    const std::string strFirst(BUFFER - 2 * OVERHEAD - 1, 'a');
    oLog.output(strFirst.c_str());
    oLog.output("bb"); // one byte too many
    oLog.output("c");
    oLog.startupLog("start"); // goes its own way
    EXPECT_EQ(2u, zolCounters().m_ulLogLines);
    oLog.writeLog();
    const std::string strText = text(0);
    EXPECT_EQ(" start\n", strText.substr(23, 7));
    EXPECT_EQ(strFirst, strText.substr(30 + 24, strFirst.size()));
    expectReport(lastLine(strText));
    EXPECT_EQ(3, std::count(strText.begin(), strText.end(), '\n'));

    oLog.output(std::string(BUFFER - 2 * OVERHEAD - 1, 'd').c_str());
    oLog.output("e"); // to the last byte
    oLog.writeLog();
    EXPECT_EQ(strText.size() + BUFFER, text(0).size());
}

// A line that can never fit is lost while nothing waits to be written; the loss is reported all the same.
TEST_F(LogTaskTest, LineLargerThanTheBufferIsReported)
{
    CZolLogTask &oLog = start();
    oLog.output(std::string(BUFFER - OVERHEAD + 1, 'x').c_str());
    oLog.output("lost as well");
    oLog.writeLog();
    expectReport(lastLine("\n" + text(0)));
    oLog.output("again");
    oLog.writeLog();
    EXPECT_NE(std::string::npos, text(0).find(" again\n"));
}

TEST_F(LogTaskTest, StartupLinesStandAheadOfBufferedOnes)
{
    CManualLog oEarly;
    oEarly.startupLog("nothing is open yet");
    oEarly.output("kept until the start");
    ASSERT_EQ(0, oEarly.init(1, 0, "p", nullptr));
    oEarly.startupLog(nullptr);
    oEarly.startupLog("first");
    EXPECT_EQ("first\n", withoutStamps(text(0))) << "a line of the start is written at once";
    oEarly.writeLog();
    EXPECT_EQ("first\nkept until the start\n", withoutStamps(text(0)));
}

// A process whose start fails behind the log may try again: the log goes on where it was.
TEST_F(LogTaskTest, SecondStartKeepsLogging)
{
    auto *const poLog = CZolLogTask::instance();
    ASSERT_EQ(0, poLog->init(1, 0, "p", nullptr));
    poLog->startupLog("first");
    ASSERT_EQ(0, poLog->init(1, 0, "p", nullptr));
    poLog->startupLog("second");
    poLog->output("third");
    poLog->writeLog();
    EXPECT_EQ("first\nsecond\nthird\n", withoutStamps(text(0)));
}

// A child process must not keep the files of its parent open.
TEST_F(LogTaskTest, FileIsClosedOnExec)
{
    start();
    unsigned int uiFound = 0;
    for (int iFile = 3; iFile < 64; ++iFile)
    {
        std::error_code oError;
        const auto oPath = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(iFile), oError);
        if (!oError && oPath.filename() == "p_0.log")
        {
            ++uiFound;
            EXPECT_TRUE(fcntl(iFile, F_GETFD) & FD_CLOEXEC);
        }
    }
    EXPECT_EQ(1u, uiFound);
}

// Lines of many threads: each is whole, those of one thread keep their order, the stamps never go back, and what is
// not in the files was counted as lost.
TEST_F(LogTaskTest, LinesOfManyThreads)
{
    const int THREADS = 4;
    const int LINES = 5000; // of each thread
    zol::saveResWithKey("MaxLogSize", "10485760");
    CZolLogTask &oLog = start();
    std::atomic<bool> bStop{false};
    std::thread oFlusher(
        [&]
        {
            while (!bStop)
            {
                oLog.writeLog();
            }
        });
    std::vector<std::thread> oWriters;
    for (int iThread = 0; iThread < THREADS; ++iThread)
    {
        oWriters.emplace_back(
            [&, iThread]
            {
                for (int iLine = 0; iLine < LINES; ++iLine)
                {
                    oLog.output((std::to_string(iThread) + " " + std::to_string(iLine) + " end").c_str());
                }
            });
    }
    for (std::thread &oThread : oWriters)
    {
        oThread.join();
    }
    bStop = true;
    oFlusher.join();
    oLog.writeLog();

    std::istringstream oText(text(0));
    std::string strLastStamp;
    int aLast[THREADS] = {-1, -1, -1, -1};
    std::uint64_t ulFound = 0;
    for (std::string strLine; std::getline(oText, strLine);)
    {
        const std::string strStamp = strLine.substr(0, 23);
        ASSERT_LE(strLastStamp, strStamp);
        strLastStamp = strStamp;
        int iThread = 0;
        int iLine = 0;
        char acEnd[8] = "";
        if (sscanf(strLine.c_str() + 24, "%d %d %7s", &iThread, &iLine, acEnd) != 3)
        {
            expectReport(strLine);
            continue;
        }
        ASSERT_STREQ("end", acEnd);
        ASSERT_LT(aLast[iThread], iLine);
        aLast[iThread] = iLine;
        ++ulFound;
    }
    EXPECT_EQ(std::uint64_t{THREADS} * LINES, ulFound + zolCounters().m_ulLogLines);
    EXPECT_GT(ulFound, 0u);
}
