// R3: frames of 128 bytes from one process to another through the gateway, as many a second as go. With a third process
// id registered by many idle pipes it shows that the cost of a frame does not grow with them.
//   bench_vek_relay [frames] [payload bytes] [idle pipes]

#include "VekPeer.h"

#include <csignal>
#include <sys/resource.h>
#include <unistd.h>

using namespace vekbench;

int main(int argc, char **argv)
{
    const auto uiCount = static_cast<std::uint32_t>(argument(argc, argv, 1, 2000000));
    const auto uiPayload = static_cast<std::uint32_t>(argument(argc, argv, 2, 100));
    const std::size_t ulIdle = argument(argc, argv, 3, 0);
    rlimit oLimit{};
    getrlimit(RLIMIT_NOFILE, &oLimit);
    oLimit.rlim_cur = oLimit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &oLimit);
    const CGateway oGateway;
    std::vector<int> oIdle;
    for (std::size_t i = 0; i < ulIdle; ++i)
    {
        oIdle.push_back(connectAs(oGateway.port(), static_cast<std::uint16_t>(1000 + i)));
    }
    const int iReceiver = connectAs(oGateway.port(), RECEIVER);
    const pid_t iSender = spawn(
        [&]
        {
            const int iSocket = connectAs(oGateway.port(), SENDER);
            sendFrames(iSocket, SAddress(), uiPayload, uiCount);
            char cEnd = 0;
            (void)!read(iSocket, &cEnd, 1); // the gateway closes it at its end
        });
    const std::uint64_t ulNs = receiveFrames(iReceiver, uiPayload, uiCount);
    std::string strGroup = "R3";
    strGroup += uiPayload == 100 ? "" : " " + std::to_string(uiPayload) + "B";
    strGroup += ulIdle == 0 ? "" : " " + std::to_string(ulIdle) + " idle pipes";
    report(strGroup + "/zol", "rate", static_cast<double>(uiCount) * 1e9 / static_cast<double>(ulNs), "msg/s");
    if (uiPayload != 100)
    {
        report(strGroup + "/zol", "bandwidth",
               static_cast<double>(uiCount) * static_cast<double>(HEADER_BYTES + uiPayload) * 1e3 /
                   static_cast<double>(ulNs),
               "MB/s");
    }
    for (const int iSocket : oIdle)
    {
        close(iSocket);
    }
    kill(iSender, SIGKILL);
    return 0;
}
