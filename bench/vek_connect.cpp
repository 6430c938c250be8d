// R5: many processes register, and then stay idle: how long that takes, and what one of them costs the gateway.
//   bench_vek_connect [connections]

#include "VekPeer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/resource.h>
#include <unistd.h>

using namespace vekbench;

namespace
{

long residentKb(pid_t iPid)
{
    char acPath[64];
    snprintf(acPath, sizeof acPath, "/proc/%d/status", static_cast<int>(iPid));
    FILE *const pFile = fopen(acPath, "r");
    require(pFile != nullptr, acPath);
    char acLine[256];
    long lKb = -1;
    while (fgets(acLine, sizeof acLine, pFile) != nullptr)
    {
        if (strncmp(acLine, "VmRSS:", 6) == 0)
        {
            lKb = strtol(acLine + 6, nullptr, 10);
        }
    }
    fclose(pFile);
    return lKb;
}

/// A register message of an own handle, so that thousands of processes may have the same id.
void fillRegister(char *pcMessage, std::size_t ulNumber)
{
    memset(pcMessage, 0, 32);
    pcMessage[0] = 1;
    pcMessage[1] = 3;
    pcMessage[9] = 77;
    pcMessage[12] = static_cast<char>((ulNumber + 1) >> 8);
    pcMessage[13] = static_cast<char>(ulNumber + 1);
    pcMessage[23] = 28;
    pcMessage[27] = 4;
}

} // namespace

int main(int argc, char **argv)
{
    const std::size_t ulCount = argument(argc, argv, 1, 5000);
    rlimit oLimit{};
    getrlimit(RLIMIT_NOFILE, &oLimit);
    oLimit.rlim_cur = oLimit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &oLimit);
    require(oLimit.rlim_cur > ulCount + 100, "the limit of descriptors is too low");
    const CGateway oGateway;
    close(connectAs(oGateway.port(), SENDER)); // everything that a first connection sets up is there
    const long lBeforeKb = residentKb(oGateway.pid());
    std::vector<int> oSockets;
    oSockets.reserve(ulCount);
    const std::uint64_t ulStart = nowNs();
    while (oSockets.size() < ulCount) // handshakes in batches of 100: registered, and a hello there and back
    {
        const std::size_t ulFirst = oSockets.size();
        const std::size_t ulLast = std::min(ulFirst + 100, ulCount);
        char acMessage[32];
        for (std::size_t i = ulFirst; i < ulLast; ++i)
        {
            oSockets.push_back(connectTo(oGateway.port()));
        }
        for (std::size_t i = ulFirst; i < ulLast; ++i)
        {
            fillRegister(acMessage, i);
            writeAll(oSockets[i], acMessage, sizeof acMessage);
        }
        for (std::size_t i = ulFirst; i < ulLast; ++i)
        {
            readAll(oSockets[i], acMessage, sizeof acMessage);
            require(acMessage[1] == 3 && acMessage[31] == 0, "registration refused");
        }
    }
    const std::uint64_t ulEnd = nowNs();
    usleep(300000); // what the last ones set off has settled
    const long lAfterKb = residentKb(oGateway.pid());
    const double dCount = static_cast<double>(ulCount);
    report("R5/zol", "connect", static_cast<double>(ulEnd - ulStart) / 1e9, "s");
    report("R5/zol", "connect rate", dCount * 1e9 / static_cast<double>(ulEnd - ulStart), "conn/s");
    report("R5/zol", "server rss", static_cast<double>(lAfterKb - lBeforeKb) * 1024 / dCount, "B/conn");
    for (const int iSocket : oSockets)
    {
        close(iSocket);
    }
    return 0;
}
