// R4: one process publishes messages of 128 bytes, several others have subscribed. Delivered messages a second, by the
// slowest subscriber.
//   bench_vek_fan_out [publications] [subscribers]

#include "VekPeer.h"

#include <algorithm>
#include <unistd.h>

using namespace vekbench;

int main(int argc, char **argv)
{
    const auto uiCount = static_cast<std::uint32_t>(argument(argc, argv, 1, 200000));
    const std::size_t ulSubscribers = argument(argc, argv, 2, 10);
    const std::uint32_t uiPayload = 100;
    const CGateway oGateway;
    int aiDone[2];
    require(pipe(aiDone) == 0, "pipe");
    std::vector<pid_t> oChildren;
    for (std::size_t i = 0; i < ulSubscribers; ++i)
    {
        const auto usProcID = static_cast<std::uint16_t>(RECEIVER + i);
        const int iSocket = connectAs(oGateway.port(), usProcID);
        subscribe(iSocket, usProcID, COMMAND);
        oChildren.push_back(spawn(
            [&]
            {
                const std::uint64_t ulNs = receiveFrames(iSocket, uiPayload, uiCount);
                require(write(aiDone[1], &ulNs, sizeof ulNs) == sizeof ulNs, "write");
            }));
        close(iSocket);
    }
    const int iPublisher = connectAs(oGateway.port(), SENDER);
    sendFrames(iPublisher, {13, SENDER, 0}, uiPayload, uiCount);
    std::uint64_t ulWorstNs = 0;
    for (std::size_t i = 0; i < ulSubscribers; ++i)
    {
        std::uint64_t ulNs = 0;
        require(read(aiDone[0], &ulNs, sizeof ulNs) == sizeof ulNs, "a subscriber failed");
        ulWorstNs = std::max(ulWorstNs, ulNs);
    }
    for (const pid_t iChild : oChildren)
    {
        waitFor(iChild);
    }
    report("R4/zol", "delivered",
           static_cast<double>(uiCount) * static_cast<double>(ulSubscribers) * 1e9 / static_cast<double>(ulWorstNs),
           "msg/s");
    return 0;
}
