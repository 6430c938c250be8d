// The half of CZolTimer that calls functions instead of sending messages.

#include "ZolRunLog.h"
#include "ZolTimer.h"
#include "timer/ZolTimerInside.h"
#include "timer/ZolTimerTask.h"

#include <ace/Guard_T.h>

#include <cstdint>
#include <cstdio>
#include <cxxabi.h>
#include <exception>
#include <memory>
#include <new>

namespace
{

void reportException(unsigned long ulClockId, const char *pcWhat)
{
    char acText[256];
    std::snprintf(acText, sizeof acText, "the callback of precise clock %lu threw: %.160s", ulClockId, pcWhat);
    CZolDebugInfo("CZolTimer::preciseClockCB").fatal(acText);
}

/// What the callback throws stops here: beyond it is the loop that all timers of the process hang on.
void callGuarded(void (*pfnCallback)(unsigned long), unsigned long ulClockId)
{
    try
    {
        pfnCallback(ulClockId);
    }
    catch (const std::exception &oException)
    {
        reportException(ulClockId, oException.what());
    }
    catch (const abi::__forced_unwind &)
    {
        throw; // the thread is being cancelled, and must not be kept from it
    }
    catch (...)
    {
        reportException(ulClockId, "not a std::exception");
    }
}

} // namespace

unsigned long CZolTimer::registerPreciseClock(unsigned int uiMilliseconds, void (*pfnCallback)(unsigned long))
{
    if (uiMilliseconds == 0 || pfnCallback == nullptr)
    {
        return 0;
    }
    std::unique_ptr<CZolPreciseClock> poClock(new (std::nothrow) CZolPreciseClock);
    if (poClock == nullptr)
    {
        return 0;
    }
    const unsigned long ulClockId = m_poInside->nextId();
    poClock->m_lReactorId = -1;
    poClock->m_ulClockId = ulClockId;
    poClock->m_pfnCallback = pfnCallback;
    // into the map before the reactor has it, so that no expiry comes too early to be found
    if (!m_poInside->addClock(std::move(poClock)))
    {
        return 0;
    }
    const ACE_Time_Value oPeriod(uiMilliseconds / 1000, static_cast<suseconds_t>(uiMilliseconds % 1000 * 1000));
    const long lReactorId = CZolTimerTask::instance()->scheduleTimer(
        this, reinterpret_cast<const void *>(static_cast<std::uintptr_t>(ulClockId)), oPeriod, oPeriod);
    if (lReactorId == -1)
    {
        CZolDebugInfo("CZolTimer::registerPreciseClock").error("Fail to register timer in reactor.");
        cancelPreciseClock(ulClockId);
        return 0;
    }
    if (!m_poInside->setClockReactorId(ulClockId, lReactorId))
    {
        CZolTimerTask::instance()->cancelTimer(lReactorId); // its first call has come, and cancelled it
    }
    return ulClockId;
}

void CZolTimer::cancelPreciseClock(unsigned long ulClockId)
{
    long lReactorId = -1;
    {
        const ACE_Guard<ACE_Mutex> oGuard(m_oClockLock);
        const auto it = m_oClockMap.find(ulClockId);
        if (it == m_oClockMap.end())
        {
            return;
        }
        lReactorId = it->second->m_lReactorId;
        delete it->second;
        m_oClockMap.erase(it);
    }
    CZolTimerTask::instance()->cancelTimer(lReactorId);
}

int CZolTimer::preciseClockCB(unsigned long ulId)
{
    void (*pfnCallback)(unsigned long) = nullptr;
    {
        const ACE_Guard<ACE_Mutex> oGuard(m_oClockLock);
        const auto it = m_oClockMap.find(ulId);
        if (it == m_oClockMap.end())
        {
            return -1;
        }
        pfnCallback = it->second->m_pfnCallback;
    }
    callGuarded(pfnCallback, ulId);
    return 0;
}
