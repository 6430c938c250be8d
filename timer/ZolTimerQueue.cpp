#include "timer/ZolTimerQueue.h"

#include "message/ZolMonotonic.h"

#include <ace/Functor.h>

#include <algorithm>
#include <ctime>
#include <new>

namespace
{
const std::int64_t MICROS = 1000000;
const std::int64_t FAR_AWAY = INT64_MAX / 4; // more than 70,000 years: two of them and a clock still add up
} // namespace

CZolTimerQueue::Micros CZolTimerQueue::now()
{
    struct timespec oNow = {};
    clock_gettime(CLOCK_MONOTONIC, &oNow);
    return oNow.tv_sec * MICROS + oNow.tv_nsec / 1000;
}

CZolTimerQueue::Micros CZolTimerQueue::toMicros(const ACE_Time_Value &oTime)
{
    if (oTime.sec() >= FAR_AWAY / MICROS)
    {
        return FAR_AWAY;
    }
    return oTime.sec() <= -FAR_AWAY / MICROS ? -FAR_AWAY : oTime.sec() * MICROS + oTime.usec();
}

ACE_Time_Value CZolTimerQueue::toTime(Micros llTime)
{
    return ACE_Time_Value(llTime / MICROS, static_cast<suseconds_t>(llTime % MICROS));
}

CZolTimerQueue::CZolTimerQueue() : m_oEarlier(m_oLock, CZolMonotonicAttributes()) {}

// ---- Setting and cancelling

long CZolTimerQueue::scheduleIn(ACE_Event_Handler *poHandler, const void *pvArg, const ACE_Time_Value &oDelay,
                                const ACE_Time_Value &oInterval)
{
    return arm(poHandler, pvArg, now() + toMicros(oDelay), toMicros(oInterval));
}

long CZolTimerQueue::schedule(ACE_Event_Handler *const &poHandler, const void *pvArg, const ACE_Time_Value &oExpiry,
                              const ACE_Time_Value &oInterval)
{
    return arm(poHandler, pvArg, toMicros(oExpiry), toMicros(oInterval));
}

long CZolTimerQueue::arm(ACE_Event_Handler *poHandler, const void *pvArg, Micros llExpiry, Micros llInterval)
{
    bool bWake = false;
    const long lTimerId = armLocked(poHandler, pvArg, llExpiry, llInterval, bWake);
    if (bWake)
    {
        m_oEarlier.signal(); // after the release, so that the thread that wakes does not run into the lock
    }
    return lTimerId;
}

long CZolTimerQueue::armLocked(ACE_Event_Handler *poHandler, const void *pvArg, Micros llExpiry, Micros llInterval,
                               bool &bWake)
{
    const CZolGuard oGuard(m_oLock);
    if (m_arrFree.empty() && !makeSlots())
    {
        return -1;
    }
    const std::uint32_t uiSlot = m_arrFree.back();
    m_arrFree.pop_back();
    SSlot &oSlot = slot(uiSlot);
    oSlot.m_poHandler = poHandler;
    oSlot.m_pvArg = pvArg;
    oSlot.m_llInterval = std::max<Micros>(llInterval, 0);
    m_oHeap.add(uiSlot, llExpiry);
    if (llExpiry < m_llSleepsUntil)
    {
        m_llSleepsUntil = llExpiry; // one wake-up serves all that come later than this one
        ++m_uiWakeUps;
        bWake = true;
    }
    return idOf(uiSlot);
}

/// A page of free slots more, with room for them in the other arrays, so that nothing but this can run out of memory.
bool CZolTimerQueue::makeSlots()
{
    const size_t uiSlots = m_arrPages.size() * SLOT_PAGE;
    if (uiSlots + SLOT_PAGE > UINT32_MAX || !m_oHeap.reserve(uiSlots + SLOT_PAGE))
    {
        return false;
    }
    try
    {
        m_arrFree.reserve(std::max(m_arrFree.capacity(), uiSlots + uiSlots / 2 + SLOT_PAGE));
        m_arrPages.push_back(std::make_unique<SSlot[]>(SLOT_PAGE));
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
    for (std::uint32_t ui = SLOT_PAGE; ui-- > 0;)
    {
        m_arrFree.push_back(static_cast<std::uint32_t>(uiSlots) + ui);
    }
    return true;
}

long CZolTimerQueue::idOf(std::uint32_t uiSlot) const
{
    return static_cast<long>(static_cast<std::uint64_t>(slot(uiSlot).m_uiUse & 0x7FFFFFFF) << 32 | uiSlot);
}

CZolTimerQueue::SSlot *CZolTimerQueue::findSlot(long lTimerId) const
{
    const auto uiSlot = static_cast<std::uint32_t>(lTimerId);
    if (lTimerId < 0 || uiSlot >= m_arrPages.size() * SLOT_PAGE)
    {
        return nullptr;
    }
    return m_oHeap.holds(uiSlot) && idOf(uiSlot) == lTimerId ? &slot(uiSlot) : nullptr;
}

void CZolTimerQueue::remove(std::uint32_t uiSlot)
{
    m_oHeap.remove(uiSlot);
    ++slot(uiSlot).m_uiUse;
    m_arrFree.push_back(uiSlot);
}

int CZolTimerQueue::reset_interval(long lTimerId, const ACE_Time_Value &oInterval)
{
    const CZolGuard oGuard(m_oLock);
    SSlot *poSlot = findSlot(lTimerId);
    if (poSlot == nullptr)
    {
        return -1;
    }
    poSlot->m_llInterval = std::max<Micros>(toMicros(oInterval), 0);
    return 0;
}

int CZolTimerQueue::cancel(long lTimerId, const void **ppvArg, int iDontCallHandleClose)
{
    ACE_Event_Handler *poHandler = nullptr;
    {
        const CZolGuard oGuard(m_oLock);
        const SSlot *poSlot = findSlot(lTimerId);
        if (poSlot == nullptr)
        {
            return 0;
        }
        poHandler = poSlot->m_poHandler;
        if (ppvArg != nullptr)
        {
            *ppvArg = poSlot->m_pvArg;
        }
        remove(static_cast<std::uint32_t>(lTimerId));
    }
    if (iDontCallHandleClose == 0)
    {
        poHandler->handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::TIMER_MASK);
    }
    return 1;
}

int CZolTimerQueue::cancel(ACE_Event_Handler *const &poHandler, int iDontCallHandleClose)
{
    int iCancelled = 0;
    {
        const CZolGuard oGuard(m_oLock);
        for (std::uint32_t ui = 0; ui < m_arrPages.size() * SLOT_PAGE; ++ui)
        {
            if (m_oHeap.holds(ui) && slot(ui).m_poHandler == poHandler)
            {
                remove(ui);
                ++iCancelled;
            }
        }
    }
    if (iCancelled > 0 && iDontCallHandleClose == 0)
    {
        poHandler->handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::TIMER_MASK);
    }
    return iCancelled;
}

// ---- Waiting and firing

/// Until the first expiry, llLimit, or a call of wake(). A timer that is set meanwhile and comes before them moves
/// m_llSleepsUntil, and the wait starts anew.
void CZolTimerQueue::waitUntilDue(Micros llLimit)
{
    const CZolGuard oGuard(m_oLock);
    while (!m_bWoken)
    {
        m_llSleepsUntil = m_oHeap.isEmpty() ? llLimit : std::min(llLimit, m_oHeap.earliest());
        if (m_llSleepsUntil <= now())
        {
            break;
        }
        if (m_llSleepsUntil >= FAR_AWAY)
        {
            m_oEarlier.wait();
        }
        else
        {
            zolWaitUntil(m_oEarlier, toTime(m_llSleepsUntil));
        }
    }
    m_bWoken = false;
    m_llSleepsUntil = AWAKE;
}

int CZolTimerQueue::waitAndExpire(const ACE_Time_Value *poMax)
{
    waitUntilDue(poMax != nullptr ? now() + toMicros(*poMax) : INT64_MAX);
    return fireDue(now(), nullptr);
}

void CZolTimerQueue::wake()
{
    {
        const CZolGuard oGuard(m_oLock);
        m_bWoken = true;
    }
    m_oEarlier.signal();
}

bool CZolTimerQueue::isWaiting() const
{
    const CZolGuard oGuard(m_oLock);
    return m_llSleepsUntil != AWAKE;
}

unsigned int CZolTimerQueue::wakeUps() const
{
    const CZolGuard oGuard(m_oLock);
    return m_uiWakeUps;
}

/// Takes the first timer that is due: one with an interval is armed anew at once, one without is gone.
bool CZolTimerQueue::takeDue(Micros llNow, ACE_Event_Handler *&poHandler, const void *&pvArg)
{
    const CZolGuard oGuard(m_oLock);
    if (m_oHeap.isEmpty() || m_oHeap.earliest() > llNow)
    {
        return false;
    }
    const std::uint32_t uiSlot = m_oHeap.earliestSlot();
    const SSlot &oSlot = slot(uiSlot);
    poHandler = oSlot.m_poHandler;
    pvArg = oSlot.m_pvArg;
    m_lFiringId = idOf(uiSlot);
    m_llFiringExpiry = m_oHeap.earliest();
    if (oSlot.m_llInterval == 0)
    {
        remove(uiSlot);
        return true;
    }
    Micros llNext = m_oHeap.earliest() + oSlot.m_llInterval;
    if (llNext <= llNow)
    {
        llNext += ((llNow - llNext) / oSlot.m_llInterval + 1) * oSlot.m_llInterval;
    }
    m_oHeap.postponeEarliest(llNext);
    return true;
}

/// Only what is due at the start, so that timers with short intervals cannot keep this from returning.
int CZolTimerQueue::fireDue(Micros llNow, ACE_Command_Base *poPreDispatch)
{
    int iFired = 0;
    ACE_Event_Handler *poHandler = nullptr;
    const void *pvArg = nullptr;
    const ACE_Time_Value oNow = toTime(llNow);
    while (takeDue(llNow, poHandler, pvArg))
    {
        if (iFired++ == 0 && poPreDispatch != nullptr)
        {
            poPreDispatch->execute();
        }
        const long lFiringId = m_lFiringId;
        if (poHandler->handle_timeout(oNow, pvArg) == -1)
        {
            cancel(lFiringId, nullptr, 0);
        }
    }
    m_lFiringId = -1;
    return iFired;
}

ACE_Time_Value CZolTimerQueue::lateness() const
{
    return m_lFiringId != -1 ? toTime(now() - m_llFiringExpiry) : ACE_Time_Value::zero;
}

int CZolTimerQueue::expire_single(ACE_Command_Base &oPreDispatch)
{
    return fireDue(now(), &oPreDispatch);
}

int CZolTimerQueue::expire(const ACE_Time_Value &oNow)
{
    return fireDue(toMicros(oNow), nullptr);
}

int CZolTimerQueue::expire()
{
    return fireDue(now(), nullptr);
}

// ---- What else a reactor may ask

bool CZolTimerQueue::is_empty() const
{
    const CZolGuard oGuard(m_oLock);
    return m_oHeap.isEmpty();
}

const ACE_Time_Value &CZolTimerQueue::earliest_time() const
{
    const CZolGuard oGuard(m_oLock);
    m_oEarliest = m_oHeap.isEmpty() ? ACE_Time_Value::zero : toTime(m_oHeap.earliest());
    return m_oEarliest;
}

ACE_Time_Value CZolTimerQueue::gettimeofday()
{
    return toTime(now());
}

ACE_Time_Value *CZolTimerQueue::calculate_timeout(ACE_Time_Value *poMax)
{
    return calculate_timeout(poMax, &m_oTimeout);
}

ACE_Time_Value *CZolTimerQueue::calculate_timeout(ACE_Time_Value *poMax, ACE_Time_Value *poTimeout)
{
    const CZolGuard oGuard(m_oLock);
    if (m_oHeap.isEmpty() || poTimeout == nullptr)
    {
        return poMax;
    }
    *poTimeout = toTime(std::max<Micros>(m_oHeap.earliest() - now(), 0));
    return poMax != nullptr && *poMax < *poTimeout ? poMax : poTimeout;
}

CZolTimerQueue::ITERATOR &CZolTimerQueue::iter()
{
    return m_oNoIterator;
}
