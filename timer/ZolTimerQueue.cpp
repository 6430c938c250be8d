#include "timer/ZolTimerQueue.h"

#include <ace/Condition_Attributes.h>
#include <ace/Functor.h>
#include <ace/Guard_T.h>
#include <ace/Monotonic_Time_Policy.h>

#include <algorithm>
#include <ctime>
#include <new>

namespace
{
const std::int64_t MICROS = 1000000;
const std::int64_t FAR_AWAY = INT64_MAX / 4; // more than 70,000 years: two of them and a clock still add up
const std::uint32_t FIRST_CHILD = 4;         // of a node at place p: 4p + 1
} // namespace

bool CZolTimerQueue::SEntry::isBefore(const SEntry &oOther) const
{
    if (m_llExpiry != oOther.m_llExpiry)
    {
        return m_llExpiry < oOther.m_llExpiry;
    }
    return static_cast<std::int32_t>(m_uiOrder - oOther.m_uiOrder) < 0; // the count wraps
}

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

CZolTimerQueue::CZolTimerQueue() : m_oEarlier(m_oLock, ACE_Condition_Attributes_T<ACE_Monotonic_Time_Policy>()) {}

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
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
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

    const SEntry oEntry = {llExpiry, m_uiOrder++, uiSlot};
    m_arrHeap.push_back(oEntry);
    moveUp(static_cast<std::uint32_t>(m_arrHeap.size() - 1), oEntry);
    if (llExpiry < m_llSleepsUntil)
    {
        m_llSleepsUntil = llExpiry; // one wake-up serves all that come later than this one
        ++m_uiWakeUps;
        bWake = true;
    }
    return idOf(uiSlot);
}

/// A page of free slots more, with room in the two arrays, so that nothing but this can run out of memory.
bool CZolTimerQueue::makeSlots()
{
    const size_t uiSlots = m_arrPages.size() * SLOT_PAGE;
    if (uiSlots + SLOT_PAGE > NOWHERE)
    {
        return false;
    }
    try
    {
        if (m_arrHeap.capacity() < uiSlots + SLOT_PAGE)
        {
            m_arrHeap.reserve(std::max(uiSlots + SLOT_PAGE, uiSlots + uiSlots / 2));
            m_arrFree.reserve(m_arrHeap.capacity());
        }
        m_arrPages.push_back(std::make_unique<SSlot[]>(SLOT_PAGE));
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
    for (std::uint32_t ui = SLOT_PAGE; ui-- > 0;)
    {
        m_arrPages.back()[ui].m_uiPlace = NOWHERE;
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
    SSlot &oSlot = slot(uiSlot);
    return oSlot.m_uiPlace != NOWHERE && idOf(uiSlot) == lTimerId ? &oSlot : nullptr;
}

void CZolTimerQueue::freeSlot(std::uint32_t uiSlot)
{
    SSlot &oSlot = slot(uiSlot);
    oSlot.m_uiPlace = NOWHERE;
    ++oSlot.m_uiUse;
    m_arrFree.push_back(uiSlot);
}

void CZolTimerQueue::put(std::uint32_t uiPlace, const SEntry &oEntry)
{
    m_arrHeap[uiPlace] = oEntry;
    slot(oEntry.m_uiSlot).m_uiPlace = uiPlace;
}

/// Finds the place of oEntry from uiPlace, which is free, upwards.
void CZolTimerQueue::moveUp(std::uint32_t uiPlace, const SEntry &oEntry)
{
    while (uiPlace > 0)
    {
        const std::uint32_t uiParent = (uiPlace - 1) / FIRST_CHILD;
        if (!oEntry.isBefore(m_arrHeap[uiParent]))
        {
            break;
        }
        put(uiPlace, m_arrHeap[uiParent]);
        uiPlace = uiParent;
    }
    put(uiPlace, oEntry);
}

/// The same downwards.
void CZolTimerQueue::moveDown(std::uint32_t uiPlace, const SEntry &oEntry)
{
    const auto uiSize = static_cast<std::uint32_t>(m_arrHeap.size());
    for (std::uint64_t ulChild = std::uint64_t{FIRST_CHILD} * uiPlace + 1; ulChild < uiSize;
         ulChild = std::uint64_t{FIRST_CHILD} * uiPlace + 1)
    {
        auto uiLeast = static_cast<std::uint32_t>(ulChild);
        const auto uiEnd = static_cast<std::uint32_t>(std::min<std::uint64_t>(ulChild + FIRST_CHILD, uiSize));
        for (std::uint32_t ui = uiLeast + 1; ui < uiEnd; ++ui)
        {
            uiLeast = m_arrHeap[ui].isBefore(m_arrHeap[uiLeast]) ? ui : uiLeast;
        }
        if (!m_arrHeap[uiLeast].isBefore(oEntry))
        {
            break;
        }
        put(uiPlace, m_arrHeap[uiLeast]);
        uiPlace = uiLeast;
    }
    put(uiPlace, oEntry);
}

void CZolTimerQueue::removeAt(std::uint32_t uiPlace)
{
    const SEntry oLast = m_arrHeap.back();
    m_arrHeap.pop_back();
    if (uiPlace == m_arrHeap.size())
    {
        return;
    }
    if (uiPlace > 0 && oLast.isBefore(m_arrHeap[(uiPlace - 1) / FIRST_CHILD]))
    {
        moveUp(uiPlace, oLast);
    }
    else
    {
        moveDown(uiPlace, oLast);
    }
}

int CZolTimerQueue::reset_interval(long lTimerId, const ACE_Time_Value &oInterval)
{
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
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
        const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
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
        removeAt(poSlot->m_uiPlace);
        freeSlot(static_cast<std::uint32_t>(lTimerId));
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
        const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
        for (std::uint32_t ui = 0; ui < m_arrPages.size() * SLOT_PAGE; ++ui)
        {
            if (slot(ui).m_uiPlace != NOWHERE && slot(ui).m_poHandler == poHandler)
            {
                removeAt(slot(ui).m_uiPlace);
                freeSlot(ui);
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
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
    while (!m_bWoken)
    {
        m_llSleepsUntil = m_arrHeap.empty() ? llLimit : std::min(llLimit, m_arrHeap.front().m_llExpiry);
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
            const ACE_Time_Value oDeadline = toTime(m_llSleepsUntil);
            m_oEarlier.wait(&oDeadline);
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
        const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
        m_bWoken = true;
    }
    m_oEarlier.signal();
}

bool CZolTimerQueue::isWaiting() const
{
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
    return m_llSleepsUntil != AWAKE;
}

unsigned int CZolTimerQueue::wakeUps() const
{
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
    return m_uiWakeUps;
}

/// Takes the first timer that is due: one with an interval is armed anew at once, one without is gone.
bool CZolTimerQueue::takeDue(Micros llNow, ACE_Event_Handler *&poHandler, const void *&pvArg)
{
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
    if (m_arrHeap.empty() || m_arrHeap.front().m_llExpiry > llNow)
    {
        return false;
    }
    SEntry oEntry = m_arrHeap.front();
    const SSlot &oSlot = slot(oEntry.m_uiSlot);
    poHandler = oSlot.m_poHandler;
    pvArg = oSlot.m_pvArg;
    m_lFiringId = idOf(oEntry.m_uiSlot);
    if (oSlot.m_llInterval == 0)
    {
        removeAt(0);
        freeSlot(oEntry.m_uiSlot);
        return true;
    }
    oEntry.m_llExpiry += oSlot.m_llInterval;
    if (oEntry.m_llExpiry <= llNow)
    {
        oEntry.m_llExpiry += ((llNow - oEntry.m_llExpiry) / oSlot.m_llInterval + 1) * oSlot.m_llInterval;
    }
    oEntry.m_uiOrder = m_uiOrder++;
    moveDown(0, oEntry);
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
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
    return m_arrHeap.empty();
}

const ACE_Time_Value &CZolTimerQueue::earliest_time() const
{
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
    m_oEarliest = m_arrHeap.empty() ? ACE_Time_Value::zero : toTime(m_arrHeap.front().m_llExpiry);
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
    const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oLock);
    if (m_arrHeap.empty() || poTimeout == nullptr)
    {
        return poMax;
    }
    *poTimeout = toTime(std::max<Micros>(m_arrHeap.front().m_llExpiry - now(), 0));
    return poMax != nullptr && *poMax < *poTimeout ? poMax : poTimeout;
}

CZolTimerQueue::ITERATOR &CZolTimerQueue::iter()
{
    return m_oNoIterator;
}
