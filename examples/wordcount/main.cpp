// Counts the words of a file with three processes that find each other through the gateway:
//
//     reader process                    gateway               counter processes
//     reader task  -- each line ------->  vek  ------------->  4 tasks each, on 2 threads
//     collector    <- counts, progress -  vek  <-------------
//
// examples/wordcount/demo starts them all. ZOLROOT names the folder whose conf/zol.cfg says where the gateway is.

#include "Collector.h"
#include "Counter.h"
#include "Protocol.h"
#include "Reader.h"
#include "zol.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>

using namespace wordcount;

namespace
{

const int EXIT_USAGE = 2;

int usage()
{
    std::fprintf(stderr, "usage: wordcount counter NUMBER | wordcount reader FILE RESULT\n");
    return EXIT_USAGE;
}

/// Starts the library for this process, which runs without a process handle.
bool start(std::uint16_t usProcess, const char *pcLogName)
{
    if (CZolAppMgr::instance()->initAppMgr(usProcess, 0, true, pcLogName, nullptr) != ZOL_OK)
    {
        std::fprintf(stderr, "wordcount: the library does not start\n");
        return false;
    }
    CZolRunLog::logLevel(CZolRunLog::LEVEL_WARNING); // the default level has four lines for every message
    return true;
}

int runCounter(unsigned int uiNumber)
{
    const auto usProcess = static_cast<std::uint16_t>(FIRST_COUNTER_PROCESS + uiNumber);
    if (!start(usProcess, "counter"))
    {
        return 1;
    }
    auto *const poTaskMgr = new CZolTaskMgr(COUNTER_MGR, COUNTER_THREADS); // owned by the application manager
    CZolAppMgr::instance()->addTaskMgr(poTaskMgr);
    for (std::uint16_t usTask = 1; usTask <= COUNTER_TASKS; ++usTask)
    {
        poTaskMgr->addStaticTask(new CCounter, usTask); // owned by the task manager
    }
    std::puts("ready"); // registered with the gateway; messages that come now wait in the queue
    std::fflush(stdout);
    CZolAppMgr::instance()->handleEvents(); // until SIGTERM
    return 0;
}

/// An open regular file and its size, or null with one line on standard error.
std::FILE *openInput(const char *pcFile, std::uint64_t &ulBytes)
{
    std::FILE *const pFile = std::fopen(pcFile, "re");
    struct stat oStat = {};
    if (pFile != nullptr && fstat(fileno(pFile), &oStat) == 0 && !S_ISDIR(oStat.st_mode))
    {
        ulBytes = static_cast<std::uint64_t>(oStat.st_size);
        return pFile;
    }
    std::string strReason = "not a file";
    if (pFile == nullptr)
    {
        zol::strError(errno, strReason);
    }
    std::fprintf(stderr, "wordcount: cannot read %s: %s\n", pcFile, strReason.c_str());
    if (pFile != nullptr)
    {
        std::fclose(pFile);
    }
    return nullptr;
}

/// The first message of the process goes straight to the queue: its manager's threads wait for handleEvents anyway.
void sendStart(CZolTaskMgr &oReaderMgr)
{
    CZolMsgPdu *const poStart = zol::encodeReq(CMD_START, nullptr, 0, READER_PROCESS, READER_MGR, READER_TASK);
    if (poStart != nullptr)
    {
        oReaderMgr.enqueueMsg(zolBlockOf(poStart), true);
    }
}

int runReader(const char *pcFile, const char *pcResult)
{
    static SZolRun oRun; // outlives main: tasks refer to it
    std::FILE *const pFile = openInput(pcFile, oRun.m_ulFileBytes);
    if (pFile == nullptr)
    {
        return EXIT_USAGE;
    }
    if (!start(READER_PROCESS, "reader"))
    {
        std::fclose(pFile);
        return 1;
    }
    auto *const poReaderMgr = new CZolTaskMgr(READER_MGR, 1);
    auto *const poCollectorMgr = new CZolTaskMgr(COLLECTOR_MGR, 1);
    auto *const poCollector = new CCollector(oRun, pcResult);
    CZolAppMgr::instance()->addTaskMgr(poReaderMgr);
    CZolAppMgr::instance()->addTaskMgr(poCollectorMgr);
    poReaderMgr->addStaticTask(new CReader(pFile, oRun), READER_TASK);
    poCollectorMgr->addStaticTask(poCollector, COLLECTOR_TASK);
    poCollector->setTimer(1); // the progress line
    sendStart(*poReaderMgr);
    CZolAppMgr::instance()->handleEvents(); // until SIGTERM
    return oRun.m_bDone && !oRun.m_bFailed ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string strRole = argc > 1 ? argv[1] : "";
    if (strRole == "counter" && argc == 3 && zol::isDigit(argv[2], static_cast<int>(std::strlen(argv[2]))))
    {
        const unsigned long ulNumber = std::strtoul(argv[2], nullptr, 10);
        return ulNumber < COUNTER_PROCESSES ? runCounter(static_cast<unsigned int>(ulNumber)) : usage();
    }
    if (strRole == "reader" && argc == 4)
    {
        return runReader(argv[2], argv[3]);
    }
    return usage();
}
