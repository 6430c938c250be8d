#include "log/ManualLog.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace
{

class LogFilesTest : public CLogTestBase
{
protected:
    // Writes one line that, with its stamp, has so many bytes.
    static void writeBytes(CZolLogTask &oLog, size_t uiBytes, char cFill = 'x')
    {
        oLog.output(std::string(uiBytes - 25, cFill).c_str());
        oLog.writeLog();
    }

    void put(const std::string &strName, const std::string &strText) const
    {
        std::ofstream(m_oInstallation.logFolder() + "/" + strName) << strText;
    }

    unsigned int fileCount() const
    {
        const auto oFolder = fs::directory_iterator(m_oInstallation.logFolder());
        return static_cast<unsigned int>(std::distance(begin(oFolder), end(oFolder)));
    }
};

} // namespace

// A file is closed by the flush that brings it to the limit, and the next number begins from empty.
TEST_F(LogFilesTest, RingTurns)
{
    zol::saveResWithKey("MaxLogSize", "1024");
    zol::saveResWithKey("MaxLogNumber", "3");
    CZolLogTask &oLog = start();
    writeBytes(oLog, 1023, 'a');
    EXPECT_FALSE(fs::exists(path(1)));
    writeBytes(oLog, 26, 'b'); // passes the limit
    ASSERT_TRUE(fs::exists(path(1)));
    EXPECT_EQ(0u, fs::file_size(path(1)));
    EXPECT_EQ(1049u, fs::file_size(path(0)));

    writeBytes(oLog, 1024, 'c'); // exactly the limit
    ASSERT_TRUE(fs::exists(path(2)));
    oLog.startupLog(std::string(1000, 'd').c_str()); // this way as well
    EXPECT_EQ(0u, fs::file_size(path(0))) << "the ring begins anew with an empty file";
    writeBytes(oLog, 30, 'e');
    EXPECT_EQ("eeeee\n", withoutStamps(text(0)));
    EXPECT_EQ(std::string(1000, 'd') + "\n", withoutStamps(text(2)));
    EXPECT_EQ(3u, fileCount());

    CManualLog oNameless;
    ASSERT_EQ(0, oNameless.init(12, 3, nullptr, nullptr));
    EXPECT_TRUE(fs::exists(m_oInstallation.logFolder() + "/zol_12_3_0.log"));
}

TEST_F(LogFilesTest, SettingsOfTheRing)
{
    const struct
    {
        const char *pcNumber, *pcSize; // null: not set
        unsigned int uiFiles;
        size_t uiLimit;
    } aCases[] = {{"1", "1024", 1, 1024},         {"25", "1", 10, 1024},           {"3", "2000", 3, 2000},
                  {"abc", "1024", 10, 1024},      {"-3", "100", 10, 1024},         {"10", "abc", 10, 10485760},
                  {"2", "99999999", 2, 10485760}, {nullptr, nullptr, 10, 10485760}};
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(std::string(oCase.pcNumber ? oCase.pcNumber : "none") + " files of " +
                     (oCase.pcSize ? oCase.pcSize : "none"));
        startAnew();
        if (oCase.pcNumber != nullptr)
        {
            zol::saveResWithKey("MaxLogNumber", oCase.pcNumber);
            zol::saveResWithKey("MaxLogSize", oCase.pcSize);
        }
        CZolLogTask &oLog = start();
        const std::string strLine(60000, 'x');
        const unsigned int uiSteps = oCase.uiLimit > 100000 ? 2 : 12; // 12 is more than any ring has
        for (unsigned int uiFile = 0; uiFile < uiSteps; ++uiFile)
        {
            size_t uiLeft = oCase.uiLimit - 1; // one byte below the limit does not step
            for (; uiLeft > 60100; uiLeft -= 60025)
            {
                oLog.startupLog(strLine.c_str());
            }
            oLog.startupLog(std::string(uiLeft - 25, 'x').c_str());
            EXPECT_LE(fileCount(), uiFile + 1);
            oLog.startupLog("");
        }
        EXPECT_EQ(std::min(oCase.uiFiles, uiSteps + 1), fileCount());
    }
}

// After a restart the log goes on in the file whose first line is the latest, whatever its number and its age on disk.
TEST_F(LogFilesTest, RestartContinuesTheNewestFile)
{
    zol::saveResWithKey("MaxLogSize", "1024");
    for (int iSeq = 0; iSeq < 10; ++iSeq)
    {
        const int iDay = iSeq <= 4 ? 20 + iSeq : iSeq; // file 4 is the newest, 5 the oldest
        put("p_" + std::to_string(iSeq) + ".log",
            "2026-11-" + std::string(iDay < 10 ? "0" : "") + std::to_string(iDay) + " 10:00:00.000 old\n");
    }
    CZolLogTask &oLog = start();
    oLog.output("new");
    oLog.writeLog();
    EXPECT_EQ("old\nnew\n", withoutStamps(text(4)));
    EXPECT_EQ("old\n", withoutStamps(text(5)));

    writeBytes(oLog, 1024 - 28 - 28 - 1, 'y'); // what the file held before counts
    EXPECT_EQ("old\n", withoutStamps(text(5)));
    oLog.output("");
    oLog.writeLog();
    EXPECT_EQ("", text(5)) << "file 5 comes behind file 4";
    EXPECT_EQ("old\n", withoutStamps(text(6)));
}

TEST_F(LogFilesTest, FilesThatARestartDoesNotContinue)
{
    const std::string strLate = "2999-01-01 00:00:00.000 late\n";
    const struct
    {
        const char *pcReason, *pcName;
        std::string strText;
    } aCases[] = {
        {"beyond the ring", "p_7.log", strLate},
        {"two digits", "p_10.log", strLate},
        {"no digit", "p_x.log", strLate},
        {"another prefix", "q_0.log", strLate},
        {"longer prefix", "pp_1.log", strLate},
        {"prefix inside", "a_p_1.log", strLate},
        {"another ending", "p_1.txt", strLate},
        {"something behind", "p_1.log~", strLate},
        {"no number", "p_.log", strLate},
        {"empty", "p_3.log", ""},
        {"a first line of nothing", "p_2.log", "\n2999\n"},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcReason);
        startAnew();
        zol::saveResWithKey("MaxLogNumber", "5");
        put(oCase.pcName, oCase.strText);
        put("p_0.log", "");
        CZolLogTask &oLog = start();
        oLog.output("new");
        oLog.writeLog();
        EXPECT_EQ("new\n", withoutStamps(text(0)));
        EXPECT_EQ(oCase.strText, zoltest::readFile(m_oInstallation.logFolder() + "/" + oCase.pcName));
    }
}

TEST_F(LogFilesTest, FolderOfTheLogs)
{
    const std::string strRoot = m_oInstallation.root();
    const struct
    {
        const char *pcPath, *pcSetting; // null: absent
        std::string strResult;
    } aCases[] = {
        {"/a/b", "/other", "/a/b/"}, {"/a/b/", nullptr, "/a/b/"}, {"c:\\log\\", nullptr, "c:\\log\\"},
        {nullptr, "/set", "/set/"},  {nullptr, "rel/", "rel/"},   {nullptr, nullptr, strRoot + "/conf/log/"},
        {"", "/other", "/"},         {nullptr, "", "/"},
    };
    CManualLog oLog;
    for (const auto &oCase : aCases)
    {
        zol::initResMgr();
        if (oCase.pcSetting != nullptr)
        {
            zol::saveResWithKey("LogPath", oCase.pcSetting);
        }
        std::string strResult = "before";
        EXPECT_EQ(0, oLog.getLogPath(oCase.pcPath, strResult));
        EXPECT_EQ(oCase.strResult, strResult);
    }
    zol::initResMgr();
    unsetenv("ZOLROOT");
    std::string strResult;
    EXPECT_EQ(0, oLog.getLogPath(nullptr, strResult));
    EXPECT_EQ(fs::read_symlink("/proc/self/exe").parent_path().string() + "/../conf/log/", strResult);
}

TEST_F(LogFilesTest, WithoutAFolderOrFilesTheLogIsOff)
{
    const std::string strFolder = m_oInstallation.root() + "/nowhere";
    const struct
    {
        const char *pcNumber, *pcFolder;
        std::string strLines;
    } aCases[] = {
        {"10", strFolder.c_str(),
         "Fail to open log file: " + strFolder + "//p_0.log\nCZolLogTask::init failed to initialize the log files.\n"},
        {"0", nullptr, "CZolLogTask::init Logging disabled.\n"},
    };
    for (const auto &oCase : aCases)
    {
        zol::saveResWithKey("MaxLogNumber", oCase.pcNumber);
        CManualLog oLog;
        testing::internal::CaptureStdout();
        EXPECT_EQ(0, oLog.init(1, 0, "p", oCase.pcFolder));
        EXPECT_EQ(oCase.strLines, testing::internal::GetCapturedStdout());
        oLog.output("lost");
        oLog.startupLog("lost");
        oLog.writeLog();
        EXPECT_FALSE(fs::exists(strFolder));
        EXPECT_EQ(0u, fileCount());
    }
}

// The ring stands still when the next file cannot be opened; the callers notice nothing.
TEST_F(LogFilesTest, NextFileThatCannotBeOpened)
{
    zol::saveResWithKey("MaxLogSize", "1024");
    fs::create_directory(path(1));
    CZolLogTask &oLog = start();
    writeBytes(oLog, 1024, 'a');
    for (int iLine = 0; iLine < 200; ++iLine)
    {
        writeBytes(oLog, 1024, 'b'); // fills the buffer, which nothing empties
    }
    oLog.startupLog("lost");
    EXPECT_EQ(1024u, fs::file_size(path(0)));
    EXPECT_TRUE(fs::is_directory(path(1)));
    EXPECT_FALSE(fs::exists(path(2)));
}

// What a full disk takes is lost, and the ring goes on to the next file as if it had been written.
TEST_F(LogFilesTest, FullDiskLosesLinesAndNothingElse)
{
    zol::saveResWithKey("MaxLogSize", "1024");
    fs::create_symlink("/dev/full", path(0));
    CZolLogTask &oLog = start();
    writeBytes(oLog, 1000, 'a');
    oLog.startupLog("lost");
    ASSERT_TRUE(fs::exists(path(1)));
    writeBytes(oLog, 30, 'b');
    EXPECT_EQ("bbbbb\n", withoutStamps(text(1)));
}
