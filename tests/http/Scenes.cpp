#include "http/Scenes.h"

#include <algorithm>
#include <cmath>
#include <poll.h>

namespace zoltest
{

namespace
{

// The counters are functions of the time, so that they rise as those of a real gateway do and every run shows the same.
constexpr std::int64_t START_MS = 1790000000000;
constexpr std::uint64_t FRAME_BYTES = 196;

std::uint64_t counted(double dPerSecond, double dSeconds)
{
    const double dUneven = 5 * std::sin(dSeconds / 19) + 2 * std::sin(dSeconds / 7.3) + 0.3 * std::sin(dSeconds / 1.7);
    return static_cast<std::uint64_t>(dPerSecond * (dSeconds + dUneven));
}

/// A value from 0 to 1 that looks arbitrary and is always the same for one uiSeed.
double scatter(unsigned int uiSeed)
{
    uiSeed = (uiSeed ^ 61u) ^ (uiSeed >> 16);
    uiSeed *= 0x27d4eb2du;
    uiSeed ^= uiSeed >> 15;
    return static_cast<double>(uiSeed % 10007u) / 10007.0;
}

void addPipe(SZolGatewaySnapshot &oSnapshot, unsigned short usID, unsigned short usHandle)
{
    SZolPipeView oPipe;
    const auto uiIndex = static_cast<unsigned int>(oSnapshot.m_oPipes.size());
    oPipe.m_usProcID = usID;
    oPipe.m_usProcHandle = usHandle;
    oPipe.m_ulAddress = uiIndex % 3 == 0 ? 0x7f000001u : 0x0a000000u + ((uiIndex % 7) << 8) + 10 + uiIndex % 40;
    oPipe.m_usPort = static_cast<unsigned short>(32768 + (uiIndex * 613) % 28000);
    oPipe.m_lSinceMs = START_MS + static_cast<std::int64_t>(60000 * scatter(uiIndex + 5));
    oPipe.m_lSilentMs = static_cast<std::int64_t>(900 * scatter(uiIndex + 77));
    oPipe.m_ulQueueLimitBytes = 64u << 20;
    oSnapshot.m_oPipes.push_back(oPipe);
}

/// uiFrom sends dPerSecond frames to uiTo.
void addFlow(SZolGatewaySnapshot &oSnapshot, unsigned int uiFrom, unsigned int uiTo, double dPerSecond, double dSeconds)
{
    const std::uint64_t ulFrames = counted(dPerSecond, dSeconds);
    oSnapshot.m_oEdges.push_back({uiFrom, uiTo, ulFrames, ulFrames * FRAME_BYTES});
    oSnapshot.m_oPipes[uiFrom].m_ulFramesIn += ulFrames;
    oSnapshot.m_oPipes[uiFrom].m_ulBytesIn += ulFrames * FRAME_BYTES;
    oSnapshot.m_oPipes[uiTo].m_ulFramesOut += ulFrames;
    oSnapshot.m_oPipes[uiTo].m_ulBytesOut += ulFrames * FRAME_BYTES;
    oSnapshot.m_ulFramesIn += ulFrames;
    oSnapshot.m_ulBytesIn += ulFrames * FRAME_BYTES;
    oSnapshot.m_ulFramesOut += ulFrames;
    oSnapshot.m_ulBytesOut += ulFrames * FRAME_BYTES;
}

void addEvent(SZolGatewaySnapshot &oSnapshot, double dAtSecond, EnumZolEventLevel eLevel, const std::string &strText)
{
    const std::uint64_t ulNumber = oSnapshot.m_oEvents.size() + 1;
    oSnapshot.m_oEvents.push_back({ulNumber, START_MS + static_cast<std::int64_t>(dAtSecond * 1000), eLevel, strText});
}

void fillFrame(SZolGatewaySnapshot &oSnapshot, double dSeconds)
{
    oSnapshot.m_lStartedMs = START_MS;
    oSnapshot.m_lTakenMs = START_MS + static_cast<std::int64_t>(dSeconds * 1000);
    oSnapshot.m_ulQueueLimitBytes = 1u << 30;
    oSnapshot.m_uiPipesLimit = 10000;
    oSnapshot.m_oDrops = {{"no_route", 0},          {"slow_consumer", 0},     {"pipe_closed", 0},   {"unknown_type", 0},
                          {"forbidden_command", 0}, {"debug_not_allowed", 0}, {"foreign_source", 0}};
    oSnapshot.m_oRegistrations = {{"0", 0}, {"-1", 0}, {"-8", 0}, {"-9", 0}, {"-10", 0}};
    oSnapshot.m_oSettings = {{"ListenAddress", "127.0.0.1"}, {"ListenPort", "5566"}, {"SlowConsumer", "block"},
                             {"PipeQueueBytes", "67108864"}, {"DrainSeconds", "10"}, {"CheckSource", "off"}};
    addEvent(oSnapshot, 0, ZOL_EVENT_INFO, "listening on 127.0.0.1:5566");
}

/// The load of an ordinary day: a few front ends that ask, services that answer, a store that hears of everything.
void fillLoad(SZolGatewaySnapshot &oSnapshot, double dSeconds, unsigned int uiFronts, unsigned int uiServices)
{
    const auto uiAll = static_cast<unsigned int>(oSnapshot.m_oPipes.size());
    for (unsigned int uiFrom = 0; uiFrom < uiAll; ++uiFrom)
    {
        const bool bFront = uiFrom < uiFronts;
        for (unsigned int uiFlow = 0; uiFlow < (bFront ? 4u : 2u); ++uiFlow)
        {
            const double dPick = scatter(uiFrom * 31 + uiFlow);
            const unsigned int uiTo =
                bFront ? uiFronts + static_cast<unsigned int>(dPick * uiServices) : uiFrom % uiFronts;
            if (uiTo < uiAll && uiTo != uiFrom && (uiFlow == 0 || bFront))
            {
                addFlow(oSnapshot, uiFrom, uiTo, (bFront ? 900 : 240) * std::pow(scatter(uiFrom + uiFlow * 7), 2),
                        dSeconds);
            }
        }
        oSnapshot.m_oPipes[uiFrom].m_ulQueueBytes =
            scatter(uiFrom + 3) > 0.8 ? static_cast<std::uint64_t>(90000 * (1.2 + std::sin(dSeconds + uiFrom))) : 0;
        oSnapshot.m_ulQueueBytes += oSnapshot.m_oPipes[uiFrom].m_ulQueueBytes;
    }
    const double adShares[] = {0.05, 0.31, 0.34, 0.17, 0.08, 0.03, 0.012, 0.004, 0.0009, 0.0002};
    for (size_t uiBucket = 0; uiBucket < std::size(adShares); ++uiBucket)
    {
        oSnapshot.m_oLatency.m_aulCounts[uiBucket] = counted(9000 * adShares[uiBucket], dSeconds);
    }
    oSnapshot.m_oLatency.m_dSumSeconds = dSeconds * 0.31;
}

void addSubscriptions(SZolGatewaySnapshot &oSnapshot)
{
    for (unsigned int uiIndex = 0; uiIndex < oSnapshot.m_oPipes.size(); ++uiIndex)
    {
        const SZolPipeView &oPipe = oSnapshot.m_oPipes[uiIndex];
        for (unsigned int uiNext = 0; uiNext <= uiIndex % 3; ++uiNext)
        {
            const auto uiCommand = 20001 + static_cast<unsigned int>(scatter(uiIndex * 5 + uiNext) * 14);
            oSnapshot.m_oSubscriptions.push_back(
                {uiCommand, oPipe.m_usProcID, oPipe.m_usProcHandle, static_cast<unsigned char>(5 + uiNext), 1});
        }
    }
    oSnapshot.m_uiSubscriptions = static_cast<unsigned int>(oSnapshot.m_oSubscriptions.size());
}

void fillFifty(SZolGatewaySnapshot &oSnapshot, double dSeconds)
{
    for (unsigned short usIndex = 0; usIndex < 50; ++usIndex)
    {
        const auto usID = static_cast<unsigned short>(usIndex < 8 ? 10 : usIndex < 30 ? 20 : 31 + usIndex % 7);
        addPipe(oSnapshot, usID, static_cast<unsigned short>(1 + usIndex));
        const SZolPipeView &oPipe = oSnapshot.m_oPipes.back();
        addEvent(oSnapshot, static_cast<double>(oPipe.m_lSinceMs - START_MS) / 1000, ZOL_EVENT_INFO,
                 "process " + std::to_string(usID) + "." + std::to_string(1 + usIndex) + " registered");
    }
    fillLoad(oSnapshot, dSeconds, 8, 22);
    addSubscriptions(oSnapshot);
    std::sort(oSnapshot.m_oEvents.begin(), oSnapshot.m_oEvents.end(),
              [](const SZolEventView &oLeft, const SZolEventView &oRight)
              { return oLeft.m_lWhenMs < oRight.m_lWhenMs; });
    for (size_t uiIndex = 0; uiIndex < oSnapshot.m_oEvents.size(); ++uiIndex)
    {
        oSnapshot.m_oEvents[uiIndex].m_ulNumber = uiIndex + 1;
    }
    oSnapshot.m_oRegistrations[0].m_ulCount = 50;
}

void fillSlow(SZolGatewaySnapshot &oSnapshot, double dSeconds)
{
    fillFifty(oSnapshot, dSeconds);
    SZolPipeView &oSlow = oSnapshot.m_oPipes[12];
    oSlow.m_bSlow = true;
    oSlow.m_ulQueueBytes = (63u << 20) + 400000;
    oSlow.m_lSilentMs = 48000;
    oSnapshot.m_ulQueueBytes += oSlow.m_ulQueueBytes;
    for (const SZolEdgeView &oEdge : oSnapshot.m_oEdges)
    {
        oSnapshot.m_oPipes[oEdge.m_uiFrom].m_bHeld |= oEdge.m_uiTo == 12;
    }
    oSnapshot.m_oPipes[44].m_bSilent = true;
    oSnapshot.m_oPipes[44].m_lSilentMs = 41000;
    SZolPipeView &oLosing = oSnapshot.m_oPipes[33];
    oLosing.m_ulFramesDropped = counted(14, dSeconds);
    oSnapshot.m_oDrops[1].m_ulCount = oLosing.m_ulFramesDropped;
    oSnapshot.m_oDrops[0].m_ulCount = 7;
    oSnapshot.m_oRegistrations[3].m_ulCount = 2;
    addEvent(oSnapshot, 61, ZOL_EVENT_WARNING, "process 20.13 refused: its id and handle are in use (-9), 2 times");
    addEvent(oSnapshot, 64, ZOL_EVENT_ERROR, "process 20.13 is slow: 63 MiB wait for it, its senders are held back");
}

void fillMany(SZolGatewaySnapshot &oSnapshot, double dSeconds)
{
    for (unsigned int uiIndex = 0; uiIndex < 2000; ++uiIndex)
    {
        const auto usID = static_cast<unsigned short>(100 + std::pow(scatter(uiIndex), 1.7) * 64);
        addPipe(oSnapshot, usID, static_cast<unsigned short>(1 + uiIndex));
    }
    fillLoad(oSnapshot, dSeconds, 300, 1500);
    addSubscriptions(oSnapshot);
    oSnapshot.m_oRegistrations[0].m_ulCount = 2011;
}

/// What a hostile peer or a strange configuration could bring to the page.
void fillHostile(SZolGatewaySnapshot &oSnapshot, double dSeconds)
{
    fillFifty(oSnapshot, dSeconds);
    oSnapshot.m_oEvents.clear();
    addEvent(oSnapshot, 1, ZOL_EVENT_ERROR, "<img src=x onerror=\"document.title='owned'\">");
    addEvent(oSnapshot, 2, ZOL_EVENT_ERROR, "</script><script>document.title='owned'</script>");
    addEvent(oSnapshot, 3, ZOL_EVENT_WARNING, std::string("cut \xff\xc3 \xed\xa0\x80 and \0 nul \n line", 28));
    addEvent(oSnapshot, 4, ZOL_EVENT_INFO, std::string(4000, 'w'));
    oSnapshot.m_oSettings.push_back({"LogPath", "\"><b>bold</b>\\\t"});
}

} // namespace

bool fillScene(const std::string &strScene, double dSeconds, SZolGatewaySnapshot &oSnapshot)
{
    static const struct
    {
        const char *pcName;
        void (*pfnFill)(SZolGatewaySnapshot &, double);
    } aScenes[] = {{"idle", [](SZolGatewaySnapshot &, double) {}},
                   {"load", &fillFifty},
                   {"slow", &fillSlow},
                   {"many", &fillMany},
                   {"hostile", &fillHostile},
                   {"draining", &fillFifty}};
    for (const auto &oScene : aScenes)
    {
        if (strScene == oScene.pcName)
        {
            fillFrame(oSnapshot, dSeconds);
            oScene.pfnFill(oSnapshot, dSeconds);
            oSnapshot.m_bDraining = strScene == "draining";
            return true;
        }
    }
    return false;
}

CSceneThread::CSceneThread(CZolSnapshotExchange &oExchange, const std::string &strScene)
    : m_oExchange(oExchange), m_oThread([this, strScene] { run(strScene); })
{
}

CSceneThread::~CSceneThread()
{
    m_bEnd = true;
    m_oThread.join();
}

void CSceneThread::run(const std::string &strScene)
{
    const auto oStart = std::chrono::steady_clock::now();
    while (!m_bEnd)
    {
        pollfd oPoll = {m_oExchange.askedFd(), POLLIN, 0};
        if (poll(&oPoll, 1, 5) <= 0 || m_bStuck)
        {
            continue;
        }
        if (SZolGatewaySnapshot *const poAsked = m_oExchange.takeAsked())
        {
            const std::chrono::duration<double> oRun = std::chrono::steady_clock::now() - oStart;
            fillScene(strScene, 70 + oRun.count(), *poAsked);
            ++m_uiAnswered;
            m_oExchange.publish(poAsked);
        }
    }
}

} // namespace zoltest
