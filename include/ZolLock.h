#ifndef ZOL_LOCK_H
#define ZOL_LOCK_H

#include "ZolExport.h"

/// What clang checks with -Wthread-safety; nothing for other compilers.
#ifdef __clang__
#define ZOL_ANALYSIS(x) __attribute__((x))
#else
#define ZOL_ANALYSIS(x)
#endif
#define ZOL_GUARDED_BY(...) ZOL_ANALYSIS(guarded_by(__VA_ARGS__))        ///< a member that is used with the lock held
#define ZOL_POINTS_GUARDED(...) ZOL_ANALYSIS(pt_guarded_by(__VA_ARGS__)) ///< what a member points to is
#define ZOL_REQUIRES(...) ZOL_ANALYSIS(requires_capability(__VA_ARGS__)) ///< the caller holds the lock
#define ZOL_REQUIRES_SHARED(...) ZOL_ANALYSIS(requires_shared_capability(__VA_ARGS__))
#define ZOL_EXCLUDES(...) ZOL_ANALYSIS(locks_excluded(__VA_ARGS__))     ///< the caller does not hold the lock
#define ZOL_ACQUIRES(...) ZOL_ANALYSIS(acquire_capability(__VA_ARGS__)) ///< returns with the lock held
#define ZOL_ACQUIRES_SHARED(...) ZOL_ANALYSIS(acquire_shared_capability(__VA_ARGS__))
#define ZOL_RELEASES(...) ZOL_ANALYSIS(release_generic_capability(__VA_ARGS__))
#define ZOL_TRIES(...) ZOL_ANALYSIS(try_acquire_capability(__VA_ARGS__))
#define ZOL_UNCHECKED ZOL_ANALYSIS(no_thread_safety_analysis) ///< listed in doc/locks.md with its reason

/// The order of the locks, the one place where it is kept: with a lock held, only one further down may be taken, and
/// none of the same row. doc/locks.md gives the reasons.
enum EnumZolLockRank
{
    ZOL_RANK_WATCHDOG,    // CZolWatchdog::m_oSetLock
    ZOL_RANK_RECEIVE,     // CZolConnection::m_oRecvLock
    ZOL_RANK_CONNECTIONS, // CZolConnMgr::m_oConnLock
    ZOL_RANK_PIPE,        // CZolConnection::m_oPipeLock
    ZOL_RANK_PIPE_STATUS, // CZolConnection::m_oStatusLock
    ZOL_RANK_RESPONSE,    // CZolAcceptorHandler::m_oLock
    ZOL_RANK_DISPATCH,    // g_mapDispatchMutex
    ZOL_RANK_TASKS,       // CZolTaskMgr::m_oTaskLock
    ZOL_RANK_WAITERS,     // CZolTaskMgr::m_oSynWaitMutex
    ZOL_RANK_TASK,        // CZolTask::m_oStatusMutex
    ZOL_RANK_LEAF,        // all that stand in no other row
    ZOL_RANK_LOG_BUFFER,  // CZolLogTask::m_oBufferLock
    ZOL_RANK_LOG_FILE,    // CZolLogTask::m_oFileLock
    ZOL_RANK_POOL         // CZolMemMan::m_oMutex, lock of the heap's cache
};

#ifdef ZOL_SANITIZED
/// End the process with a line on standard error when the calling thread breaks the order, or writes a line of the log
/// with a lock held that others wait for. A lock that is only tried cannot break the order.
ZOL_EXPORT void zolLockTaken(const void *pvLock, EnumZolLockRank eRank, bool bTried);
ZOL_EXPORT void zolLockReleased(const void *pvLock);
ZOL_EXPORT void zolNoLockHeld();
#else
inline void zolLockTaken(const void *, EnumZolLockRank, bool) {}
inline void zolLockReleased(const void *) {}
inline void zolNoLockHeld() {}
#endif

/// A lock of ACE that clang's analysis knows, and that sanitizer builds hold against the order. It is as large as the
/// lock that it is.
template <typename Base, EnumZolLockRank eRank>
class ZOL_ANALYSIS(capability("mutex")) CZolLock : public Base
{
public:
    using Base::Base;

    int acquire() ZOL_ACQUIRES() ZOL_UNCHECKED
    {
        zolLockTaken(this, eRank, false);
        return Base::acquire();
    }
    int acquire_read() ZOL_ACQUIRES_SHARED() ZOL_UNCHECKED
    {
        zolLockTaken(this, eRank, false);
        return Base::acquire_read();
    }
    int acquire_write() ZOL_ACQUIRES() { return acquire(); }
    int tryacquire() ZOL_TRIES(0) ZOL_UNCHECKED
    {
        const int iResult = Base::tryacquire();
        if (iResult == 0)
        {
            zolLockTaken(this, eRank, true);
        }
        return iResult;
    }
    int tryacquire_write() ZOL_TRIES(0) { return tryacquire(); }
    int release() ZOL_RELEASES() ZOL_UNCHECKED
    {
        zolLockReleased(this);
        return Base::release();
    }
};

/// Holds a lock, a reader-writer lock exclusive, to the end of the scope or to release().
template <typename Lock>
class ZOL_ANALYSIS(scoped_lockable) CZolGuard
{
public:
    explicit CZolGuard(Lock &oLock) ZOL_ACQUIRES(oLock) ZOL_UNCHECKED : m_poLock(&oLock) { oLock.acquire(); }
    ~CZolGuard() ZOL_RELEASES() ZOL_UNCHECKED
    {
        if (m_poLock != nullptr)
        {
            m_poLock->release();
        }
    }
    CZolGuard(const CZolGuard &) = delete;
    CZolGuard &operator=(const CZolGuard &) = delete;

    void release() ZOL_RELEASES() ZOL_UNCHECKED
    {
        m_poLock->release();
        m_poLock = nullptr;
    }

private:
    Lock *m_poLock; // null after release()
};

/// Holds a reader-writer lock shared to the end of the scope.
template <typename Lock>
class ZOL_ANALYSIS(scoped_lockable) CZolReadGuard
{
public:
    explicit CZolReadGuard(Lock &oLock) ZOL_ACQUIRES_SHARED(oLock) ZOL_UNCHECKED : m_oLock(oLock)
    {
        oLock.acquire_read();
    }
    ~CZolReadGuard() ZOL_RELEASES() ZOL_UNCHECKED { m_oLock.release(); }
    CZolReadGuard(const CZolReadGuard &) = delete;
    CZolReadGuard &operator=(const CZolReadGuard &) = delete;

private:
    Lock &m_oLock;
};

#endif
