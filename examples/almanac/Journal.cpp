#include "Journal.h"

#include <cstdio>
#include <ctime>
#include <sys/time.h>

namespace
{

std::string clockTime(long long llMicros)
{
    const time_t lSeconds = llMicros / 1000000;
    struct tm oLocal = {};
    localtime_r(&lSeconds, &oLocal);
    char acText[32];
    std::snprintf(acText, sizeof acText, "%02d:%02d:%02d.%03d", oLocal.tm_hour, oLocal.tm_min, oLocal.tm_sec,
                  static_cast<int>(llMicros / 1000 % 1000));
    return acText;
}

} // namespace

CJournal &CJournal::instance()
{
    static CJournal *const poInstance = new CJournal; // the timer thread reports until the process has gone
    return *poInstance;
}

long long CJournal::now()
{
    struct timeval oNow = {};
    gettimeofday(&oNow, nullptr);
    return oNow.tv_sec * 1000000LL + oNow.tv_usec;
}

void CJournal::printHeadline()
{
    std::printf("%-12s  %2s  %-28s  %-12s  %s\n", "fired", "id", "timer", "due", "late");
}

void CJournal::expect(unsigned long ulId, const std::string &strName, long long llDue, long long llInterval)
{
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    m_oEntries[ulId] = {strName, llDue, llInterval, 0};
}

void CJournal::fired(unsigned long ulId)
{
    const long long llNow = now();
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    const auto it = m_oEntries.find(ulId);
    if (it == m_oEntries.end())
    {
        return;
    }
    SEntry &oEntry = it->second;
    std::printf("%s  %2lu  %-28s  %s  %+.3f ms\n", clockTime(llNow).c_str(), ulId, oEntry.m_strName.c_str(),
                clockTime(oEntry.m_llDue).c_str(), static_cast<double>(llNow - oEntry.m_llDue) / 1000);
    ++oEntry.m_uiFired;
    oEntry.m_llDue += oEntry.m_llInterval;
}

bool CJournal::isComplete()
{
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    bool bComplete = true;
    for (const auto &oEntry : m_oEntries)
    {
        if (oEntry.second.m_uiFired == 0)
        {
            std::printf("not fired: %s\n", oEntry.second.m_strName.c_str());
            bComplete = false;
        }
    }
    return bComplete;
}
