#include "gateway/config/ZolVekSettings.h"

#include "gateway/config/ZolVekMemoryLimit.h"
#include "gateway/config/ZolVekSettingsParts.h"

#include <algorithm>

namespace
{

const SZolVekNumber NUMBERS[] = {
    {"LogLevel", &SZolVekSettings::m_uiLogLevel, nullptr, 0, 5},
    {"MaxLogNumber", &SZolVekSettings::m_uiMaxLogNumber, nullptr, 0, 10},
    {"MaxLogSize", &SZolVekSettings::m_uiMaxLogSize, nullptr, 1024, 10485760},
    {"MaxConnections", &SZolVekSettings::m_uiMaxConnections, nullptr, 1, 1000000},
    {"MaxUnregistered", &SZolVekSettings::m_uiMaxUnregistered, nullptr, 1, 100000},
    {"MaxFrameBytes", &SZolVekSettings::m_uiMaxFrameBytes, nullptr, 8192, 1u << 30},
    {"RegisterSeconds", &SZolVekSettings::m_uiRegisterSeconds, nullptr, 1, 3600},
    {"PipeQueueBytes", nullptr, &SZolVekSettings::m_ulPipeQueueBytes, 65536, 1ull << 40},
    {"TotalQueueBytes", nullptr, &SZolVekSettings::m_ulTotalQueueBytes, 1ull << 20, 1ull << 44},
    {"StuckSeconds", &SZolVekSettings::m_uiStuckSeconds, nullptr, 1, 86400},
    {"HelloSeconds", &SZolVekSettings::m_uiHelloSeconds, nullptr, 1, 86400},
    {"SilenceSeconds", &SZolVekSettings::m_uiSilenceSeconds, nullptr, 1, 86400},
    {"ProbeSeconds", &SZolVekSettings::m_uiProbeSeconds, nullptr, 1, 60},
    {"HandleRestSeconds", &SZolVekSettings::m_uiHandleRestSeconds, nullptr, 0, 86400},
    {"GraceSeconds", &SZolVekSettings::m_uiGraceSeconds, nullptr, 0, 3600},
    {"DrainSeconds", &SZolVekSettings::m_uiDrainSeconds, nullptr, 0, 3600},
    {"MaxPipesPerAddress", &SZolVekSettings::m_uiMaxPipesPerAddress, nullptr, 0, 1000000},
};

} // namespace

SZolVekSettings::SZolVekSettings()
{
    m_ulTotalQueueBytes = std::min<std::uint64_t>(1ull << 30, zolVekMemoryLimit() / 2);
}

const std::vector<SZolVekKeyInfo> &zolVekKeys()
{
    static const std::vector<SZolVekKeyInfo> *const poKeys = new std::vector<SZolVekKeyInfo>{
        {"Listen", "--listen", "address:port", false, "where processes connect; port 0 takes a free one"},
        {"Http", "--http", "address:port", false,
         "status page, metrics and health; a port alone is on the loopback interface; without it there is none"},
        {"LogLevel", "--log-level", "0 to 5", true, "0 off, 1 fatal, 2 error, 3 warning, 4 info, 5 debug"},
        {"LogPath", "--log-path", "folder", false, "folder of the run log; without it lines go to standard error"},
        {"MaxLogNumber", "--max-log-number", "files", false, "log files in rotation; 0 is no log"},
        {"MaxLogSize", "--max-log-size", "bytes", false, "size at which the next log file begins"},
        {"MaxConnections", "--max-connections", "pipes", true,
         "registered processes; further ones are refused with -10"},
        {"MaxUnregistered", "--max-unregistered", "connections", true, "connections that have not registered yet"},
        {"MaxFrameBytes", "--max-frame-bytes", "bytes", true, "largest frame, header included"},
        {"RegisterSeconds", "--register-seconds", "seconds", true, "time from connecting to the register message"},
        {"PipeQueueBytes", "--pipe-queue-bytes", "bytes", true, "frames that wait for one process"},
        {"TotalQueueBytes", "--total-queue-bytes", "bytes", true, "frames that wait for all processes together"},
        {"SlowConsumer", "--slow-consumer", "block, drop or close", true, "what happens when a queue is full"},
        {"StuckSeconds", "--stuck-seconds", "seconds", true, "a queue that moves no byte for so long closes its pipe"},
        {"HelloSeconds", "--hello-seconds", "seconds", true,
         "a pipe on which nothing was sent for so long gets a hello"},
        {"SilenceSeconds", "--silence-seconds", "seconds", false,
         "a peer whose kernel acknowledges nothing for so long is given up"},
        {"ProbeSeconds", "--probe-seconds", "seconds", true, "time for the old pipe of a key to prove that it lives"},
        {"HandleRestSeconds", "--handle-rest-seconds", "seconds", true, "a freed handle is given out last for so long"},
        {"GraceSeconds", "--grace-seconds", "seconds", false, "publications wait for so long after the start"},
        {"DrainSeconds", "--drain-seconds", "seconds", true, "time for what is queued to leave after SIGTERM"},
        {"AllowFrom", "--allow-from", "addresses", true,
         "addresses and prefixes that may register, comma between them"},
        {"AllowFrom.<id>", "--allow-id", "id=addresses", true, "the same for one process id"},
        {"DebugFrom", "--debug-from", "ids, all or none", true,
         "processes that may read and set the log level of other ones and have them dump their state"},
        {"CheckSource", "--check-source", "off, log or drop", true,
         "frames that name another source than their pipe's; drop also refuses what zol::resendMessage forwards"},
        {"MaxPipesPerAddress", "--max-pipes-per-address", "connections", true,
         "open at once from one address; 0 is no limit"},
        {"MaxRatePerPipe", "--max-rate-per-pipe", "frames, bytes", true,
         "that one process may send in a second; it is read no faster; 0 is no limit"},
        {"Port.<id>", "--port", "id=port", true, "port that an address look-up gives for a process id (or id.handle)"},
    };
    return *poKeys;
}

const SZolVekNumber *zolVekFindNumber(const std::string &strKey)
{
    for (const SZolVekNumber &oNumber : NUMBERS)
    {
        if (strKey == oNumber.m_pcKey)
        {
            return &oNumber;
        }
    }
    return nullptr;
}
