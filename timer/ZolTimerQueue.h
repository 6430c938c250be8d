#ifndef ZOL_TIMER_QUEUE_H
#define ZOL_TIMER_QUEUE_H

#include "timer/ZolExpiryHeap.h"

#include "ZolLock.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Event_Handler.h>
#include <ace/Thread_Mutex.h>
#include <ace/Timer_Queue.h>

#include <cstdint>
#include <memory>
#include <vector>

class ACE_Command_Base;

/// The timer queue of the timer thread's reactor: a heap of expiries on the monotonic clock, so that setting the
/// machine's clock neither stalls nor hurries a timer.
///
/// An expired interval timer is armed again before its handler is called, on the grid of its previous expiry plus the
/// interval, and expiries that have passed are skipped. A new interval counts from the armed expiry on.
///
/// Threads:   schedule, cancel and reset_interval from any thread, also from a handler; expiring and waiting from the
///            thread of the reactor only. Handlers are called with no lock held. A thread that sets a timer wakes the
///            waiting one only if that would oversleep.
/// Ownership: handlers stay the caller's; their reference counts are not looked at.
/// Ids:       a slot in the low 32 bits and the count of its uses above, so that an id is never given out again and one
///            that has lapsed is told from the one that took its place.
/// Cost:      O(log n); about 60 bytes a timer, for as many as were ever alive at once.
class CZolTimerQueue : public ACE_Timer_Queue
{
public:
    CZolTimerQueue();
    ~CZolTimerQueue() override = default;

    long scheduleIn(ACE_Event_Handler *poHandler, const void *pvArg, const ACE_Time_Value &oDelay,
                    const ACE_Time_Value &oInterval);

    /// Waits until a timer is due, but not longer than *poMax if that is given, and calls all that are due: how many.
    int waitAndExpire(const ACE_Time_Value *poMax);

    /// Ends a wait, the one that runs or the next.
    void wake();

    /// Whether the thread of the reactor waits now, and how often others have woken it for a timer.
    bool isWaiting() const;
    unsigned int wakeUps() const;

    /// The id of the timer whose handler is running, for that handler.
    long firingId() const { return m_lFiringId; }

    /// How late it is by now, for the handler that is running; zero outside of one.
    ACE_Time_Value lateness() const;

    bool is_empty() const override;
    const ACE_Time_Value &earliest_time() const override;
    long schedule(ACE_Event_Handler *const &poHandler, const void *pvArg, const ACE_Time_Value &oExpiry,
                  const ACE_Time_Value &oInterval) override;
    int expire(const ACE_Time_Value &oNow) override;
    int expire() override;
    int
    expire_single(ACE_Command_Base &oPreDispatch) override; ///< calls all that are due, oPreDispatch before the first
    int reset_interval(long lTimerId, const ACE_Time_Value &oInterval) override;
    int cancel(ACE_Event_Handler *const &poHandler, int iDontCallHandleClose) override;
    int cancel(long lTimerId, const void **ppvArg, int iDontCallHandleClose) override;
    int close() override { return 0; }
    ACE_Time_Value gettimeofday() override;
    void gettimeofday(ACE_Time_Value (*)()) override {} // the clock is not for choice
    ACE_Time_Value *calculate_timeout(ACE_Time_Value *poMax) override;
    ACE_Time_Value *calculate_timeout(ACE_Time_Value *poMax, ACE_Time_Value *poTimeout) override;
    ACE_Time_Value current_time() override { return gettimeofday(); }
    ITERATOR &iter() override;
    ACE_Timer_Node_T<ACE_Event_Handler *> *remove_first() override { return nullptr; } // there are no such nodes
    ACE_Timer_Node_T<ACE_Event_Handler *> *get_first() override { return nullptr; }
    void dump() const override {}

private:
    static const std::uint32_t SLOT_PAGE = 1024; // slots are made by the page and never move

    /// Of the monotonic clock; they do not overflow for any delay that is let through.
    using Micros = CZolExpiryHeap::Micros;

    struct SSlot
    {
        ACE_Event_Handler *m_poHandler;
        const void *m_pvArg;
        Micros m_llInterval;   // 0 fires once
        std::uint32_t m_uiUse; // how often the slot has been given out
    };

    /// No iteration: nothing asks this queue for it.
    class CNoIterator : public ITERATOR
    {
    public:
        void first() override {}
        void next() override {}
        bool isdone() const override { return true; }
        ACE_Timer_Node_T<ACE_Event_Handler *> *item() override { return nullptr; }
    };

    static Micros now();
    static Micros toMicros(const ACE_Time_Value &oTime);
    long arm(ACE_Event_Handler *poHandler, const void *pvArg, Micros llExpiry, Micros llInterval);
    long armLocked(ACE_Event_Handler *poHandler, const void *pvArg, Micros llExpiry, Micros llInterval, bool &bWake);
    void waitUntilDue(Micros llLimit);
    static ACE_Time_Value toTime(Micros llTime);
    bool takeDue(Micros llNow, ACE_Event_Handler *&poHandler, const void *&pvArg);
    int fireDue(Micros llNow, ACE_Command_Base *poPreDispatch);

    SSlot &slot(std::uint32_t uiSlot) const ZOL_REQUIRES(m_oLock)
    {
        return m_arrPages[uiSlot / SLOT_PAGE][uiSlot % SLOT_PAGE];
    }
    SSlot *findSlot(long lTimerId) const ZOL_REQUIRES(m_oLock);
    bool makeSlots() ZOL_REQUIRES(m_oLock);
    long idOf(std::uint32_t uiSlot) const ZOL_REQUIRES(m_oLock);
    void remove(std::uint32_t uiSlot) ZOL_REQUIRES(m_oLock);

    mutable CZolLock<ACE_Thread_Mutex, ZOL_RANK_LEAF> m_oLock; // nothing is taken under it
    ACE_Condition<ACE_Thread_Mutex> m_oEarlier; // with m_oLock; monotonic; signalled when m_llSleepsUntil gets less

    std::vector<std::unique_ptr<SSlot[]>> m_arrPages ZOL_GUARDED_BY(m_oLock);
    // Free slots, the one freed last on top; has room for all of them.
    std::vector<std::uint32_t> m_arrFree ZOL_GUARDED_BY(m_oLock);
    CZolExpiryHeap m_oHeap ZOL_GUARDED_BY(m_oLock); // slots of the armed timers; has room for all of them
    // When the reactor's thread wakes by itself; AWAKE while it does not wait.
    Micros m_llSleepsUntil ZOL_GUARDED_BY(m_oLock) = AWAKE;
    unsigned int m_uiWakeUps ZOL_GUARDED_BY(m_oLock) = 0;
    bool m_bWoken ZOL_GUARDED_BY(m_oLock) = false; // by wake()

    long m_lFiringId = -1;              // the reactor's thread only
    Micros m_llFiringExpiry = 0;        // the reactor's thread only; of the timer m_lFiringId
    ACE_Time_Value m_oTimeout;          // the reactor's thread only
    mutable ACE_Time_Value m_oEarliest; // the reactor's thread only
    CNoIterator m_oNoIterator;

    static const Micros AWAKE = INT64_MIN;
};

#endif
