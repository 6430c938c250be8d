// The half of CZolTimer that turns rules into delays and intervals, and handles their expiry.

#include "ZolErrors.h"
#include "ZolRunLog.h"
#include "ZolTimer.h"
#include "timer/ZolTimerInside.h"
#include "timer/ZolTimerRule.h"
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

const char *scheduleFault(long lFault)
{
    switch (lFault)
    {
    case CZolTimerRule::NO_LOCAL_TIME:
        return "fail to convert first callback time from time_t to tm.";
    case CZolTimerRule::NO_INSTANT:
        return "fail to get second callback time.";
    default:
        return "second callback time is smaller than the first time.";
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

} // namespace

// ---- The calendar

long CZolTimer::getScheduledTime(const struct tm &oReference, const SZolTimerItem &oItem)
{
    return CZolTimerRule::scheduledTime(oReference, oItem);
}

void CZolTimer::getDelay(long &lDelay, const SZolTimerItem &oItem)
{
    CZolTimerRule::nextFiring(LONG_MIN, lDelay, oItem);
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
    const long lFirst = CZolTimerRule::nextFiring(LONG_MIN, lDelay, *poItem);
    if (lDelay < 0)
    {
        return false;
    }
    const long lInterval = poItem->m_eType == TIMER_MONTH ? CZolTimerRule::monthInterval(lFirst, *poItem)
                                                          : static_cast<long>(poItem->m_uiInterval);
    if (lInterval < 0)
    {
        oDebug.error(scheduleFault(lInterval));
        return false;
    }
    poItem->m_ulTimerId = m_poInside->nextId();
    // the record comes first, so that every firing finds it, also one without a delay
    if (!m_poInside->addRecord(*poItem, lFirst))
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
    if (!m_poInside->setReactorId(uiTimerId, lReactorId))
    {
        // Either it was cancelled before its reactor id was known, or it was a one-shot and has fired. The id of one
        // that has fired stands for nothing any more.
        CZolTimerTask::instance()->cancelTimer(lReactorId);
    }
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
        SZolTimerNode *poNode = m_poInside->m_oIndex.find(static_cast<unsigned int>(ulId));
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
        m_poInside->fireMonth(oItem, lDueTime);
        break;
    default:
        break;
    }
    return 0;
}
