#include "gateway/watch/http/ZolStatusText.h"

#include <algorithm>
#include <cstdio>

namespace
{

void appendFamily(std::string &strOut, const char *pcName, const char *pcType, const char *pcHelp)
{
    strOut.append("# HELP zol_vek_").append(pcName).append(1, ' ').append(pcHelp);
    strOut.append("\n# TYPE zol_vek_").append(pcName).append(1, ' ').append(pcType).append(1, '\n');
}

void appendSample(std::string &strOut, const char *pcName, const std::string &strLabels, const std::string &strValue)
{
    strOut.append("zol_vek_").append(pcName).append(strLabels).append(1, ' ').append(strValue).append(1, '\n');
}

std::string decimal(double dValue)
{
    char acText[32];
    snprintf(acText, sizeof acText, "%.9g", dValue);
    return acText;
}

void appendOne(std::string &strOut, const char *pcName, const char *pcType, const char *pcHelp, std::uint64_t ulValue)
{
    appendFamily(strOut, pcName, pcType, pcHelp);
    appendSample(strOut, pcName, "", std::to_string(ulValue));
}

void appendCounts(std::string &strOut, const char *pcName, const char *pcHelp, const char *pcLabel,
                  const std::vector<SZolNamedCount> &oCounts)
{
    appendFamily(strOut, pcName, "counter", pcHelp);
    for (const SZolNamedCount &oCount : oCounts)
    {
        const std::string strLabels = std::string("{") + pcLabel + "=\"" + oCount.m_pcName + "\"}";
        appendSample(strOut, pcName, strLabels, std::to_string(oCount.m_ulCount));
    }
}

void appendLatency(std::string &strOut, const SZolLatencyView &oLatency)
{
    appendFamily(strOut, "loop_latency_seconds", "histogram", "Time of one turn of the routing loop.");
    std::uint64_t ulUpTo = 0;
    for (unsigned int uiBucket = 0; uiBucket <= SZolLatencyView::BUCKETS; ++uiBucket)
    {
        ulUpTo += oLatency.m_aulCounts[uiBucket];
        const std::string strBound =
            uiBucket == SZolLatencyView::BUCKETS ? "+Inf" : decimal(SZolLatencyView::sm_adBounds[uiBucket]);
        appendSample(strOut, "loop_latency_seconds_bucket", "{le=\"" + strBound + "\"}", std::to_string(ulUpTo));
    }
    appendSample(strOut, "loop_latency_seconds_sum", "", decimal(oLatency.m_dSumSeconds));
    appendSample(strOut, "loop_latency_seconds_count", "", std::to_string(ulUpTo));
}

void appendGauges(std::string &strOut, const SZolGatewaySnapshot &oSnapshot)
{
    const auto countPipes = [&oSnapshot](bool SZolPipeView::*pbFlag)
    {
        return static_cast<std::uint64_t>(std::count_if(oSnapshot.m_oPipes.begin(), oSnapshot.m_oPipes.end(),
                                                        [pbFlag](const SZolPipeView &oPipe) { return oPipe.*pbFlag; }));
    };
    appendOne(strOut, "draining", "gauge", "1 while the gateway shuts down, else 0.", oSnapshot.m_bDraining ? 1 : 0);
    appendOne(strOut, "pipes", "gauge", "Registered pipes.", oSnapshot.m_oPipes.size());
    appendOne(strOut, "pipes_limit", "gauge", "Most pipes that are accepted.", oSnapshot.m_uiPipesLimit);
    appendOne(strOut, "unregistered_connections", "gauge", "Accepted connections that have not registered yet.",
              oSnapshot.m_uiUnregistered);
    appendOne(strOut, "subscriptions", "gauge", "Subscriptions held.", oSnapshot.m_uiSubscriptions);
    appendOne(strOut, "queue_bytes", "gauge", "Bytes waiting to be written, all pipes together.",
              oSnapshot.m_ulQueueBytes);
    appendOne(strOut, "queue_limit_bytes", "gauge", "Most bytes that may wait, all pipes together.",
              oSnapshot.m_ulQueueLimitBytes);
    appendOne(strOut, "slow_consumers", "gauge", "Pipes that take their messages more slowly than they come.",
              countPipes(&SZolPipeView::m_bSlow));
    appendOne(strOut, "held_producers", "gauge",
              "Pipes that are not read: what they send to is slow, or they exceed their rate.",
              countPipes(&SZolPipeView::m_bHeld));
}

} // namespace

std::string zolMetricsText(const SZolGatewaySnapshot &oSnapshot)
{
    std::string strOut;
    strOut.reserve(8192);
    appendFamily(strOut, "build_info", "gauge", "Always 1; the label tells the version.");
    appendSample(strOut, "build_info", "{version=\"" ZOL_VERSION "\"}", "1");
    appendFamily(strOut, "start_time_seconds", "gauge", "Time of the start in seconds since the epoch.");
    appendSample(strOut, "start_time_seconds", "", std::to_string(oSnapshot.m_lStartedMs / 1000));

    appendOne(strOut, "frames_received_total", "counter", "Frames that processes sent.", oSnapshot.m_ulFramesIn);
    appendOne(strOut, "frames_sent_total", "counter", "Frames written to processes.", oSnapshot.m_ulFramesOut);
    appendOne(strOut, "received_bytes_total", "counter", "Bytes of frames received.", oSnapshot.m_ulBytesIn);
    appendOne(strOut, "sent_bytes_total", "counter", "Bytes of frames written.", oSnapshot.m_ulBytesOut);
    appendOne(strOut, "connections_total", "counter", "Connections accepted, registered or not.",
              oSnapshot.m_ulConnections);
    appendOne(strOut, "connections_refused_total", "counter",
              "Connections closed at once, since their address had its share.", oSnapshot.m_ulCrowdedOut);
    appendCounts(strOut, "frames_dropped_total", "Frames that reached nobody, by reason.", "reason",
                 oSnapshot.m_oDrops);
    appendCounts(strOut, "registrations_total", "Registration requests by the status that answered them.", "status",
                 oSnapshot.m_oRegistrations);
    appendGauges(strOut, oSnapshot);
    appendLatency(strOut, oSnapshot.m_oLatency);
    return strOut;
}
