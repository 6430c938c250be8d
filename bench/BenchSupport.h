#ifndef ZOL_BENCH_BENCH_SUPPORT_H
#define ZOL_BENCH_BENCH_SUPPORT_H

#include "zol.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>

/// What the benchmarks of one process share: an installation of their own, the checked message of 28 + 100 bytes, and
/// the lines of the report. Whatever goes wrong ends the program with a line on standard error.
namespace zolbench
{

constexpr unsigned int HEADER_BYTES = 28;
constexpr unsigned int PAYLOAD_BYTES = 100;
constexpr unsigned short PROCESS = 1;

inline void need(bool bHolds, const char *pcWhat)
{
    if (!bHolds)
    {
        std::fprintf(stderr, "FAILED: %s\n", pcWhat);
        std::_Exit(2);
    }
}

inline std::uint64_t nowNs()
{
    timespec oNow{};
    clock_gettime(CLOCK_MONOTONIC, &oNow);
    return static_cast<std::uint64_t>(oNow.tv_sec) * 1000000000U + static_cast<std::uint64_t>(oNow.tv_nsec);
}

inline unsigned int argument(int argc, char **argv, int iAt, unsigned int uiDefault)
{
    return iAt < argc ? static_cast<unsigned int>(std::strtoul(argv[iAt], nullptr, 10)) : uiDefault;
}

/// One line "strWho<TAB>metric<TAB>value<TAB>unit", strWho being GROUP/zol. PB_TAG in the environment goes behind the
/// group: it names a run on one processor.
inline void report(std::string strWho, const char *pcMetric, double dValue, const char *pcUnit)
{
    if (const char *pcTag = std::getenv("PB_TAG")) // NOLINT(concurrency-mt-unsafe): nobody sets it
    {
        strWho.insert(strWho.find('/'), pcTag);
    }
    std::printf("%s\t%s\t%.6g\t%s\n", strWho.c_str(), pcMetric, dValue, pcUnit);
    std::fflush(stdout);
}

/// A line of /proc/self/status, "VmRSS:" or "VmHWM:", in bytes.
inline double memoryBytes(const std::string &strKey)
{
    std::ifstream oStatus("/proc/self/status");
    std::string strWord;
    while (oStatus >> strWord)
    {
        if (strWord == strKey)
        {
            double dKilobytes = 0;
            oStatus >> dKilobytes;
            return dKilobytes * 1024;
        }
    }
    return 0;
}

inline char payloadByte(unsigned int uiAt)
{
    return static_cast<char>(uiAt * 31 + 7);
}

/// A message with its number as command and a payload that is written whole.
inline CZolMsgPdu *makeMsg(CZolMsgPdu::EnumZolPduType eType, unsigned char ucMgr, unsigned short usTask,
                           unsigned int uiNumber)
{
    static const std::string s_strPayload = []
    {
        std::string strPayload;
        for (unsigned int uiAt = 0; uiAt < PAYLOAD_BYTES; ++uiAt)
        {
            strPayload.push_back(payloadByte(uiAt));
        }
        return strPayload;
    }();
    CZolMsgPdu *poMsg = new (HEADER_BYTES + PAYLOAD_BYTES) CZolMsgPdu;
    need(poMsg != nullptr, "memory for a message");
    poMsg->init();
    poMsg->m_ucMsgType = static_cast<ACE_Byte>(eType);
    poMsg->m_ulCmdID = uiNumber;
    poMsg->m_usSrcProcID = PROCESS;
    poMsg->m_usDestProcID = PROCESS;
    poMsg->m_ucDestModule = ucMgr;
    poMsg->m_usDestSubModuleId = usTask;
    poMsg->m_ulDataLength = PAYLOAD_BYTES;
    std::memcpy(zolPayload(poMsg), s_strPayload.data(), PAYLOAD_BYTES);
    return poMsg;
}

/// Order, length and a byte at each end.
inline void check(const CZolMsgPdu &oMsg, unsigned int uiNumber)
{
    const char *pcPayload = zolPayload(&oMsg);
    need(oMsg.m_ulCmdID == uiNumber && oMsg.m_ulDataLength == PAYLOAD_BYTES && pcPayload[0] == payloadByte(0) &&
             pcPayload[PAYLOAD_BYTES - 1] == payloadByte(PAYLOAD_BYTES - 1),
         "order or content of a message");
}

inline void send(CZolMsgPdu *poMsg)
{
    const unsigned char ucMgr = poMsg->m_ucDestModule;
    need(CZolAppMgr::instance()->sendLocalAsynMsg(poMsg, ucMgr) == ZOL_OK, "sending");
}

/// The library in a process of its own: an installation under the temporary folder, no gateway. Lines that it prints at
/// its end go to standard error, so that standard output holds the report alone.
class CProcess
{
public:
    explicit CProcess(unsigned int uiMostSeconds, unsigned short usProcess = PROCESS)
    {
        alarm(uiMostSeconds);
        std::string strTemplate = (std::filesystem::temp_directory_path() / "zol-bench-XXXXXX").string();
        need(mkdtemp(strTemplate.data()) != nullptr, "a temporary folder");
        m_strRoot = strTemplate;
        std::filesystem::create_directories(m_strRoot + "/conf/log");
        std::ofstream(m_strRoot + "/conf/zol.cfg") << "\n";
        setenv("ZOLROOT", m_strRoot.c_str(), 1); // NOLINT(concurrency-mt-unsafe): no thread runs yet
        need(CZolAppMgr::instance()->initAppMgr(usProcess, 0, true, "bench", nullptr) == ZOL_OK,
             "starting the library");
    }
    ~CProcess() { std::filesystem::remove_all(m_strRoot); }
    CProcess(const CProcess &) = delete;
    CProcess &operator=(const CProcess &) = delete;

    static void add(CZolTaskMgr *poMgr) { need(CZolAppMgr::instance()->addTaskMgr(poMgr) == ZOL_OK, "a manager"); }

    /// Runs fnBody on a thread of its own while the process runs, and ends the process.
    template <typename Body>
    void run(Body fnBody)
    {
        std::thread oBody(
            [&]
            {
                while (CZolAppMgr::instance()->getStatus() != APPMGR_RUNNING)
                {
                    std::this_thread::yield();
                }
                fnBody();
                dup2(STDERR_FILENO, STDOUT_FILENO);
                CZolAppMgr::instance()->exitThreads();
            });
        CZolAppMgr::instance()->handleEvents();
        oBody.join();
    }

private:
    std::string m_strRoot;
};

} // namespace zolbench

#endif
