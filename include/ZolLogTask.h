#ifndef ZOL_LOG_TASK_H
#define ZOL_LOG_TASK_H

#include "ZolExport.h"
#include "ZolLock.h"

#include <ace/Manual_Event.h>
#include <ace/Mutex.h>
#include <ace/Task.h>
#include <atomic>
#include <cstdio>
#include <string>

/// Writer of the run log. Callers leave finished lines in a buffer of 64 KiB; a thread of its own writes the buffer to
/// the current file every 2 seconds. The files are a ring, prefix_0.log to at most prefix_9.log: one that has reached
/// the size limit is closed and the next number begun from empty.
///
/// A line is the local time (23 characters), a blank, the text, a line feed. A burst that outruns the buffer loses its
/// lines, and the next flush says in the file which period was lost. Applications write through CZolRunLog and
/// CZolDebugInfo.
///
/// Threads:   output() and startupLog() from any thread; writeLog() from the log thread, and from a program that wants
///            its last lines on disk before it ends.
/// Errors:    the log's own failures go to the standard streams; no caller fails because of the log.
class ZOL_EXPORT CZolLogTask : public ACE_Task_Base
{
public:
    CZolLogTask(int iMaxFileSize, int iFileNumber, bool bDisabled);
    ~CZolLogTask() override; ///< closes the file; the thread must be gone
    CZolLogTask(const CZolLogTask &) = delete;
    CZolLogTask &operator=(const CZolLogTask &) = delete;

    /// The log of the process, made by the first call and never destroyed.
    static CZolLogTask *instance();

    using ACE_Task_Base::init; // not hidden by the one below

    /// Reads the settings, opens the file, starts the thread. pcName is the prefix of the files, by default
    /// zol_<id>_<handle>; pcPath their folder, which must exist, by default what getLogPath() finds. -1 only if no
    /// folder can be worked out; a log that cannot be opened is switched off, and 0 returned.
    int init(unsigned short usProcID, unsigned short usProcHandle, const char *pcName, const char *pcPath);

    /// The folder of the log files with a separator at its end: pcPath, else the setting LogPath, else conf/log under
    /// the root of the installation. 0, or -1 if none can be worked out.
    int getLogPath(const char *pcPath, std::string &strResult);

    int open(void *pvArgs = nullptr) override; ///< starts the thread; 0 or -1
    int svc() override;                        ///< the log thread; never returns

    /// Stamps a line and leaves it in the buffer; a line that does not fit is lost.
    void output(const char *pcText);

    /// Writes the buffer to the file, and steps to the next file if this one is full.
    void writeLog();

    /// Stamps a line and writes it to the file at once, past the buffer.
    void startupLog(const char *pcText);

    // Defaults; an application may assign them before CZolAppMgr::initAppMgr.
    static int MAX_FILE_SIZE;         ///< bytes of a file, 10 MiB
    static int MAX_FILE_NUMBER_LIMIT; ///< most files that the setting MaxLogNumber can ask for, 10
    static int DEFAULT_FILE_NUMBER;   ///< files without that setting, 10

private:
    friend class CZolRunLog;

    static const int BUFFER_SIZE = 65536;

    void append(const char *pcScope, const char *pcText); // a line; pcScope and a blank ahead of it unless null
    void readLimits();
    int initLogFile(const std::string &strPath, const std::string &strPrefix);
    void findNewestFile(const std::string &strPath, const std::string &strPrefix, std::string &strStamp,
                        int &iSeq) const;
    std::string fileName() const ZOL_REQUIRES(m_oFileLock);
    void stepLogSeqForward() ZOL_REQUIRES(m_oFileLock);
    void disable();
    void reportOverflow() ZOL_REQUIRES(m_oBufferLock, m_oFileLock);
    void writeLine(const char *pcStamp, const char *pcText) ZOL_REQUIRES(m_oFileLock);
    void addFileSize(size_t uiBytes) ZOL_REQUIRES(m_oFileLock);
    void rotateIfFull() ZOL_REQUIRES(m_oFileLock);

    static std::atomic<CZolLogTask *> sm_poInstance;

    std::atomic<bool> m_bDisabled;                      // set before the thread runs, or for good
    int m_iMaxFileSize;                                 // bytes; fixed by init()
    int m_iMaxFileNumber;                               // files of the ring; fixed by init()
    int m_iPeriod;                                      // seconds between two flushes
    std::string m_strLogPath;                           // fixed by init()
    std::string m_strLogName;                           // prefix of the files; fixed by init()
    int m_iLogSeq ZOL_GUARDED_BY(m_oFileLock);          // number of the current file
    FILE *m_pFile ZOL_GUARDED_BY(m_oFileLock);          // null: none open
    CZolLock<ACE_Mutex, ZOL_RANK_LOG_FILE> m_oFileLock; // leaf, behind m_oBufferLock: m_pFile, m_iFileSize, m_iLogSeq
    std::atomic<bool> m_bOverflow; // written under m_oBufferLock: a line was refused, and the loss is not yet reported
    std::string m_strDiscardTime ZOL_GUARDED_BY(m_oBufferLock); // stamp of the first refused line
    char m_acBuffer[BUFFER_SIZE] ZOL_GUARDED_BY(m_oBufferLock); // whole lines, back to back
    CZolLock<ACE_Mutex, ZOL_RANK_LOG_BUFFER> m_oBufferLock;     // before m_oFileLock
    int m_iBufferLen ZOL_GUARDED_BY(m_oBufferLock);             // bytes in use
    int m_iFileSize ZOL_GUARDED_BY(m_oFileLock);                // bytes in the current file
    ACE_Manual_Event m_oStarted;                                // the thread runs, see log/ZolThreadStart.h
};

#endif
