// The half of CZolTimer that turns rules into delays and intervals, and handles their expiry.

#include "ZolErrors.h"
#include "ZolRunLog.h"
#include "ZolTimer.h"
#include "timer/ZolCalendar.h"
#include "timer/ZolTimerIndex.h"
#include "timer/ZolTimerTask.h"
#include "timer/ZolWallClock.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_time.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <new>

namespace
{

/// Keeps a month timer armed past its last firing, at which it is cancelled: how long does not matter.
const long FILLER_INTERVAL = 31536000;

/// Why there is no interval behind a firing of a month timer.
enum EnumIntervalFault
{
    NO_LOCAL_TIME = -1,
    NO_INSTANT = -2,
    NOT_LATER = -3
};

bool toLocal(long lInstant, struct tm &oLocal)
{
    const time_t lTime = lInstant;
    return ACE_OS::localtime_r(&lTime, &oLocal) != nullptr;
}

const char *scheduleFault(long lFault)
{
    switch (lFault)
    {
    case NO_LOCAL_TIME:
        return "fail to convert first callback time from time_t to tm.";
    case NO_INSTANT:
        return "fail to get second callback time.";
    default:
        return "second callback time is smaller than the first time.";
    }
}

const char *firingFault(long lFault)
{
    switch (lFault)
    {
    case NO_LOCAL_TIME:
        return "fail to convert next callback time from time_t to tm, timerID: ";
    case NO_INSTANT:
        return "fail to get next-next callback time, timerID: ";
    default:
        return "next-next callback time is smaller than the next time, timerID: ";
    }
}

/// The time as a firing that was due at lDueTime sees it: that instant, however late the firing is, unless the clock
/// has been set since, and shows what lateness does not explain. An expiry lies up to a second behind the instant that
/// it is for, and a bit more if the thread that set it was held up.
long currentTime(long lDueTime)
{
    const CZolTimerTask *const poTask = CZolTimerTask::instance();
    const long lLeast = poTask->lateness().sec();
    const long lNow = CZolWallClock::now();
    const long lMost = poTask->lateness().sec() + 2;
    return lNow >= lDueTime + lLeast && lNow <= lDueTime + lMost ? lDueTime : lNow;
}

void reportFiring(const char *pcText, unsigned int uiTimerId)
{
    if (CZolRunLog::isReady())
    {
        char acText[128];
        std::snprintf(acText, sizeof acText, "%s%u", pcText, uiTimerId);
        CZolDebugInfo("CZolTimer::handle_timeout").error(acText);
    }
}

} // namespace

// ---- The calendar

long CZolTimer::getScheduledTime(const struct tm &oReference, const SZolTimerItem &oItem)
{
    return oItem.isValid() ? CZolCalendar::nextInstant(oReference, oItem) : CZolCalendar::FAILED;
}

void CZolTimer::getDelay(long &lDelay, const SZolTimerItem &oItem)
{
    nextFiring(LONG_MIN, lDelay, oItem);
}

/// The instant of the next firing, and in lDelay the seconds until then; both negative if there is none. lNotBefore
/// takes the clock's part while that shows less. A cycle has no instant, only the delay.
long CZolTimer::nextFiring(long lNotBefore, long &lDelay, const SZolTimerItem &oItem)
{
    if (oItem.m_eType == TIMER_CYCLE)
    {
        lDelay = static_cast<int>(oItem.m_uiInterval); // from 2^31 on it is negative, and refused for that
        return lDelay;
    }
    if (oItem.m_eType == TIMER_DATE)
    {
        const long lNow = CZolWallClock::now();
        lDelay = oItem.m_lStartTime < lNow ? CZolCalendar::PAST_END : oItem.m_lStartTime - lNow;
        return oItem.m_lStartTime;
    }
    for (;;)
    {
        struct tm oFrom = {};
        if (!toLocal(std::max({CZolWallClock::now(), lNotBefore, oItem.m_lStartTime}), oFrom))
        {
            lDelay = CZolCalendar::FAILED;
            return lDelay;
        }
        const long lInstant = getScheduledTime(oFrom, oItem);
        lDelay = lInstant < 0 ? lInstant : lInstant - std::max(CZolWallClock::now(), lNotBefore);
        if (lInstant < 0 || lDelay > 0)
        {
            return lInstant;
        }
        // also right at the second of a day timer, which belongs to tomorrow as soon as the second is over
        CZolDebugInfo("CZolTimer::getDelay").warning("Timer delayed due to a slow execution of getScheduledTime()");
        CZolWallClock::sleepToNextSecond();
    }
}

/// Seconds from lFiring, an instant of a month timer, to the instant behind it, or an EnumIntervalFault.
long CZolTimer::getMonthInterval(long lFiring, const SZolTimerItem &oItem)
{
    struct tm oFiring = {};
    if (!toLocal(lFiring, oFiring))
    {
        return NO_LOCAL_TIME;
    }
    long lNext = getScheduledTime(oFiring, oItem);
    if (lNext == CZolCalendar::PAST_END)
    {
        lNext = lFiring + FILLER_INTERVAL;
    }
    if (lNext < 0)
    {
        return NO_INSTANT;
    }
    return lNext > lFiring ? lNext - lFiring : static_cast<long>(NOT_LATER);
}

// ---- Arming

/// Notes the id in poItem, which stays the caller's: the record in the list is a copy, since it may have fired and gone
/// before this returns.
bool CZolTimer::schedule(SZolTimerItem *poItem)
{
    if (poItem == nullptr || !poItem->isValid())
    {
        return false;
    }
    CZolDebugInfo oDebug("CZolTimer::schedule");
    long lDelay = 0;
    const long lFirst = nextFiring(LONG_MIN, lDelay, *poItem);
    if (lDelay < 0)
    {
        return false;
    }
    const long lInterval =
        poItem->m_eType == TIMER_MONTH ? getMonthInterval(lFirst, *poItem) : static_cast<long>(poItem->m_uiInterval);
    if (lInterval < 0)
    {
        oDebug.error(scheduleFault(lInterval));
        return false;
    }
    poItem->m_ulTimerId = nextId();
    // the record comes first, so that every firing finds it, also one without a delay
    if (!addRecord(*poItem, lFirst))
    {
        return false;
    }
    const unsigned int uiTimerId = poItem->m_ulTimerId;
    const void *pvArg = reinterpret_cast<const void *>(std::uintptr_t{uiTimerId});
    const long lReactorId =
        CZolTimerTask::instance()->scheduleTimer(this, pvArg, ACE_Time_Value(lDelay, 0), ACE_Time_Value(lInterval, 0));
    if (lReactorId == -1)
    {
        oDebug.error("Fail to register timer in reactor.");
        cancelTimer(uiTimerId);
        return false;
    }
    if (!setReactorId(uiTimerId, lReactorId))
    {
        // Either it was cancelled before its reactor id was known, or it was a one-shot and has fired. The id of one
        // that has fired stands for nothing any more.
        CZolTimerTask::instance()->cancelTimer(lReactorId);
    }
    return true;
}

bool CZolTimer::addRecord(const SZolTimerItem &oItem, long lDueTime)
{
    auto *poNode = new (std::nothrow) SZolTimerNode(oItem, lDueTime);
    if (poNode != nullptr)
    {
        const ACE_Guard<ACE_Mutex> oGuard(m_oTimerLock);
        if (m_poIndex->add(poNode))
        {
            return true;
        }
    }
    delete poNode;
    errno = ENOMEM;
    return false;
}

/// False if the record has gone.
bool CZolTimer::setReactorId(unsigned int uiTimerId, long lReactorId)
{
    const ACE_Guard<ACE_Mutex> oGuard(m_oTimerLock);
    SZolTimerNode *poNode = m_poIndex->find(uiTimerId);
    if (poNode == nullptr)
    {
        return false;
    }
    poNode->m_lReactorId = lReactorId;
    return true;
}

// ---- Firing

int CZolTimer::handle_timeout(const ACE_Time_Value &, const void *pvArg)
{
    const unsigned long ulId = reinterpret_cast<std::uintptr_t>(pvArg);
    if (preciseClockCB(ulId) == 0)
    {
        return 0;
    }
    SZolTimerItem oItem; // a copy: the record may be cancelled at any moment
    long lDueTime = 0;
    {
        const ACE_Guard<ACE_Mutex> oGuard(m_oTimerLock);
        SZolTimerNode *poNode = m_poIndex->find(static_cast<unsigned int>(ulId));
        if (poNode == nullptr)
        {
            return 0;
        }
        if (poNode->m_lReactorId == -1)
        {
            poNode->m_lReactorId = CZolTimerTask::instance()->firingId(); // schedule() has not come to it yet
        }
        oItem = *poNode;
        lDueTime = poNode->m_lDueTime;
        if (oItem.m_eType == TIMER_DAY || oItem.m_eType == TIMER_WEEK)
        {
            lDueTime = currentTime(lDueTime);
            poNode->m_lDueTime = lDueTime + static_cast<long>(oItem.m_uiInterval);
        }
    }
    oItem.sendMessage();
    switch (oItem.m_eType)
    {
    case TIMER_DATE:
        cancelTimer(ulId);
        break;
    case TIMER_DAY:
    case TIMER_WEEK:
        if (lDueTime + static_cast<long>(oItem.m_uiInterval) > oItem.m_lEndTime)
        {
            cancelTimer(ulId);
        }
        break;
    case TIMER_MONTH:
        fireMonth(oItem, lDueTime);
        break;
    default:
        break;
    }
    return 0;
}

/// The reactor has armed the next firing already; what is worked out here is the interval behind that one. The instant
/// that this firing was due at stands in for a clock that has been set back: the month that has just fired would be
/// found once more, and all later intervals be one month off.
void CZolTimer::fireMonth(const SZolTimerItem &oItem, long lDueTime)
{
    long lDelay = 0;
    const long lNext = nextFiring(lDueTime, lDelay, oItem);
    if (lDelay < 0)
    {
        if (lDelay == CZolCalendar::FAILED)
        {
            reportFiring("Can't populate next schedule time! Timer ID:", oItem.m_ulTimerId);
        }
        cancelTimer(oItem.m_ulTimerId);
        return;
    }
    const long lInterval = getMonthInterval(lNext, oItem);
    if (lInterval < 0)
    {
        reportFiring(firingFault(lInterval), oItem.m_ulTimerId);
        cancelTimer(oItem.m_ulTimerId);
        return;
    }
    {
        const ACE_Guard<ACE_Mutex> oGuard(m_oTimerLock);
        SZolTimerNode *poNode = m_poIndex->find(oItem.m_ulTimerId);
        if (poNode == nullptr)
        {
            return; // cancelled meanwhile, and no fault
        }
        poNode->m_lDueTime = lNext;
    }
    if (CZolTimerTask::instance()->resetTimerInterval(oItem.m_lReactorId, ACE_Time_Value(lInterval, 0)) == -1)
    {
        reportFiring("Unable to update timer's interval! TimerID: ", oItem.m_ulTimerId);
        cancelTimer(oItem.m_ulTimerId);
    }
}
