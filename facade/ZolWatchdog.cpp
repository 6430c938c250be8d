#include "ZolApi.h"
#include "ZolAppMgr.h"
#include "ZolTaskMgr.h"
#include "timer/ZolTimerTask.h"

#include "ZolLock.h"

#include <ace/Event_Handler.h>
#include <ace/Thread_Mutex.h>
#include <ace/Time_Value.h>
#include <algorithm>
#include <atomic>
#include <ctime>

namespace
{

/// Looks at every thread of every task manager from time to time. It hangs on the reactor of the timer thread as a
/// handler of its own: a precise clock would take an id from the counter of the timers, which applications see.
///
/// Threads: setLimit() from any thread; handle_timeout() on the timer thread.
class CZolWatchdog : public ACE_Event_Handler
{
public:
    void setLimit(unsigned int uiLimitMs);
    int handle_timeout(const ACE_Time_Value &oNow, const void *pvArg) override;

private:
    std::atomic<unsigned int> m_uiLimitMs{0}; // pairs with nothing: a check that sees the old limit is as good
    CZolLock<ACE_Thread_Mutex, ZOL_RANK_WATCHDOG>
        m_oSetLock; // for m_lReactorId; above the locks of the reactor, never taken by a check
    long m_lReactorId ZOL_GUARDED_BY(m_oSetLock) = -1;
};

void CZolWatchdog::setLimit(unsigned int uiLimitMs)
{
    const CZolGuard oGuard(m_oSetLock);
    m_uiLimitMs.store(uiLimitMs, std::memory_order_relaxed);
    if (m_lReactorId != -1)
    {
        CZolTimerTask::instance()->cancelTimer(m_lReactorId);
        m_lReactorId = -1;
    }
    if (uiLimitMs != 0)
    {
        ACE_Time_Value oPeriod;
        oPeriod.msec(static_cast<long>(std::max(uiLimitMs / 4, 1U)));
        m_lReactorId = CZolTimerTask::instance()->scheduleTimer(this, nullptr, oPeriod, oPeriod);
    }
}

int CZolWatchdog::handle_timeout(const ACE_Time_Value &, const void *)
{
    const unsigned int uiLimitMs = m_uiLimitMs.load(std::memory_order_relaxed);
    if (uiLimitMs == 0)
    {
        return 0;
    }
    timespec oNow{};
    clock_gettime(CLOCK_MONOTONIC, &oNow);
    const std::uint64_t ulNowMs =
        static_cast<std::uint64_t>(oNow.tv_sec) * 1000 + static_cast<std::uint64_t>(oNow.tv_nsec) / 1000000;
    for (CZolTaskMgr *poTaskMgr : CZolAppMgr::instance()->taskMgrs())
    {
        poTaskMgr->warnOfLongHandlers(ulNowMs, uiLimitMs);
    }
    return 0;
}

} // namespace

namespace zol
{

void setHandlerLimit(unsigned int uiLimitMs)
{
    static CZolWatchdog *const poWatchdog = new CZolWatchdog; // NOLINT: leaked, the timer thread outlives main
    if (CZolAppMgr::instance()->getStatus() != APPMGR_UNINITIALIZED)
    {
        poWatchdog->setLimit(uiLimitMs);
    }
}

} // namespace zol
