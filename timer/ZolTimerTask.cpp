#include "timer/ZolTimerTask.h"

#include "ZolRunLog.h"
#include "timer/ZolTimerQueue.h"

#include <ace/Select_Reactor.h>
#include <ace/Thread.h>

#include <cerrno>

namespace
{

/// A reactor for timers alone. It has no descriptors, so it waits on a condition of its queue instead of in select:
/// there is no limit to the numbers of descriptors that the process may have open, and no pipe to wake it through. The
/// timer operations go straight to the queue, which has a lock of its own; ACE's would ask for the token that the
/// waiting thread holds, and wake that thread each time.
class CZolTimerReactor : public ACE_Select_Reactor
{
public:
    explicit CZolTimerReactor(CZolTimerQueue &oQueue)
        : ACE_Select_Reactor(1, true, nullptr, &oQueue, NO_NOTIFY_PIPE), m_oQueue(oQueue)
    {
    }

    int handle_events(ACE_Time_Value *poMax) override
    {
        if (deactivated() != 0)
        {
            errno = ESHUTDOWN;
            return -1;
        }
        return m_oQueue.waitAndExpire(poMax);
    }

    int handle_events(ACE_Time_Value &oMax) override { return handle_events(&oMax); }

    /// Ends a wait; there is no queue of notifications for handlers.
    int notify(ACE_Event_Handler *poHandler, ACE_Reactor_Mask, ACE_Time_Value *) override
    {
        if (poHandler != nullptr)
        {
            errno = ENOTSUP;
            return -1;
        }
        m_oQueue.wake();
        return 0;
    }

    long schedule_timer(ACE_Event_Handler *poHandler, const void *pvArg, const ACE_Time_Value &oDelay,
                        const ACE_Time_Value &oInterval) override
    {
        return m_oQueue.scheduleIn(poHandler, pvArg, oDelay, oInterval);
    }

    int reset_timer_interval(long lTimerId, const ACE_Time_Value &oInterval) override
    {
        return m_oQueue.reset_interval(lTimerId, oInterval);
    }

    int cancel_timer(ACE_Event_Handler *poHandler, int iDontCallHandleClose) override
    {
        return m_oQueue.cancel(poHandler, iDontCallHandleClose);
    }

    int cancel_timer(long lTimerId, const void **ppvArg, int iDontCallHandleClose) override
    {
        return m_oQueue.cancel(lTimerId, ppvArg, iDontCallHandleClose);
    }

private:
    static const int NO_NOTIFY_PIPE = 1;

    CZolTimerQueue &m_oQueue;
};

/// Lives as long as the reactor, which is as long as the process.
CZolTimerQueue &timerQueue()
{
    static CZolTimerQueue *const poQueue = new CZolTimerQueue; // NOLINT: leaked on purpose
    return *poQueue;
}

} // namespace

CZolTimerTask *CZolTimerTask::instance()
{
    static CZolTimerTask *const poInstance = new CZolTimerTask; // NOLINT: the timer thread outlives main
    return poInstance;
}

CZolTimerTask::CZolTimerTask() : ACE_Task_Base(nullptr), m_oReactor(new CZolTimerReactor(timerQueue()), true) {}

CZolTimerTask::~CZolTimerTask() = default;

int CZolTimerTask::open(void *)
{
    if (activate() == -1)
    {
        return -1;
    }
    m_oStart.await();
    return 0;
}

int CZolTimerTask::svc()
{
    m_oStart.arrived();
    m_oReactor.owner(ACE_Thread::self());
    if (m_oReactor.run_reactor_event_loop() == -1)
    {
        CZolDebugInfo("CZolTimerTask::svc").error("Error run the reactor's event loop");
    }
    return -1;
}

/// By way of the implementation: the reactor's own operation writes itself into the handler, without a lock, and every
/// thread that sets a timer gives the same handler.
long CZolTimerTask::scheduleTimer(ACE_Event_Handler *poHandler, const void *pvArg, const ACE_Time_Value &oDelay,
                                  const ACE_Time_Value &oInterval)
{
    return m_oReactor.implementation()->schedule_timer(poHandler, pvArg, oDelay, oInterval);
}

int CZolTimerTask::resetTimerInterval(long lReactorId, const ACE_Time_Value &oInterval)
{
    return m_oReactor.implementation()->reset_timer_interval(lReactorId, oInterval);
}

int CZolTimerTask::cancelTimer(long lReactorId)
{
    return m_oReactor.implementation()->cancel_timer(lReactorId, nullptr, 1);
}

long CZolTimerTask::firingId() const
{
    return timerQueue().firingId();
}

ACE_Time_Value CZolTimerTask::lateness() const
{
    return timerQueue().lateness();
}
