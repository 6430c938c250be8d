#ifndef ZOL_TIMER_ZOLTIMERINSIDE_H
#define ZOL_TIMER_ZOLTIMERINSIDE_H

#include "ZolTimer.h"
#include "timer/ZolTimerIndex.h"

#include <memory>

/// What the timer service has behind its interface: the index of its records, and the steps that several operations
/// share.
///
/// Threads:   any, as those of the service.
/// Locks:     m_oTimerLock of the service guards the index, m_oClockLock the clocks; each is taken here for a few
/// lines. Ownership: the service's, made and deleted with it.
class CZolTimerInside
{
public:
    explicit CZolTimerInside(CZolTimer &oTimer) : m_oTimer(oTimer), m_oIndex(oTimer.m_oTimerList) {}
    CZolTimerInside(const CZolTimerInside &) = delete;
    CZolTimerInside &operator=(const CZolTimerInside &) = delete;

    /// The counter of the ids: its low 32 bits are the next one.
    static ACE_Atomic_Op<ACE_Thread_Mutex, unsigned long> &sequence() { return CZolTimer::sm_oSequenceId; }

    /// An id that no timer and no clock has.
    unsigned int nextId();

    /// Fills in whom to tell, and schedules: the id, or 0.
    unsigned long set(SZolTimerItem &oItem, unsigned char ucTaskMgrID, unsigned int uiCmdCode, unsigned short usTaskID);

    /// Appends a copy of the record to the list; false, with ENOMEM, without memory.
    bool addRecord(const SZolTimerItem &oItem, long lDueTime);
    bool setReactorId(unsigned int uiTimerId, long lReactorId); ///< false if the record has gone

    /// Arms the interval behind the next firing of a month timer.
    void fireMonth(const SZolTimerItem &oItem, long lDueTime);

    bool addClock(std::unique_ptr<CZolPreciseClock> poClock);
    bool setClockReactorId(unsigned long ulClockId, long lReactorId); ///< false if the clock has gone

    CZolTimer &m_oTimer;
    CZolTimerIndex m_oIndex; // guarded by m_oTimerLock

private:
    bool isInUse(unsigned int uiId);
};

#endif
