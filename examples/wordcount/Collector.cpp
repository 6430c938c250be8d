#include "Collector.h"

#include "Protocol.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace wordcount
{

void CCollector::respMsgProcess(const CZolMsgPdu *poMsg)
{
    const std::string_view strBody(zolPayload(poMsg), poMsg->m_ulDataLength);
    if (poMsg->m_ulCmdID == CMD_PROGRESS)
    {
        m_ulCounted += std::strtoull(std::string(strBody).c_str(), nullptr, 10);
    }
    else if (poMsg->m_ulCmdID == CMD_COUNTS)
    {
        merge(strBody);
    }
}

void CCollector::timerCallBack(unsigned long)
{
    if (!m_oRun.m_bDone)
    {
        showProgress();
    }
}

void CCollector::merge(std::string_view strText)
{
    if (!m_oWords.addText(strText))
    {
        std::fprintf(stderr, "wordcount: damaged counts\n");
        fail();
        return;
    }
    if (++m_uiReports == COUNTER_PROCESSES * COUNTER_TASKS)
    {
        finish();
    }
}

void CCollector::showProgress() const
{
    const std::uint64_t ulBytes = m_oRun.m_ulBytes;
    const auto uiPercent = static_cast<unsigned int>(
        m_oRun.m_ulFileBytes == 0 ? 100 : std::min<std::uint64_t>(100, ulBytes * 100 / m_oRun.m_ulFileBytes));
    std::printf("progress: %u %% read, %llu messages sent, %llu counted\n", uiPercent,
                static_cast<unsigned long long>(m_oRun.m_ulSent), static_cast<unsigned long long>(m_ulCounted));
    std::fflush(stdout);
}

void CCollector::finish()
{
    const std::chrono::duration<double> oTaken = std::chrono::steady_clock::now() - m_oRun.m_oStart.load();
    showProgress();
    printResult(std::max(oTaken.count(), 1e-6));
    const std::uint64_t ulSent = m_oRun.m_ulSent;
    if (m_oWords.messages() != ulSent)
    {
        std::fprintf(stderr, "wordcount: %llu messages sent but %llu counted\n",
                     static_cast<unsigned long long>(ulSent), static_cast<unsigned long long>(m_oWords.messages()));
        fail();
        return;
    }
    if (!writeResult())
    {
        std::fprintf(stderr, "wordcount: cannot write %s\n", m_strResultFile.c_str());
        fail();
        return;
    }
    m_oRun.m_bDone = true;
}

void CCollector::printResult(double dSeconds) const
{
    const auto oSorted = m_oWords.sorted();
    std::printf("most frequent words:\n");
    for (size_t uiAt = 0; uiAt < std::min<size_t>(10, oSorted.size()); ++uiAt)
    {
        std::printf("%10llu %s\n", static_cast<unsigned long long>(oSorted[uiAt].second), oSorted[uiAt].first.c_str());
    }
    std::printf("\ntotal: %llu lines, %llu words, %llu different\n", static_cast<unsigned long long>(m_oWords.lines()),
                static_cast<unsigned long long>(m_oWords.words()),
                static_cast<unsigned long long>(m_oWords.distinct()));
    std::printf("speed: %.0f messages per second (%llu in %.2f s)\n", static_cast<double>(m_oWords.lines()) / dSeconds,
                static_cast<unsigned long long>(m_oWords.lines()), dSeconds);
    std::fflush(stdout);
}

// handleEvents of the process returns, and main gives code 1.
void CCollector::fail()
{
    m_oRun.m_bFailed = true;
    CZolAppMgr::instance()->exitThreads();
}

// Under another name first, so that whoever waits for the file finds it whole.
bool CCollector::writeResult() const
{
    const std::string strPart = m_strResultFile + ".part";
    std::FILE *const pFile = std::fopen(strPart.c_str(), "we");
    if (pFile == nullptr)
    {
        return false;
    }
    for (const auto &oEntry : m_oWords.sorted())
    {
        std::fprintf(pFile, "%llu %s\n", static_cast<unsigned long long>(oEntry.second), oEntry.first.c_str());
    }
    const bool bWritten = std::ferror(pFile) == 0;
    return std::fclose(pFile) == 0 && bWritten && std::rename(strPart.c_str(), m_strResultFile.c_str()) == 0;
}

} // namespace wordcount
