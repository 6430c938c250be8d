#ifndef ZOL_TASK_ZOLTASKTHREADS_H
#define ZOL_TASK_ZOLTASKTHREADS_H

#include "ZolTaskMgr.h"

#include <ace/Manual_Event.h>
#include <atomic>
#include <cstdint>
#include <memory>

/// An entry of the table of threads, and what its thread is doing, for the watchdog. Each has a cache line to itself,
/// since its thread writes it for every message.
struct alignas(64) SZolThreadRecord : SZolThreadEntry
{
    std::atomic<std::uint32_t> m_uiRun{0};      // grows when a handler begins and when it ends: odd while it runs
    std::atomic<std::uint32_t> m_ulRunCmd{0};   // command of its message
    std::atomic<unsigned short> m_usRunTask{0}; // id of its task
    std::uint32_t m_uiWatchedRun = 0;           // the watchdog's own: m_uiRun as last seen,
    std::uint64_t m_ulWatchedSinceMs = 0;       // when it was first seen,
    bool m_bNamed = false;                      // and whether it has been named in the log
};

/// The threads of a task manager, and which task each of them runs.
///
/// Threads:   publish() once; enter() and leave() on each thread of the manager; warnOfLongHandlers() on one thread at
/// a
///            time; the rest on any.
/// Locks:     none. The shape of the table is fixed once it is published. m_poTask of an entry is written by its own
///            thread, under the m_oStatusMutex of the task as far as isRun() relies on it.
/// Ownership: of the entries and the table; the pointer to it lies in the manager.
class CZolTaskThreads
{
public:
    explicit CZolTaskThreads(SZolThreadEntry **&ppTable) : m_ppTable(ppTable) {}
    ~CZolTaskThreads();
    CZolTaskThreads(const CZolTaskThreads &) = delete;
    CZolTaskThreads &operator=(const CZolTaskThreads &) = delete;

    /// Makes the table for these threads and lets those that wait in enter() go on. The ids are sorted on the way.
    void publish(ACE_thread_t *pulThreadIDs, int iThreads);

    /// Lets those that wait in enter() leave, since there will be no table; until callBack().
    void sendAway() { m_oReady.signal(); }
    void callBack() { m_oReady.reset(); }

    /// For a thread that begins: waits for the table. False if the thread is none of it.
    bool enter(CZolTaskMgr &oTaskMgr, unsigned long ulThreadID);
    static void leave();

    void setTask(unsigned long ulThreadID, CZolTask *poTask); ///< an unknown thread is ignored

    /// The task that the thread runs, or null.
    CZolTask *findTask(unsigned long ulThreadID) const;

    /// Whether any of the threads, alive or leaving, runs the task. The caller holds the task's m_oStatusMutex, under
    /// which a run begins and ends.
    bool isRun(const CZolTask &oTask) const;

    /// Names every handler that has run for uiLimitMs or longer, once for each run.
    void warnOfLongHandlers(unsigned char ucTaskMgrID, std::uint64_t ulNowMs, unsigned int uiLimitMs);

private:
    SZolThreadRecord *find(unsigned long ulThreadID) const;

    SZolThreadEntry **&m_ppTable;                    // sorted by thread id; fixed once published
    std::unique_ptr<SZolThreadRecord[]> m_poRecords; // what the table points to
    ACE_Manual_Event m_oReady;                       // set when the table is complete
    std::atomic<int> m_iSize{0};                     // entries of the table; its store publishes the table
};

#endif
