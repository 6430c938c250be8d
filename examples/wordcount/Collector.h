#ifndef WORDCOUNT_COLLECTOR_H
#define WORDCOUNT_COLLECTOR_H

#include "Words.h"
#include "zol.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace wordcount
{

/// How the run stands: written by the reader's task, read by the collector's, which runs on another thread.
struct SZolRun
{
    std::uint64_t m_ulFileBytes = 0;                               // fixed before the threads run
    std::atomic<std::chrono::steady_clock::time_point> m_oStart{}; // set before the first line is sent
    std::atomic<std::uint64_t> m_ulBytes{0};                       // read from the file
    std::atomic<std::uint64_t> m_ulSent{0};                        // messages sent
    std::atomic<bool> m_bAllSent{false};
    std::atomic<bool> m_bFailed{false}; // the reader gave up
    std::atomic<bool> m_bDone{false};   // the result is written and no message is missing
};

/// Shows the progress, merges the counts of the counters' tasks, prints the result and writes all counts to a file.
class CCollector : public CZolTask
{
public:
    CCollector(SZolRun &oRun, std::string strResultFile) : m_oRun(oRun), m_strResultFile(std::move(strResultFile)) {}

    void respMsgProcess(const CZolMsgPdu *poMsg) override;
    void timerCallBack(unsigned long ulTimerID) override;

private:
    void merge(std::string_view strText);
    void showProgress() const;
    void finish();
    void fail();
    void printResult(double dSeconds) const;
    bool writeResult() const;

    SZolRun &m_oRun;
    const std::string m_strResultFile;
    CWords m_oWords;
    std::uint64_t m_ulCounted = 0; // messages that the counters have reported
    unsigned int m_uiReports = 0;  // tasks whose counts are in m_oWords
};

} // namespace wordcount

#endif
