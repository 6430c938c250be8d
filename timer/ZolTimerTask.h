#ifndef ZOL_TIMER_TASK_H
#define ZOL_TIMER_TASK_H

#include "log/ZolThreadStart.h"

#include <ace/Reactor.h>
#include <ace/Task.h>

/// The timer thread and its reactor, which drives the timers and the precise clocks, and any handler of the library
/// that wants to be called at a time. Delays follow the monotonic clock.
///
/// Threads:   every operation from any thread, also from a handler of this reactor; none of them ever waits for a
/// handler
///            that is running, so they may be called under a lock that such a handler takes.
/// Ownership: handlers stay the caller's, who cancels them before they end; reference counts of handlers are not looked
///            at. After a cancel one call that was under way may still be running.
/// Cost:      well below a microsecond; the thread is woken only for a timer that is earlier than all others.
///
/// A module that needs a time of its own derives an ACE_Event_Handler with handle_timeout and schedules that: it takes
/// no id from the counter of the timers and does not show in their dump.
class CZolTimerTask : public ACE_Task_Base
{
public:
    /// The one timer task, made at the first call and never destroyed.
    static CZolTimerTask *instance();
    ~CZolTimerTask() override;

    /// Starts the thread: 0 or -1.
    int open(void *pvArgs = nullptr) override;
    int svc() override;

    /// Calls poHandler's handle_timeout with pvArg after oDelay and then every oInterval; once, if that is zero. Gives
    /// an id that is never given out again, or -1.
    long scheduleTimer(ACE_Event_Handler *poHandler, const void *pvArg, const ACE_Time_Value &oDelay,
                       const ACE_Time_Value &oInterval);

    /// A new interval, from the next firing on: that one stays where it is armed. -1 for an unknown id.
    int resetTimerInterval(long lReactorId, const ACE_Time_Value &oInterval);

    /// 1, or 0 for an id that is unknown, has fired its one time or is cancelled already.
    int cancelTimer(long lReactorId);

    /// The id of the timer whose handler is running, for that handler.
    long firingId() const;

    /// How late it is by now, for the handler that is running; zero outside of one.
    ACE_Time_Value lateness() const;

    ACE_Reactor &timerReactor() { return m_oReactor; }

private:
    CZolTimerTask();

    CZolThreadStart m_oStart;
    ACE_Reactor m_oReactor;
};

#endif
