#include "timer/ZolTimerInside.h"

#include "ZolRunLog.h"
#include "timer/ZolCalendar.h"
#include "timer/ZolTimerRule.h"
#include "timer/ZolTimerTask.h"

#include <ace/Guard_T.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <new>

namespace
{

const char *firingFault(long lFault)
{
    switch (lFault)
    {
    case CZolTimerRule::NO_LOCAL_TIME:
        return "fail to convert next callback time from time_t to tm, timerID: ";
    case CZolTimerRule::NO_INSTANT:
        return "fail to get next-next callback time, timerID: ";
    default:
        return "next-next callback time is smaller than the next time, timerID: ";
    }
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

unsigned long CZolTimerInside::set(SZolTimerItem &oItem, unsigned char ucTaskMgrID, unsigned int uiCmdCode,
                                   unsigned short usTaskID)
{
    oItem.m_ucTaskMgrID = ucTaskMgrID;
    oItem.m_uiCmdCode = uiCmdCode;
    oItem.m_usTaskID = usTaskID;
    return m_oTimer.schedule(&oItem) ? oItem.m_ulTimerId : 0;
}

/// A 32-bit number, so that it fits the message. Once the counter has been round, numbers that are still in use are
/// passed over, and 0 always, since it means failure.
unsigned int CZolTimerInside::nextId()
{
    for (;;)
    {
        const unsigned long ulSequence = sequence()++;
        const auto uiId = static_cast<unsigned int>(ulSequence);
        if (ulSequence <= UINT32_MAX || (uiId != 0 && !isInUse(uiId)))
        {
            return uiId;
        }
    }
}

bool CZolTimerInside::isInUse(unsigned int uiId)
{
    {
        const ACE_Guard<ACE_Mutex> oGuard(m_oTimer.m_oTimerLock);
        if (m_oIndex.find(uiId) != nullptr)
        {
            return true;
        }
    }
    const ACE_Guard<ACE_Mutex> oGuard(m_oTimer.m_oClockLock);
    return m_oTimer.m_oClockMap.count(uiId) != 0;
}

bool CZolTimerInside::addRecord(const SZolTimerItem &oItem, long lDueTime)
{
    auto *poNode = new (std::nothrow) SZolTimerNode(oItem, lDueTime);
    if (poNode != nullptr)
    {
        const ACE_Guard<ACE_Mutex> oGuard(m_oTimer.m_oTimerLock);
        if (m_oIndex.add(poNode))
        {
            return true;
        }
    }
    delete poNode;
    errno = ENOMEM;
    return false;
}

bool CZolTimerInside::setReactorId(unsigned int uiTimerId, long lReactorId)
{
    const ACE_Guard<ACE_Mutex> oGuard(m_oTimer.m_oTimerLock);
    SZolTimerNode *poNode = m_oIndex.find(uiTimerId);
    if (poNode == nullptr)
    {
        return false;
    }
    poNode->m_lReactorId = lReactorId;
    return true;
}

/// The reactor has armed the next firing already; what is worked out here is the interval behind that one. The instant
/// that this firing was due at stands in for a clock that has been set back: the month that has just fired would be
/// found once more, and all later intervals be one month off.
void CZolTimerInside::fireMonth(const SZolTimerItem &oItem, long lDueTime)
{
    long lDelay = 0;
    const long lNext = CZolTimerRule::nextFiring(lDueTime, lDelay, oItem);
    if (lDelay < 0)
    {
        if (lDelay == CZolCalendar::FAILED)
        {
            reportFiring("Can't populate next schedule time! Timer ID:", oItem.m_ulTimerId);
        }
        m_oTimer.cancelTimer(oItem.m_ulTimerId);
        return;
    }
    const long lInterval = CZolTimerRule::monthInterval(lNext, oItem);
    if (lInterval < 0)
    {
        reportFiring(firingFault(lInterval), oItem.m_ulTimerId);
        m_oTimer.cancelTimer(oItem.m_ulTimerId);
        return;
    }
    {
        const ACE_Guard<ACE_Mutex> oGuard(m_oTimer.m_oTimerLock);
        SZolTimerNode *poNode = m_oIndex.find(oItem.m_ulTimerId);
        if (poNode == nullptr)
        {
            return; // cancelled meanwhile, and no fault
        }
        poNode->m_lDueTime = lNext;
    }
    if (CZolTimerTask::instance()->resetTimerInterval(oItem.m_lReactorId, ACE_Time_Value(lInterval, 0)) == -1)
    {
        reportFiring("Unable to update timer's interval! TimerID: ", oItem.m_ulTimerId);
        m_oTimer.cancelTimer(oItem.m_ulTimerId);
    }
}

bool CZolTimerInside::addClock(std::unique_ptr<CZolPreciseClock> poClock)
{
    const unsigned long ulClockId = poClock->m_ulClockId;
    const ACE_Guard<ACE_Mutex> oGuard(m_oTimer.m_oClockLock);
    try
    {
        m_oTimer.m_oClockMap.emplace(ulClockId, poClock.get());
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
    poClock.release(); // NOLINT(bugprone-unused-return-value): the map owns it now
    return true;
}

bool CZolTimerInside::setClockReactorId(unsigned long ulClockId, long lReactorId)
{
    const ACE_Guard<ACE_Mutex> oGuard(m_oTimer.m_oClockLock);
    const auto it = m_oTimer.m_oClockMap.find(ulClockId);
    if (it == m_oTimer.m_oClockMap.end())
    {
        return false;
    }
    it->second->m_lReactorId = lReactorId;
    return true;
}
