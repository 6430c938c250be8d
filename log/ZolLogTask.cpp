#include "ZolLogTask.h"

#include "ZolResMgr.h"
#include "ZolUtil.h"
#include "config/ZolBinPath.h"
#include "config/ZolCounters.h"

#include <ace/Dirent.h>
#include <ace/OS_NS_unistd.h>
#include <ace/Thread_Manager.h>
#include <algorithm>
#include <climits>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sys/stat.h>

namespace
{

const size_t STAMP_LENGTH = 23;                // of zol::getCurrFormatTime
const size_t LINE_OVERHEAD = STAMP_LENGTH + 2; // stamp, blank, line feed
const int FLUSH_PERIOD = 2;                    // seconds

// The number in the name of a file of the ring, stem then digit then ".log"; -1 for any other name.
int seqOfName(const std::string &strName, const std::string &strStem)
{
    if (strName.size() != strStem.size() + 5 || strName.compare(0, strStem.size(), strStem) != 0 ||
        strName.compare(strStem.size() + 1, std::string::npos, ".log") != 0)
    {
        return -1;
    }
    const char cDigit = strName[strStem.size()];
    return cDigit >= '0' && cDigit <= '9' ? cDigit - '0' : -1;
}

// The stamp of the first line without its last digit; empty for an empty file.
std::string firstStamp(const std::string &strPath, const std::string &strName)
{
    std::ifstream oFile(strPath + "/" + strName);
    char acStamp[STAMP_LENGTH] = "";
    oFile.get(acStamp, sizeof acStamp);
    return acStamp;
}

int sizeOfFile(const std::string &strFile)
{
    struct stat oStat = {};
    return stat(strFile.c_str(), &oStat) == 0 ? static_cast<int>(std::min<off_t>(oStat.st_size, INT_MAX)) : 0;
}

} // namespace

int CZolLogTask::MAX_FILE_SIZE = 10485760;
int CZolLogTask::MAX_FILE_NUMBER_LIMIT = 10;
int CZolLogTask::DEFAULT_FILE_NUMBER = 10;

std::atomic<CZolLogTask *> CZolLogTask::sm_poInstance{nullptr};

CZolLogTask *CZolLogTask::instance()
{
    static std::once_flag oOnce;
    std::call_once(oOnce, [] { sm_poInstance.store(new CZolLogTask(MAX_FILE_SIZE, DEFAULT_FILE_NUMBER, false)); });
    return sm_poInstance.load(std::memory_order_acquire);
}

CZolLogTask::CZolLogTask(int iMaxFileSize, int iFileNumber, bool bDisabled)
    : ACE_Task_Base(ACE_Thread_Manager::instance()), m_bDisabled(bDisabled), m_iMaxFileSize(iMaxFileSize),
      m_iMaxFileNumber(iFileNumber), m_iPeriod(FLUSH_PERIOD), m_iLogSeq(0), m_pFile(nullptr), m_bOverflow(false),
      m_strDiscardTime("2007-12-29 14:42:50.000"), m_iBufferLen(0), m_iFileSize(0)
{
}

CZolLogTask::~CZolLogTask()
{
    if (m_pFile != nullptr)
    {
        fclose(m_pFile);
    }
}

// ---- Start --------------------------------------------------------------------------------------------------------

int CZolLogTask::init(unsigned short usProcID, unsigned short usProcHandle, const char *pcName, const char *pcPath)
{
    std::string strLogPath;
    if (getLogPath(pcPath, strLogPath) != 0)
    {
        std::cerr << "CZolLogTask::init failed to get the log path." << std::endl;
        return ZOL_ERR_FAILED;
    }
    const std::string strPrefix =
        pcName != nullptr ? pcName : "zol_" + std::to_string(usProcID) + "_" + std::to_string(usProcHandle);
    readLimits();
    if (m_iMaxFileNumber <= 0)
    {
        std::cout << "CZolLogTask::init Logging disabled." << std::endl;
        disable();
    }
    else if (initLogFile(strLogPath, strPrefix) != 0)
    {
        std::cout << "CZolLogTask::init failed to initialize the log files." << std::endl;
        disable();
    }
    else if (open(nullptr) != 0)
    {
        std::cout << "CZolLogTask::init failed to start the log task." << std::endl;
        disable();
    }
    return ZOL_OK;
}

// Under the lock for a start that is tried again: the thread of the first try may be stepping.
void CZolLogTask::readLimits()
{
    const CZolGuard oGuard(m_oFileLock);
    if (zol::getResByKey("MaxLogNumber", m_iMaxFileNumber, MAX_FILE_NUMBER_LIMIT, 0) != ZOL_OK)
    {
        m_iMaxFileNumber = DEFAULT_FILE_NUMBER;
    }
    if (zol::getResByKey("MaxLogSize", m_iMaxFileSize, 10485760, 1024) != ZOL_OK)
    {
        m_iMaxFileSize = MAX_FILE_SIZE;
    }
}

void CZolLogTask::disable()
{
    m_bDisabled = true;
    m_iMaxFileSize = 0;
}

int CZolLogTask::getLogPath(const char *pcPath, std::string &strResult)
{
    const std::string *const pstrSetting = zol::getResByKey("LogPath");
    if (pcPath != nullptr)
    {
        strResult = pcPath;
    }
    else if (pstrSetting != nullptr)
    {
        strResult = *pstrSetting;
    }
    else if (zol::getTrimEnv("ZOLROOT", strResult) == 0)
    {
        strResult += "/conf/log/";
    }
    else if (ZOLCPP::getBinPath(strResult) == 0)
    {
        strResult += "/..";
        strResult += "/conf/log/";
    }
    else
    {
        std::cerr << "CZolLogTask::init failed to get the path of the process." << std::endl;
        return ZOL_ERR_FAILED;
    }
    if (strResult.empty() || (strResult.back() != '/' && strResult.back() != '\\'))
    {
        strResult += '/';
    }
    return ZOL_OK;
}

int CZolLogTask::initLogFile(const std::string &strPath, const std::string &strPrefix)
{
    std::string strNewestStamp;
    int iNewestSeq = 0;
    findNewestFile(strPath, strPrefix, strNewestStamp, iNewestSeq);

    const CZolGuard oGuard(m_oFileLock);
    m_strLogPath = strPath;
    m_strLogName = strPrefix;
    m_iLogSeq = iNewestSeq;
    m_iFileSize = 0;
    const std::string strName = fileName();
    const bool bContinue = !strNewestStamp.empty();
    const int iSize = bContinue ? sizeOfFile(strName) : 0;
    if (m_pFile != nullptr)
    {
        fclose(m_pFile); // of a start that failed later on and is tried again
    }
    m_pFile = fopen(strName.c_str(), bContinue ? "a+te" : "w+te");
    if (m_pFile == nullptr)
    {
        std::cout << "Fail to open log file: " << strName << std::endl;
        return ZOL_ERR_FAILED;
    }
    m_iFileSize = iSize;
    return ZOL_OK;
}

// The newest file is the one whose first line is the latest: the first line is written when a file is begun, while the
// times of files do not survive a copy, and numbers not the turn of the ring.
void CZolLogTask::findNewestFile(const std::string &strPath, const std::string &strPrefix, std::string &strStamp,
                                 int &iSeq) const
{
    const std::string strStem = strPrefix + "_";
    ACE_Dirent oFolder;
    if (oFolder.open(strPath.c_str()) != 0)
    {
        return;
    }
    for (ACE_DIRENT *poEntry = oFolder.read(); poEntry != nullptr; poEntry = oFolder.read())
    {
        const std::string strName = poEntry->d_name;
        const int iFound = seqOfName(strName, strStem);
        if (iFound < 0 || iFound >= m_iMaxFileNumber)
        {
            continue;
        }
        const std::string strFound = firstStamp(strPath, strName);
        if (strFound > strStamp)
        {
            strStamp = strFound;
            iSeq = iFound;
        }
    }
}

int CZolLogTask::open(void * /*pvArgs*/)
{
    if (m_bDisabled)
    {
        return ZOL_OK;
    }
    if (activate() == -1) // 1 says that the thread runs already
    {
        std::cout << "Fail to activate log task in function 'CZolLogTask::open'." << std::endl;
        return ZOL_ERR_FAILED;
    }
    m_oStarted.wait();
    return ZOL_OK;
}

int CZolLogTask::svc()
{
    m_oStarted.signal();
    for (;;)
    {
        ACE_OS::sleep(static_cast<unsigned int>(m_iPeriod));
        writeLog();
    }
}

// ---- Lines --------------------------------------------------------------------------------------------------------

void CZolLogTask::output(const char *pcText)
{
    append(nullptr, pcText);
}

// While lines are being lost this is called for every message and must cost next to nothing: the state is looked at
// ahead of the lock, where a stale answer loses or keeps one line more.
void CZolLogTask::append(const char *pcScope, const char *pcText)
{
    if (pcText == nullptr || m_bDisabled.load(std::memory_order_relaxed))
    {
        return;
    }
    if (m_bOverflow.load(std::memory_order_relaxed))
    {
        zolCount(zolCounters().m_ulLogLines);
        return;
    }
    const size_t uiScope = pcScope == nullptr ? 0 : strlen(pcScope) + 1;
    const size_t uiText = strlen(pcText);
    const size_t uiLine = uiScope + uiText + LINE_OVERHEAD;

    zolNoLockHeld();
    const CZolGuard oGuard(m_oBufferLock);
    if (m_bOverflow.load(std::memory_order_relaxed))
    {
        zolCount(zolCounters().m_ulLogLines);
        return;
    }
    char acStamp[STAMP_LENGTH + 1];
    zol::getCurrFormatTime(acStamp); // inside the lock: the lines of the buffer stand in the order of their times
    if (static_cast<size_t>(m_iBufferLen) + uiLine > sizeof m_acBuffer)
    {
        m_strDiscardTime = acStamp;
        m_bOverflow.store(true, std::memory_order_relaxed);
        zolCount(zolCounters().m_ulLogLines);
        return;
    }
    char *pcLine = m_acBuffer + m_iBufferLen;
    pcLine = std::copy_n(acStamp, STAMP_LENGTH, pcLine);
    *pcLine++ = ' ';
    if (uiScope > 0)
    {
        pcLine = std::copy_n(pcScope, uiScope - 1, pcLine);
        *pcLine++ = ' ';
    }
    pcLine = std::copy_n(pcText, uiText, pcLine);
    *pcLine = '\n';
    m_iBufferLen += static_cast<int>(uiLine);
}

void CZolLogTask::writeLog()
{
    if (m_bDisabled)
    {
        return;
    }
    const CZolGuard oBufferGuard(m_oBufferLock);
    // a line longer than the whole buffer can be lost while the buffer is empty: that loss is reported as well
    if (m_iBufferLen == 0 && !m_bOverflow.load(std::memory_order_relaxed))
    {
        return;
    }
    const CZolGuard oFileGuard(m_oFileLock);
    if (m_pFile == nullptr)
    {
        return;
    }
    const auto uiLength = static_cast<size_t>(m_iBufferLen);
    fwrite(m_acBuffer, 1, uiLength, m_pFile);
    fflush(m_pFile);
    addFileSize(uiLength);
    m_iBufferLen = 0;
    if (m_bOverflow.load(std::memory_order_relaxed))
    {
        reportOverflow();
    }
    rotateIfFull();
}

// One line that says which period was lost. It stands behind the lines of the buffer, which are older than the loss.
void CZolLogTask::reportOverflow()
{
    char acNow[STAMP_LENGTH + 1];
    zol::getCurrFormatTime(acNow);
    std::string strText = "CZolLogTask::writeLog Run logs have been discarded because of buffer overflow, which time "
                          "ranged from ";
    strText += m_strDiscardTime;
    strText += " to ";
    strText += acNow;
    writeLine(acNow, strText.c_str());
    m_bOverflow.store(false, std::memory_order_relaxed);
}

void CZolLogTask::startupLog(const char *pcText)
{
    if (pcText == nullptr || m_bDisabled)
    {
        return;
    }
    zolNoLockHeld();
    const CZolGuard oGuard(m_oFileLock);
    if (m_pFile == nullptr)
    {
        return;
    }
    char acStamp[STAMP_LENGTH + 1];
    zol::getCurrFormatTime(acStamp);
    writeLine(acStamp, pcText);
    rotateIfFull();
}

// ---- Files; all with m_oFileLock held -----------------------------------------------------------------------------

// Results of writes are not looked at: a log that cannot be written has nowhere to say so. The size counts as if the
// write had worked, so that the ring turns and a full disk is tried again.
void CZolLogTask::writeLine(const char *pcStamp, const char *pcText)
{
    fprintf(m_pFile, "%s %s\n", pcStamp, pcText);
    fflush(m_pFile);
    addFileSize(strlen(pcText) + LINE_OVERHEAD);
}

void CZolLogTask::addFileSize(size_t uiBytes)
{
    m_iFileSize = static_cast<int>(std::min<size_t>(static_cast<size_t>(m_iFileSize) + uiBytes, INT_MAX));
}

// A file may pass the limit by one flush. If the next one cannot be opened there is no file from then on.
void CZolLogTask::rotateIfFull()
{
    if (m_iFileSize < m_iMaxFileSize)
    {
        return;
    }
    fclose(m_pFile);
    m_iFileSize = 0;
    stepLogSeqForward();
    m_pFile = fopen(fileName().c_str(), "w+te");
}

std::string CZolLogTask::fileName() const
{
    return m_strLogPath + "/" + m_strLogName + "_" + std::to_string(m_iLogSeq) + ".log";
}

void CZolLogTask::stepLogSeqForward()
{
    ++m_iLogSeq;
    if (m_iLogSeq >= m_iMaxFileNumber)
    {
        m_iLogSeq = 0;
    }
}
