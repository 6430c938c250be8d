// One of many processes that send each other numbered messages through the gateway, and count what they sent and got in
// a table that all of them share, so that the counts of one that is killed stay.
//
//     storm NUMBER PROCESSES MESSAGES DEAF TABLE
//
// Process NUMBER of PROCESSES sends MESSAGES messages to the others in turn. Process DEAF never comes back from its
// first message and gets large ones, so that its queue fills and it reads no more. examples/gateway/demo starts them
// all and does the sums.

#include "zol.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

const std::uint16_t PROCESS = 500; // all of them have this id, and their number plus one as handle
const unsigned char MANAGER = 1;
const unsigned short TASK = 1;
const unsigned int COMMAND = 1;
const std::uint32_t PAYLOAD_BYTES = 200;
const std::uint32_t DEAF_PAYLOAD_BYTES = 8000;

/// The shared table: for each process a row of what it sent to each, a row of what it got from each, and how often a
/// message came out of its order.
class CTable
{
public:
    using TWord = std::atomic<std::uint64_t>;

    CTable(const char *pcFile, unsigned int uiProcesses) : m_uiProcesses(uiProcesses)
    {
        const int iFile = open(pcFile, O_RDWR | O_CLOEXEC);
        void *const pvMap = iFile < 0 ? MAP_FAILED
                                      : mmap(nullptr, uiProcesses * (2u * uiProcesses + 1) * sizeof(TWord),
                                             PROT_READ | PROT_WRITE, MAP_SHARED, iFile, 0);
        m_poWords = pvMap == MAP_FAILED ? nullptr : static_cast<TWord *>(pvMap);
    }

    bool isOpen() const { return m_poWords != nullptr; }
    TWord &sent(unsigned int uiFrom, unsigned int uiTo) { return m_poWords[row(uiFrom) + uiTo]; }
    TWord &got(unsigned int uiAt, unsigned int uiFrom) { return m_poWords[row(uiAt) + m_uiProcesses + uiFrom]; }
    TWord &disordered(unsigned int uiAt) { return m_poWords[row(uiAt) + 2 * m_uiProcesses]; }

private:
    std::size_t row(unsigned int uiProcess) const { return uiProcess * (2u * m_uiProcesses + 1); }

    const unsigned int m_uiProcesses;
    TWord *m_poWords;
};

/// What this process is told to do.
struct SRole
{
    unsigned int m_uiNumber;
    unsigned int m_uiProcesses;
    unsigned int m_uiMessages;
    unsigned int m_uiDeaf; // the process that never reads
};

/// Counts what comes and checks its order. A source's messages to one receiver carry the numbers 0, 1, 2 and so on.
class CSink : public CZolTask
{
public:
    CSink(const SRole &oRole, CTable &oTable) : m_oRole(oRole), m_oTable(oTable), m_oNext(oRole.m_uiProcesses) {}

    void reqMsgProcess(const CZolMsgPdu *poMsg) override { take(poMsg); }
    void respMsgProcess(const CZolMsgPdu *poMsg) override { take(poMsg); }

private:
    void take(const CZolMsgPdu *poMsg)
    {
        std::uint32_t uiNumber;
        std::memcpy(&uiNumber, zolPayload(poMsg), sizeof uiNumber);
        const unsigned int uiFrom = poMsg->m_usSrcProcHandle - 1u;
        if (uiNumber != m_oNext[uiFrom])
        {
            m_oTable.disordered(m_oRole.m_uiNumber).fetch_add(1);
        }
        m_oNext[uiFrom] = uiNumber + 1;
        m_oTable.got(m_oRole.m_uiNumber, uiFrom).fetch_add(1);
        while (m_oRole.m_uiNumber == m_oRole.m_uiDeaf)
        {
            pause();
        }
    }

    const SRole m_oRole;
    CTable &m_oTable;
    std::vector<std::uint32_t> m_oNext;
};

CZolMsgPdu *message(unsigned int uiFrom, unsigned int uiTo, std::uint32_t uiNumber, std::uint32_t uiPayload)
{
    auto *const poMsg = new (sizeof(CZolMsgPdu) + uiPayload) CZolMsgPdu;
    if (poMsg == nullptr)
    {
        return nullptr;
    }
    poMsg->init();
    poMsg->m_ucMsgType = CZolMsgPdu::MSG_REQUEST;
    poMsg->m_ulCmdID = COMMAND;
    poMsg->m_usSrcProcID = PROCESS;
    poMsg->m_usSrcProcHandle = static_cast<std::uint16_t>(uiFrom + 1);
    poMsg->m_usDestProcID = PROCESS;
    poMsg->m_usDestProcHandle = static_cast<std::uint16_t>(uiTo + 1);
    poMsg->m_ucDestModule = MANAGER;
    poMsg->m_usDestSubModuleId = TASK;
    poMsg->m_ulDataLength = uiPayload;
    char *const pcPayload = zolPayload(poMsg);
    std::memset(pcPayload, static_cast<int>(uiNumber), uiPayload);
    std::memcpy(pcPayload, &uiNumber, sizeof uiNumber);
    return poMsg;
}

/// Sends to the others in turn, a burst at a time so that the storm lasts.
void send(const SRole &oRole, CTable &oTable)
{
    std::vector<std::uint32_t> oNext(oRole.m_uiProcesses);
    for (unsigned int i = 0; i < oRole.m_uiMessages; ++i)
    {
        const unsigned int uiTo = (oRole.m_uiNumber + 1 + i % (oRole.m_uiProcesses - 1)) % oRole.m_uiProcesses;
        CZolMsgPdu *poMsg =
            message(oRole.m_uiNumber, uiTo, oNext[uiTo], uiTo == oRole.m_uiDeaf ? DEAF_PAYLOAD_BYTES : PAYLOAD_BYTES);
        oTable.sent(oRole.m_uiNumber, uiTo).fetch_add(1); // before: one that is killed here has not sent too little
        if (poMsg == nullptr || CZolAppMgr::instance()->sendAsynMsg(poMsg) != ZOL_OK)
        {
            oTable.sent(oRole.m_uiNumber, uiTo).fetch_sub(1);
            std::fprintf(stderr, "storm %u: message %u was refused\n", oRole.m_uiNumber, i);
            continue;
        }
        ++oNext[uiTo];
        if (i % 100 == 99)
        {
            usleep(20000);
        }
    }
    std::puts("sent all");
    std::fflush(stdout);
}

int run(const SRole &oRole, CTable &oTable)
{
    const std::string strLog = "storm_" + std::to_string(oRole.m_uiNumber);
    if (CZolAppMgr::instance()->initAppMgr(PROCESS, static_cast<std::uint16_t>(oRole.m_uiNumber + 1), false,
                                           strLog.c_str(), nullptr) != ZOL_OK)
    {
        std::fprintf(stderr, "storm %u: the library does not start\n", oRole.m_uiNumber);
        return 1;
    }
    CZolRunLog::logLevel(CZolRunLog::LEVEL_WARNING);
    auto *const poTaskMgr = new CZolTaskMgr(MANAGER, 1); // owned by the application manager
    CZolAppMgr::instance()->addTaskMgr(poTaskMgr);
    poTaskMgr->addStaticTask(new CSink(oRole, oTable), TASK); // owned by the task manager
    std::puts("ready");
    std::fflush(stdout);
    std::thread oSender(
        [&]
        {
            char cGo = 0;
            if (read(STDIN_FILENO, &cGo, 1) == 1) // all are ready
            {
                send(oRole, oTable);
            }
        });
    CZolAppMgr::instance()->handleEvents(); // until SIGTERM
    oSender.join();
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 6)
    {
        std::fprintf(stderr, "usage: storm NUMBER PROCESSES MESSAGES DEAF TABLE\n");
        return 2;
    }
    const SRole oRole = {static_cast<unsigned int>(std::strtoul(argv[1], nullptr, 10)),
                         static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)),
                         static_cast<unsigned int>(std::strtoul(argv[3], nullptr, 10)),
                         static_cast<unsigned int>(std::strtoul(argv[4], nullptr, 10))};
    static CTable *const s_poTable = new CTable(argv[5], oRole.m_uiProcesses); // threads outlive main
    if (oRole.m_uiNumber >= oRole.m_uiProcesses || oRole.m_uiProcesses < 2 || !s_poTable->isOpen())
    {
        std::fprintf(stderr, "storm: bad numbers, or no table %s\n", argv[5]);
        return 2;
    }
    return run(oRole, *s_poTable);
}
