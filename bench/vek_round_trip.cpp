// R3 rtt: one message of 128 bytes there and back through the gateway, each round trip timed.
//   bench_vek_round_trip [round trips]

#include "VekPeer.h"

#include <algorithm>

using namespace vekbench;

int main(int argc, char **argv)
{
    const auto uiCount = static_cast<std::uint32_t>(argument(argc, argv, 1, 15000));
    const std::uint32_t uiPayload = 100;
    const CGateway oGateway;
    const int iAsker = connectAs(oGateway.port(), SENDER);
    const pid_t iEcho = spawn(
        [&]
        {
            const int iSocket = connectAs(oGateway.port(), RECEIVER);
            char acFrame[HEADER_BYTES + 100];
            fillFrame(acFrame, {1, RECEIVER, SENDER}, uiPayload, 0xFFFFFFFF, 0); // says that it is there
            writeAll(iSocket, acFrame, sizeof acFrame);
            for (std::uint32_t i = 0; i < uiCount; ++i)
            {
                readAll(iSocket, acFrame, sizeof acFrame);
                checkFrame(acFrame, uiPayload, i);
                fillFrame(acFrame, {2, RECEIVER, SENDER}, uiPayload, i, 0);
                writeAll(iSocket, acFrame, sizeof acFrame);
            }
        });
    char acFrame[HEADER_BYTES + 100];
    readAll(iAsker, acFrame, sizeof acFrame);
    checkFrame(acFrame, uiPayload, 0xFFFFFFFF);
    std::vector<std::uint64_t> oNs;
    oNs.reserve(uiCount);
    for (std::uint32_t i = 0; i < uiCount; ++i)
    {
        const std::uint64_t ulStart = nowNs();
        fillFrame(acFrame, SAddress(), uiPayload, i, ulStart);
        writeAll(iAsker, acFrame, sizeof acFrame);
        readAll(iAsker, acFrame, sizeof acFrame);
        checkFrame(acFrame, uiPayload, i);
        oNs.push_back(nowNs() - ulStart);
    }
    waitFor(iEcho);
    std::sort(oNs.begin(), oNs.end());
    report("R3 rtt/zol", "rtt median", static_cast<double>(oNs[oNs.size() / 2]) / 1e3, "us");
    report("R3 rtt/zol", "rtt p99", static_cast<double>(oNs[oNs.size() * 99 / 100]) / 1e3, "us");
    return 0;
}
