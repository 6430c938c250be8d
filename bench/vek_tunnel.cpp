// R3 tunnel: what a tunnel costs one who sends through it. Rate and round trip of 128-byte frames from one process to
// another that is beside the gateway, in turns straight and through a tunnel; bench/tunnel starts the tunnel.
//   bench_vek_tunnel gateway-port tunnel-port [frames] [round trips] [rounds]

#include "VekPeer.h"

#include <algorithm>
#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

using namespace vekbench;

namespace
{

const std::uint32_t PAYLOAD = 100;
const std::size_t FRAME_BYTES = HEADER_BYTES + PAYLOAD;

struct SResult
{
    double m_dRate;
    double m_dMedianUs;
    double m_dP99Us;
};

double rate(unsigned short usGateway, unsigned short usSender, std::uint32_t uiCount)
{
    const int iReceiver = connectAs(usGateway, RECEIVER);
    const pid_t iSender = spawn(
        [&]
        {
            const int iSocket = connectAs(usSender, SENDER);
            sendFrames(iSocket, SAddress(), PAYLOAD, uiCount);
            char cEnd = 0;
            readAll(iSocket, &cEnd, 1); // the last frame comes back as a sign that all have been taken
        });
    const std::uint64_t ulNs = receiveFrames(iReceiver, PAYLOAD, uiCount);
    char acFrame[FRAME_BYTES];
    fillFrame(acFrame, {2, RECEIVER, SENDER}, PAYLOAD, 0, 0);
    writeAll(iReceiver, acFrame, sizeof acFrame);
    waitFor(iSender);
    close(iReceiver);
    return static_cast<double>(uiCount) * 1e9 / static_cast<double>(ulNs);
}

/// Times of single round trips in nanoseconds, sorted.
std::vector<std::uint64_t> roundTrips(unsigned short usGateway, unsigned short usCaller, std::uint32_t uiCount)
{
    const int iAnswerer = connectAs(usGateway, RECEIVER);
    const pid_t iPid = spawn(
        [&]
        {
            char acFrame[FRAME_BYTES];
            for (std::uint32_t uiNumber = 0; uiNumber < uiCount; ++uiNumber)
            {
                readAll(iAnswerer, acFrame, sizeof acFrame);
                const std::uint64_t ulStamp = checkFrame(acFrame, PAYLOAD, uiNumber);
                fillFrame(acFrame, {2, RECEIVER, SENDER}, PAYLOAD, uiNumber, ulStamp);
                writeAll(iAnswerer, acFrame, sizeof acFrame);
            }
        });
    const int iCaller = connectAs(usCaller, SENDER);
    std::vector<std::uint64_t> oTimes;
    char acFrame[FRAME_BYTES];
    for (std::uint32_t uiNumber = 0; uiNumber < uiCount; ++uiNumber)
    {
        const std::uint64_t ulStart = nowNs();
        fillFrame(acFrame, SAddress(), PAYLOAD, uiNumber, ulStart);
        writeAll(iCaller, acFrame, sizeof acFrame);
        readAll(iCaller, acFrame, sizeof acFrame);
        require(checkFrame(acFrame, PAYLOAD, uiNumber) == ulStart, "the answer to this frame");
        oTimes.push_back(nowNs() - ulStart);
    }
    waitFor(iPid);
    close(iCaller);
    close(iAnswerer);
    std::sort(oTimes.begin(), oTimes.end());
    return oTimes;
}

double median(std::vector<SResult> oResults, double SResult::*pdWhat)
{
    std::sort(oResults.begin(), oResults.end(),
              [pdWhat](const SResult &oLeft, const SResult &oRight) { return oLeft.*pdWhat < oRight.*pdWhat; });
    return oResults[oResults.size() / 2].*pdWhat;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
    {
        fputs("bench_vek_tunnel: nothing done, bench/tunnel starts a tunnel and this\n", stderr);
        return 0;
    }
    const auto usGateway = static_cast<unsigned short>(argument(argc, argv, 1, 0));
    const auto usTunnel = static_cast<unsigned short>(argument(argc, argv, 2, 0));
    require(usGateway != 0 && usTunnel != 0, "two ports");
    const auto uiFrames = static_cast<std::uint32_t>(argument(argc, argv, 3, 1000000));
    const auto uiRoundTrips = static_cast<std::uint32_t>(argument(argc, argv, 4, 10000));
    const std::size_t ulRounds = argument(argc, argv, 5, 5);
    std::vector<SResult> aoResults[2];
    for (std::size_t ulRound = 0; ulRound < ulRounds; ++ulRound)
    {
        for (const std::size_t ulWay : {std::size_t{0}, std::size_t{1}})
        {
            const unsigned short usPort = ulWay == 0 ? usGateway : usTunnel;
            const double dRate = rate(usGateway, usPort, uiFrames);
            const std::vector<std::uint64_t> oTimes = roundTrips(usGateway, usPort, uiRoundTrips);
            aoResults[ulWay].push_back({dRate, static_cast<double>(oTimes[oTimes.size() / 2]) / 1e3,
                                        static_cast<double>(oTimes[oTimes.size() * 99 / 100]) / 1e3});
        }
    }
    for (const std::size_t ulWay : {std::size_t{0}, std::size_t{1}})
    {
        const std::string strGroup = ulWay == 0 ? "R3 straight/zol" : "R3 tunnel/zol";
        report(strGroup, "rate", median(aoResults[ulWay], &SResult::m_dRate), "msg/s");
        report(strGroup, "round trip median", median(aoResults[ulWay], &SResult::m_dMedianUs), "us");
        report(strGroup, "round trip p99", median(aoResults[ulWay], &SResult::m_dP99Us), "us");
    }
    return 0;
}
