#include "gateway/watch/http/ZolStatusText.h"

#include <charconv>
#include <cstdio>

namespace
{

/// Puts JSON together without a tree: the caller opens and closes in the right order. Names are literals that need no
/// escaping.
class CJsonText
{
public:
    explicit CJsonText(std::string &strOut) : m_strOut(strOut) {}

    void open(const char *pcName, char cBracket)
    {
        name(pcName);
        m_strOut.push_back(cBracket);
    }

    void close(char cBracket)
    {
        if (m_strOut.back() == ',')
        {
            m_strOut.pop_back();
        }
        m_strOut.push_back(cBracket);
        m_strOut.push_back(',');
    }

    template <typename Number>
    void number(const char *pcName, Number iValue)
    {
        char acText[24];
        name(pcName);
        const auto oResult = std::to_chars(acText, acText + sizeof acText, iValue);
        m_strOut.append(acText, oResult.ptr);
        m_strOut.push_back(',');
    }

    void decimal(const char *pcName, double dValue)
    {
        char acText[32];
        name(pcName);
        snprintf(acText, sizeof acText, "%.9g", dValue);
        m_strOut.append(acText).push_back(',');
    }

    void flag(const char *pcName, bool bValue)
    {
        name(pcName);
        m_strOut.append(bValue ? "true," : "false,");
    }

    void text(const char *pcName, const std::string &strText)
    {
        name(pcName);
        zolAppendJsonString(m_strOut, strText);
        m_strOut.push_back(',');
    }

private:
    void name(const char *pcName) // null inside a list
    {
        if (pcName != nullptr)
        {
            m_strOut.append(1, '"').append(pcName).append("\":");
        }
    }

    std::string &m_strOut;
};

std::string addressText(const SZolPipeView &oPipe)
{
    char acText[32];
    snprintf(acText, sizeof acText, "%u.%u.%u.%u:%u", oPipe.m_ulAddress >> 24, (oPipe.m_ulAddress >> 16) & 0xff,
             (oPipe.m_ulAddress >> 8) & 0xff, oPipe.m_ulAddress & 0xff, static_cast<unsigned int>(oPipe.m_usPort));
    return acText;
}

void appendTotals(CJsonText &oJson, const SZolGatewaySnapshot &oSnapshot)
{
    oJson.open("totals", '{');
    oJson.number("frames_in", oSnapshot.m_ulFramesIn);
    oJson.number("bytes_in", oSnapshot.m_ulBytesIn);
    oJson.number("frames_out", oSnapshot.m_ulFramesOut);
    oJson.number("bytes_out", oSnapshot.m_ulBytesOut);
    oJson.number("queue_bytes", oSnapshot.m_ulQueueBytes);
    oJson.number("queue_limit_bytes", oSnapshot.m_ulQueueLimitBytes);
    oJson.number("pipes", oSnapshot.m_oPipes.size());
    oJson.number("pipes_limit", oSnapshot.m_uiPipesLimit);
    oJson.number("connections", oSnapshot.m_ulConnections);
    oJson.number("connections_refused", oSnapshot.m_ulCrowdedOut);
    oJson.number("unregistered", oSnapshot.m_uiUnregistered);
    oJson.number("subscriptions", oSnapshot.m_uiSubscriptions);
    oJson.number("edge_frames_left_out", oSnapshot.m_ulEdgeFramesLeftOut);
    oJson.close('}');
}

void appendCounts(CJsonText &oJson, const char *pcName, const std::vector<SZolNamedCount> &oCounts)
{
    oJson.open(pcName, '{');
    for (const SZolNamedCount &oCount : oCounts)
    {
        oJson.number(oCount.m_pcName, oCount.m_ulCount);
    }
    oJson.close('}');
}

void appendLatency(CJsonText &oJson, const SZolLatencyView &oLatency)
{
    oJson.open("loop_latency", '{');
    oJson.open("bounds_seconds", '[');
    for (const double dBound : SZolLatencyView::sm_adBounds)
    {
        oJson.decimal(nullptr, dBound);
    }
    oJson.close(']');
    oJson.open("counts", '[');
    for (const std::uint64_t ulCount : oLatency.m_aulCounts)
    {
        oJson.number(nullptr, ulCount);
    }
    oJson.close(']');
    oJson.decimal("sum_seconds", oLatency.m_dSumSeconds);
    oJson.close('}');
}

void appendPipe(CJsonText &oJson, const SZolPipeView &oPipe)
{
    oJson.open(nullptr, '{');
    oJson.number("id", oPipe.m_usProcID);
    oJson.number("handle", oPipe.m_usProcHandle);
    oJson.text("address", addressText(oPipe));
    oJson.number("since_ms", oPipe.m_lSinceMs);
    oJson.number("silent_ms", oPipe.m_lSilentMs);
    oJson.number("frames_in", oPipe.m_ulFramesIn);
    oJson.number("bytes_in", oPipe.m_ulBytesIn);
    oJson.number("frames_out", oPipe.m_ulFramesOut);
    oJson.number("bytes_out", oPipe.m_ulBytesOut);
    oJson.number("dropped", oPipe.m_ulFramesDropped);
    oJson.number("queue_bytes", oPipe.m_ulQueueBytes);
    oJson.number("queue_limit_bytes", oPipe.m_ulQueueLimitBytes);
    oJson.flag("slow", oPipe.m_bSlow);
    oJson.flag("held", oPipe.m_bHeld);
    oJson.flag("silent", oPipe.m_bSilent);
    oJson.close('}');
}

void appendPipesAndEdges(CJsonText &oJson, const SZolGatewaySnapshot &oSnapshot)
{
    oJson.open("pipes", '[');
    for (const SZolPipeView &oPipe : oSnapshot.m_oPipes)
    {
        appendPipe(oJson, oPipe);
    }
    oJson.close(']');
    oJson.open("edges", '[');
    for (const SZolEdgeView &oEdge : oSnapshot.m_oEdges)
    {
        oJson.open(nullptr, '{');
        oJson.number("from", oEdge.m_uiFrom);
        oJson.number("to", oEdge.m_uiTo);
        oJson.number("frames", oEdge.m_ulFrames);
        oJson.number("bytes", oEdge.m_ulBytes);
        oJson.close('}');
    }
    oJson.close(']');
}

void appendSubscriptions(CJsonText &oJson, const SZolGatewaySnapshot &oSnapshot)
{
    oJson.open("subscriptions", '[');
    for (const SZolSubscriptionView &oView : oSnapshot.m_oSubscriptions)
    {
        oJson.open(nullptr, '{');
        oJson.number("command", oView.m_ulCmdID);
        oJson.number("id", oView.m_usProcID);
        oJson.number("handle", oView.m_usProcHandle);
        oJson.number("module", static_cast<unsigned int>(oView.m_ucModule));
        oJson.number("task", oView.m_usSubModuleId);
        oJson.close('}');
    }
    oJson.close(']');
}

void appendEventsAndSettings(CJsonText &oJson, const SZolGatewaySnapshot &oSnapshot)
{
    static const char *const apcLevels[] = {"info", "warning", "error"};
    oJson.open("events", '[');
    for (const SZolEventView &oEvent : oSnapshot.m_oEvents)
    {
        oJson.open(nullptr, '{');
        oJson.number("number", oEvent.m_ulNumber);
        oJson.number("when_ms", oEvent.m_lWhenMs);
        oJson.text("level", apcLevels[oEvent.m_eLevel]);
        oJson.text("text", oEvent.m_strText);
        oJson.close('}');
    }
    oJson.close(']');
    oJson.open("settings", '{');
    for (const SZolSettingView &oSetting : oSnapshot.m_oSettings)
    {
        oJson.text(oSetting.m_pcName, oSetting.m_strValue);
    }
    oJson.close('}');
}

/// Length of the UTF-8 sequence that begins at uiAt, 0 if there is none.
size_t utf8Length(const std::string &strText, size_t uiAt)
{
    const auto byteAt = [&strText](size_t uiIndex) -> unsigned int
    { return uiIndex < strText.size() ? static_cast<unsigned char>(strText[uiIndex]) : 0u; };
    const unsigned int uiFirst = byteAt(uiAt);
    const unsigned int uiSecond = byteAt(uiAt + 1);
    if (uiFirst < 0x80)
    {
        return 1;
    }
    const size_t uiLength = uiFirst >= 0xf0 ? 4 : uiFirst >= 0xe0 ? 3 : 2;
    // overlong forms, surrogates and what lies above U+10FFFF are told by the first two bytes
    if (uiFirst < 0xc2 || uiFirst > 0xf4 || (uiFirst == 0xe0 && uiSecond < 0xa0) ||
        (uiFirst == 0xed && uiSecond > 0x9f) || (uiFirst == 0xf0 && uiSecond < 0x90) ||
        (uiFirst == 0xf4 && uiSecond > 0x8f))
    {
        return 0;
    }
    for (size_t uiNext = 1; uiNext < uiLength; ++uiNext)
    {
        if ((byteAt(uiAt + uiNext) & 0xc0) != 0x80)
        {
            return 0;
        }
    }
    return uiLength;
}

void appendAscii(std::string &strOut, char cByte)
{
    if (cByte == '"' || cByte == '\\')
    {
        strOut.append(1, '\\').push_back(cByte);
    }
    else if (static_cast<unsigned char>(cByte) < 0x20 || cByte == 0x7f || cByte == '<')
    {
        char acText[8];
        snprintf(acText, sizeof acText, "\\u%04x", static_cast<unsigned int>(static_cast<unsigned char>(cByte)));
        strOut.append(acText);
    }
    else
    {
        strOut.push_back(cByte);
    }
}

} // namespace

void zolAppendJsonString(std::string &strOut, const std::string &strText)
{
    strOut.push_back('"');
    for (size_t uiAt = 0; uiAt < strText.size();)
    {
        const size_t uiLength = utf8Length(strText, uiAt);
        if (uiLength == 1)
        {
            appendAscii(strOut, strText[uiAt]);
        }
        else if (uiLength == 0)
        {
            strOut.append("\\ufffd");
        }
        else
        {
            strOut.append(strText, uiAt, uiLength);
        }
        uiAt += uiLength == 0 ? 1 : uiLength;
    }
    strOut.push_back('"');
}

std::string zolStatusJson(const SZolGatewaySnapshot &oSnapshot)
{
    std::string strOut;
    strOut.reserve(4096 + oSnapshot.m_oPipes.size() * 320 + oSnapshot.m_oEdges.size() * 64 +
                   oSnapshot.m_oSubscriptions.size() * 80);
    CJsonText oJson(strOut);
    oJson.open(nullptr, '{');
    oJson.text("version", ZOL_VERSION);
    oJson.number("taken_ms", oSnapshot.m_lTakenMs);
    oJson.number("started_ms", oSnapshot.m_lStartedMs);
    oJson.decimal("uptime_seconds", static_cast<double>(oSnapshot.m_lTakenMs - oSnapshot.m_lStartedMs) / 1000.0);
    oJson.flag("draining", oSnapshot.m_bDraining);
    appendTotals(oJson, oSnapshot);
    appendCounts(oJson, "drops", oSnapshot.m_oDrops);
    appendCounts(oJson, "registrations", oSnapshot.m_oRegistrations);
    appendLatency(oJson, oSnapshot.m_oLatency);
    appendPipesAndEdges(oJson, oSnapshot);
    appendSubscriptions(oJson, oSnapshot);
    appendEventsAndSettings(oJson, oSnapshot);
    oJson.close('}');
    strOut.back() = '\n'; // the comma that close() leaves for the next member
    return strOut;
}
