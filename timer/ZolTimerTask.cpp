#include "timer/ZolTimerTask.h"

#include "ZolRunLog.h"
#include "timer/ZolTimerQueue.h"

#include <ace/TP_Reactor.h>
#include <ace/Thread.h>

#include <algorithm>

namespace
{

/// A thread-pool reactor that one thread runs. That kind does not hold its token while it calls a handler, yet it still
/// asks for it, and wakes the waiting thread, whenever another thread sets a timer. The queue has a lock of its own, so
/// the timer operations go past the token, and the thread is woken only if it would oversleep.
class CZolTimerReactor : public ACE_TP_Reactor
{
public:
    explicit CZolTimerReactor(CZolTimerQueue &oQueue)
        : ACE_TP_Reactor(ACE_Select_Reactor_Impl::DEFAULT_SIZE, true, nullptr, &oQueue), m_oQueue(oQueue)
    {
    }

    long schedule_timer(ACE_Event_Handler *poHandler, const void *pvArg, const ACE_Time_Value &oDelay,
                        const ACE_Time_Value &oInterval) override
    {
        bool bWake = false;
        const long lId = m_oQueue.scheduleIn(poHandler, pvArg, oDelay, oInterval, bWake);
        if (bWake)
        {
            notify();
        }
        return lId;
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
