// R3 stopped: round trips between two processes through the gateway, first while a third process takes all that a
// fourth sends it, then while that third one is stopped. A stopped process must not delay processes that send nothing
// to it.
//   bench_vek_stopped [round trips]

#include "VekPeer.h"

#include <algorithm>
#include <csignal>
#include <unistd.h>

using namespace vekbench;

namespace
{

const std::uint32_t PAYLOAD = 100;

/// p99 in microseconds.
double roundTrips(int iAsker, std::uint32_t uiFirst, std::uint32_t uiCount)
{
    char acFrame[HEADER_BYTES + PAYLOAD];
    std::vector<std::uint64_t> oNs;
    for (std::uint32_t i = 0; i < uiCount; ++i)
    {
        const std::uint64_t ulStart = nowNs();
        fillFrame(acFrame, SAddress(), PAYLOAD, uiFirst + i, ulStart);
        writeAll(iAsker, acFrame, sizeof acFrame);
        readAll(iAsker, acFrame, sizeof acFrame);
        checkFrame(acFrame, PAYLOAD, uiFirst + i);
        oNs.push_back(nowNs() - ulStart);
    }
    std::sort(oNs.begin(), oNs.end());
    return static_cast<double>(oNs[oNs.size() * 99 / 100]) / 1e3;
}

} // namespace

int main(int argc, char **argv)
{
    const auto uiCount = static_cast<std::uint32_t>(argument(argc, argv, 1, 10000));
    const std::uint16_t usThird = RECEIVER + 1;
    const std::uint16_t usFourth = SENDER + 1;
    const CGateway oGateway;
    const int iAsker = connectAs(oGateway.port(), SENDER);
    const int iEcho = connectAs(oGateway.port(), RECEIVER);
    const pid_t iEchoPid = spawn(
        [&]
        {
            char acFrame[HEADER_BYTES + PAYLOAD];
            for (std::uint32_t i = 0; i < 2 * uiCount; ++i)
            {
                readAll(iEcho, acFrame, sizeof acFrame);
                checkFrame(acFrame, PAYLOAD, i);
                fillFrame(acFrame, {2, RECEIVER, SENDER}, PAYLOAD, i, 0);
                writeAll(iEcho, acFrame, sizeof acFrame);
            }
        });
    const int iThird = connectAs(oGateway.port(), usThird);
    const pid_t iThirdPid = spawn(
        [&]
        {
            char acPart[65536];
            while (read(iThird, acPart, sizeof acPart) > 0)
            {
            }
        });
    const int iFourth = connectAs(oGateway.port(), usFourth);
    const pid_t iFourthPid = spawn(
        [&]
        {
            for (;;) // a steady trickle, so that the processors are not what is measured
            {
                sendFrames(iFourth, {1, usFourth, usThird}, PAYLOAD, 100);
                usleep(1000);
            }
        });
    const double dBefore = roundTrips(iAsker, 0, uiCount);
    kill(iThirdPid, SIGSTOP);
    const double dAfter = roundTrips(iAsker, uiCount, uiCount);
    waitFor(iEchoPid);
    for (const pid_t iPid : {iThirdPid, iFourthPid})
    {
        kill(iPid, SIGKILL);
    }
    report("R3 stopped/zol", "rtt p99 all read", dBefore, "us");
    report("R3 stopped/zol", "rtt p99 one stopped", dAfter, "us");
    return 0;
}
