#ifndef ALMANAC_JOURNAL_H
#define ALMANAC_JOURNAL_H

#include <map>
#include <mutex>
#include <string>

/// What is due when, and one printed line for each firing: when it came, when it was due, how late it was.
///
/// Threads: any; timers report on a thread of their task manager, clocks on the timer thread.
/// Units:   microseconds of the machine's clock, since the epoch.
class CJournal
{
public:
    static CJournal &instance();

    static long long now();
    static void printHeadline();

    /// A timer or clock with that id is due at llDue, and then every llInterval; 0 for once in the life of this
    /// program.
    void expect(unsigned long ulId, const std::string &strName, long long llDue, long long llInterval);

    void fired(unsigned long ulId);

    /// Whether everything that was expected has fired at least once; names what has not.
    bool isComplete();

private:
    struct SEntry
    {
        std::string m_strName;
        long long m_llDue = 0;
        long long m_llInterval = 0;
        unsigned int m_uiFired = 0;
    };

    std::mutex m_oLock;                         // leaf
    std::map<unsigned long, SEntry> m_oEntries; // guarded by m_oLock
};

#endif
