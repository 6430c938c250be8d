// R3 watched: what it costs to look. The relay of bench_vek_relay among 50 more pipes, in turns through a gateway
// without a status page and through one whose page is open and whose metrics are scraped, each asked for once a second.
//   bench_vek_watched [frames] [rounds]

#include "VekPeer.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace vekbench;

namespace
{

const std::uint32_t PAYLOAD = 100;
const std::size_t OTHER_PIPES = 50;

unsigned short freePort()
{
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in oAddress{};
    oAddress.sin_family = AF_INET;
    oAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t uiLength = sizeof oAddress;
    require(bind(iSocket, reinterpret_cast<sockaddr *>(&oAddress), sizeof oAddress) == 0 &&
                getsockname(iSocket, reinterpret_cast<sockaddr *>(&oAddress), &uiLength) == 0,
            "a free port");
    close(iSocket);
    return ntohs(oAddress.sin_port);
}

/// One answer of the status port, which must be a good one.
std::size_t get(unsigned short usPort, const std::string &strPath)
{
    const int iSocket = connectTo(usPort);
    const std::string strRequest = "GET " + strPath + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
    writeAll(iSocket, strRequest.data(), strRequest.size());
    std::string strAnswer;
    char acPart[65536];
    for (ssize_t iGot = 0; (iGot = read(iSocket, acPart, sizeof acPart)) > 0;)
    {
        strAnswer.append(acPart, static_cast<std::size_t>(iGot));
    }
    close(iSocket);
    require(strAnswer.compare(0, 12, "HTTP/1.1 200") == 0, "an answer of the status port");
    return strAnswer.size();
}

struct SResult
{
    double m_dRate;  // messages per second
    double m_dCpuNs; // of the routing thread, for each message
};

/// Processor time that the first thread of a process has had.
double cpuNs(pid_t iPid)
{
    std::ifstream oFile("/proc/" + std::to_string(iPid) + "/schedstat");
    double dNs = 0;
    oFile >> dNs;
    return dNs;
}

/// The relay through a gateway, with its status port watched if usHttp is not 0.
SResult relay(std::uint32_t uiCount, unsigned short usHttp)
{
    const CGateway oGateway(usHttp == 0 ? std::vector<std::string>()
                                        : std::vector<std::string>{"--http", std::to_string(usHttp)});
    std::vector<int> oSockets;
    for (std::size_t i = 0; i < OTHER_PIPES; ++i)
    {
        oSockets.push_back(connectAs(oGateway.port(), static_cast<std::uint16_t>(1000 + i)));
    }
    const int iReceiver = connectAs(oGateway.port(), RECEIVER);
    oSockets.push_back(iReceiver);
    const pid_t iWatcher = usHttp == 0 ? -1
                                       : spawn(
                                             [usHttp]
                                             {
                                                 for (;;)
                                                 {
                                                     require(get(usHttp, "/status.json") > 10000, "all pipes");
                                                     (void)get(usHttp, "/metrics");
                                                     usleep(1000000);
                                                 }
                                             });
    const pid_t iSender = spawn(
        [&]
        {
            const int iSocket = connectAs(oGateway.port(), SENDER);
            sendFrames(iSocket, SAddress(), PAYLOAD, uiCount);
            char cEnd = 0;
            (void)!read(iSocket, &cEnd, 1); // the gateway closes it at its end
        });
    const std::uint64_t ulNs = receiveFrames(iReceiver, PAYLOAD, uiCount);
    const double dCpuNs = cpuNs(oGateway.pid());
    for (const pid_t iPid : {iWatcher, iSender})
    {
        if (iPid > 0)
        {
            int iStatus = 0;
            require(waitpid(iPid, &iStatus, WNOHANG) == 0, "a helper that still runs");
            kill(iPid, SIGKILL);
            waitpid(iPid, &iStatus, 0);
        }
    }
    for (const int iSocket : oSockets)
    {
        close(iSocket);
    }
    return {static_cast<double>(uiCount) * 1e9 / static_cast<double>(ulNs), dCpuNs / static_cast<double>(uiCount)};
}

double median(std::vector<double> oValues)
{
    std::sort(oValues.begin(), oValues.end());
    return oValues[oValues.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    const auto uiCount = static_cast<std::uint32_t>(argument(argc, argv, 1, 20000000));
    const std::size_t ulRounds = argument(argc, argv, 2, 5);
    std::vector<double> aoRates[2];
    std::vector<double> aoCpuNs[2];
    std::vector<double> oRatios;
    for (std::size_t ulRound = 0; ulRound < ulRounds; ++ulRound)
    {
        for (const std::size_t ulWatched : {std::size_t{0}, std::size_t{1}})
        {
            const SResult oResult = relay(uiCount, ulWatched == 0 ? std::uint16_t{0} : freePort());
            aoRates[ulWatched].push_back(oResult.m_dRate);
            aoCpuNs[ulWatched].push_back(oResult.m_dCpuNs);
        }
        oRatios.push_back(aoRates[1].back() / aoRates[0].back());
    }
    report("R3 watched/zol", "rate without a status page", median(aoRates[0]), "msg/s");
    report("R3 watched/zol", "rate with page and scrape", median(aoRates[1]), "msg/s");
    report("R3 watched/zol", "with over without", median(oRatios), "ratio");
    // the least of the rounds: what disturbs it only ever adds
    report("R3 watched/zol", "routing thread without", *std::min_element(aoCpuNs[0].begin(), aoCpuNs[0].end()),
           "ns/msg");
    report("R3 watched/zol", "routing thread with", *std::min_element(aoCpuNs[1].begin(), aoCpuNs[1].end()), "ns/msg");
    return 0;
}
