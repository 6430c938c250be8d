#ifndef WORDCOUNT_READER_H
#define WORDCOUNT_READER_H

#include "Collector.h"
#include "zol.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace wordcount
{

/// Cuts the file into lines and deals them out to the tasks of the counters. The whole file goes through one handler:
/// a send waits while the process's send list is full, which is how the speed of the counters reaches this loop.
class CReader : public CZolTask
{
public:
    /// pFile is open for reading and closed by the destructor.
    CReader(std::FILE *pFile, SZolRun &oRun) : m_pFile(pFile), m_oRun(oRun) {}
    ~CReader() override;
    CReader(const CReader &) = delete;
    CReader &operator=(const CReader &) = delete;

    void respMsgProcess(const CZolMsgPdu *poMsg) override;

private:
    bool waitForCounters();
    bool sendFile();
    bool sendLines(std::string &strBuffer, bool bLast);
    bool sendLine(const char *pcLine, size_t uiLength, std::uint32_t ulCmdID);
    bool sendFinish();

    std::FILE *const m_pFile;
    SZolRun &m_oRun;
    std::uint64_t m_ulDealt = 0; // messages sent, which also says whose turn it is
    bool m_bInsideLine = false;  // the last one was a piece of a line that goes on
};

} // namespace wordcount

#endif
