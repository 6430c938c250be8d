#include "gateway/watch/http/ZolStatusText.h"
#include "http/Scenes.h"
#include "support/Installation.h"

#include <gtest/gtest.h>

using zoltest::countOf;

// Event texts carry names from the network and from files: none of them may end a string early, break the encoding or
// smuggle markup in.
TEST(StatusTextTest, EscapesWhateverAnEventSays)
{
    const struct
    {
        const char *pcName;
        std::string strText;
        const char *pcExpected;
    } aCases[] = {
        {"plain", "pipe 7.1 up", R"("pipe 7.1 up")"},
        {"quote and backslash", R"(a"b\c)", R"("a\"b\\c")"},
        {"control characters", std::string("\n\t\0\x1f\x7f", 5), R"("\u000a\u0009\u0000\u001f\u007f")"},
        {"markup", "</script>", R"("\u003c/script>")"},
        {"valid two to four bytes", "\u00fc\u20ac\U0001f600", "\"\u00fc\u20ac\U0001f600\""},
        {"lonely continuation", "\x80", R"("\ufffd")"},
        {"cut at the end", "a\xe2\x82", R"("a\ufffd\ufffd")"},
        {"cut by a letter", "\xe2\x82z", R"("\ufffd\ufffdz")"},
        {"overlong slash", "\xc0\xaf", R"("\ufffd\ufffd")"},
        {"overlong of three", "\xe0\x80\xaf", R"("\ufffd\ufffd\ufffd")"},
        {"surrogate", "\xed\xa0\x80", R"("\ufffd\ufffd\ufffd")"},
        {"above the last character", "\xf4\x90\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd")"},
        {"no such byte", "\xff\xfe", R"("\ufffd\ufffd")"},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        std::string strOut;
        zolAppendJsonString(strOut, oCase.strText);
        EXPECT_EQ(oCase.pcExpected, strOut);
    }
}

TEST(StatusTextTest, JsonOfAnEmptyGatewayHasNoStrayCommas)
{
    SZolGatewaySnapshot oSnapshot;
    const std::string strJson = zolStatusJson(oSnapshot);
    for (const char *pcWrong : {",}", ",]", "{,", "[,", ",,"})
    {
        EXPECT_EQ(0u, countOf(strJson, pcWrong)) << pcWrong;
    }
    EXPECT_NE(std::string::npos, strJson.find(R"("pipes":[],"edges":[],"subscriptions":[],"events":[])"));
    EXPECT_EQ("}\n", strJson.substr(strJson.size() - 2));
}

TEST(StatusTextTest, HistogramIsCumulativeAndEndsAtItsCount)
{
    SZolGatewaySnapshot oSnapshot;
    oSnapshot.m_oLatency.m_aulCounts[0] = 3;
    oSnapshot.m_oLatency.m_aulCounts[2] = 4;
    oSnapshot.m_oLatency.m_aulCounts[SZolLatencyView::BUCKETS] = 1;
    oSnapshot.m_oLatency.m_dSumSeconds = 3.25;
    const std::string strText = zolMetricsText(oSnapshot);
    for (const char *pcLine :
         {"zol_vek_loop_latency_seconds_bucket{le=\"1e-05\"} 3\n",
          "zol_vek_loop_latency_seconds_bucket{le=\"2.5e-05\"} 3\n",
          "zol_vek_loop_latency_seconds_bucket{le=\"5e-05\"} 7\n",
          "zol_vek_loop_latency_seconds_bucket{le=\"2.5\"} 7\n", "zol_vek_loop_latency_seconds_bucket{le=\"+Inf\"} 8\n",
          "zol_vek_loop_latency_seconds_count 8\n", "zol_vek_loop_latency_seconds_sum 3.25\n"})
    {
        EXPECT_EQ(1u, countOf(strText, pcLine)) << pcLine;
    }
}

// One process more must not make one line more: that is what ruins the store of whoever scrapes.
TEST(StatusTextTest, MetricsDoNotGrowWithTheProcesses)
{
    SZolGatewaySnapshot oFew;
    SZolGatewaySnapshot oMany;
    ASSERT_TRUE(zoltest::fillScene("load", 90, oFew));
    ASSERT_TRUE(zoltest::fillScene("many", 90, oMany));
    EXPECT_EQ(countOf(zolMetricsText(oFew), "\n"), countOf(zolMetricsText(oMany), "\n"));
    EXPECT_EQ(1u, countOf(zolMetricsText(oMany), "zol_vek_pipes 2000\n"));
}
