#include "ZolTimer.h"

#include "ZolDateUtil.h"
#include "ZolErrors.h"
#include "ZolRunLog.h"
#include "timer/ZolTimerInside.h"
#include "timer/ZolTimerTask.h"

#include <ace/Guard_T.h>

#include <cstdint>

namespace
{

/// A time of day as text to seconds after midnight.
bool toSecondsOfDay(const std::string &strTime, unsigned int &uiTimeSecs)
{
    struct tm oTime = {};
    if (!CZolDateUtil::fillTime(strTime, oTime))
    {
        return false;
    }
    uiTimeSecs = static_cast<unsigned int>(oTime.tm_hour * 3600 + oTime.tm_min * 60 + oTime.tm_sec);
    return true;
}

bool toPeriod(const std::string &strStart, const std::string &strEnd, long &lStart, long &lEnd)
{
    lStart = CZolDateUtil::strToTime(strStart);
    lEnd = CZolDateUtil::strToTime(strEnd);
    return lStart != -1 && lEnd != -1;
}

SZolTimerItem periodItem(EnumTimerType eType, long lStart, long lEnd, unsigned char ucDays, unsigned int uiTimeSecs)
{
    SZolTimerItem oItem;
    oItem.m_eType = eType;
    oItem.m_lStartTime = lStart;
    oItem.m_lEndTime = lEnd;
    oItem.m_ucDays = ucDays;
    oItem.m_uiTimeSecs = uiTimeSecs;
    return oItem;
}

} // namespace

CZolTimer *CZolTimer::sm_poInstance = nullptr;
ACE_Atomic_Op<ACE_Thread_Mutex, unsigned long> CZolTimer::sm_oSequenceId(1);

CZolTimer::CZolTimer() : m_poInside(new CZolTimerInside(*this)) {}

CZolTimer::~CZolTimer()
{
    while (m_oTimerList.m_poHead != nullptr)
    {
        delete m_poInside->m_oIndex.remove(m_oTimerList.m_poHead->m_ulTimerId);
    }
    for (const auto &oClock : m_oClockMap)
    {
        delete oClock.second;
    }
    delete m_poInside;
}

CZolTimer *CZolTimer::instance()
{
    static CZolTimer *const poInstance = sm_poInstance = new CZolTimer; // the timer thread outlives main
    return poInstance;
}

int CZolTimer::init()
{
    if (CZolTimerTask::instance()->open(nullptr) != 0)
    {
        CZolRunLog::startupLog("CZolTimer::init failed to initialize the zol timer task.");
        return ZOL_ERR_FAILED;
    }
    reactor(&CZolTimerTask::instance()->timerReactor());
    return ZOL_OK;
}

// ---- Setting

unsigned long CZolTimer::setCycleInterval(unsigned int uiInterval, unsigned char ucTaskMgrID, unsigned int uiCmdCode,
                                          unsigned short usTaskID)
{
    SZolTimerItem oItem;
    oItem.m_eType = TIMER_CYCLE;
    oItem.m_uiInterval = uiInterval;
    return m_poInside->set(oItem, ucTaskMgrID, uiCmdCode, usTaskID);
}

unsigned long CZolTimer::setDatePeriod(long lTime, unsigned char ucTaskMgrID, unsigned int uiCmdCode,
                                       unsigned short usTaskID)
{
    SZolTimerItem oItem;
    oItem.m_eType = TIMER_DATE;
    oItem.m_lStartTime = lTime;
    return m_poInside->set(oItem, ucTaskMgrID, uiCmdCode, usTaskID);
}

unsigned long CZolTimer::setDatePeriod(const std::string &strTime, unsigned char ucTaskMgrID, unsigned int uiCmdCode,
                                       unsigned short usTaskID)
{
    const long lTime = CZolDateUtil::strToTime(strTime);
    return lTime != -1 ? setDatePeriod(lTime, ucTaskMgrID, uiCmdCode, usTaskID) : 0;
}

unsigned long CZolTimer::setDayPeriod(long lStart, long lEnd, unsigned int uiTimeSecs, unsigned char ucTaskMgrID,
                                      unsigned int uiCmdCode, unsigned short usTaskID)
{
    SZolTimerItem oItem = periodItem(TIMER_DAY, lStart, lEnd, 0, uiTimeSecs);
    oItem.m_uiInterval = CZolDateUtil::ONE_DAY;
    return m_poInside->set(oItem, ucTaskMgrID, uiCmdCode, usTaskID);
}

unsigned long CZolTimer::setDayPeriod(const std::string &strStart, const std::string &strEnd,
                                      const std::string &strTime, unsigned char ucTaskMgrID, unsigned int uiCmdCode,
                                      unsigned short usTaskID)
{
    long lStart = -1;
    long lEnd = -1;
    unsigned int uiTimeSecs = 0;
    if (!toPeriod(strStart, strEnd, lStart, lEnd) || !toSecondsOfDay(strTime, uiTimeSecs))
    {
        return 0;
    }
    return setDayPeriod(lStart, lEnd, uiTimeSecs, ucTaskMgrID, uiCmdCode, usTaskID);
}

unsigned long CZolTimer::setWeekPeriod(long lStart, long lEnd, unsigned char ucWeekDay, unsigned int uiTimeSecs,
                                       unsigned char ucTaskMgrID, unsigned int uiCmdCode, unsigned short usTaskID)
{
    SZolTimerItem oItem = periodItem(TIMER_WEEK, lStart, lEnd, ucWeekDay, uiTimeSecs);
    oItem.m_uiInterval = CZolDateUtil::ONE_WEEK;
    return m_poInside->set(oItem, ucTaskMgrID, uiCmdCode, usTaskID);
}

unsigned long CZolTimer::setWeekPeriod(const std::string &strStart, const std::string &strEnd, unsigned char ucWeekDay,
                                       const std::string &strTime, unsigned char ucTaskMgrID, unsigned int uiCmdCode,
                                       unsigned short usTaskID)
{
    long lStart = -1;
    long lEnd = -1;
    unsigned int uiTimeSecs = 0;
    if (!toPeriod(strStart, strEnd, lStart, lEnd) || !toSecondsOfDay(strTime, uiTimeSecs))
    {
        return 0;
    }
    return setWeekPeriod(lStart, lEnd, ucWeekDay, uiTimeSecs, ucTaskMgrID, uiCmdCode, usTaskID);
}

unsigned long CZolTimer::setMonthPeriod(long lStart, long lEnd, unsigned char ucMonthDay, unsigned int uiTimeSecs,
                                        unsigned char ucTaskMgrID, unsigned int uiCmdCode, unsigned short usTaskID)
{
    SZolTimerItem oItem = periodItem(TIMER_MONTH, lStart, lEnd, ucMonthDay, uiTimeSecs);
    oItem.m_uiInterval = 7 * CZolDateUtil::ONE_WEEK; // for the dump only: every firing works its own interval out
    return m_poInside->set(oItem, ucTaskMgrID, uiCmdCode, usTaskID);
}

unsigned long CZolTimer::setMonthPeriod(const std::string &strStart, const std::string &strEnd,
                                        unsigned char ucMonthDay, const std::string &strTime, unsigned char ucTaskMgrID,
                                        unsigned int uiCmdCode, unsigned short usTaskID)
{
    long lStart = -1;
    long lEnd = -1;
    unsigned int uiTimeSecs = 0;
    if (!toPeriod(strStart, strEnd, lStart, lEnd) || !toSecondsOfDay(strTime, uiTimeSecs))
    {
        return 0;
    }
    return setMonthPeriod(lStart, lEnd, ucMonthDay, uiTimeSecs, ucTaskMgrID, uiCmdCode, usTaskID);
}

// ---- Cancelling

int CZolTimer::cancelTimer(unsigned long ulTimerID)
{
    SZolTimerNode *poNode = nullptr;
    if (ulTimerID <= UINT32_MAX)
    {
        const ACE_Guard<ACE_Mutex> oGuard(m_oTimerLock);
        poNode = m_poInside->m_oIndex.remove(static_cast<unsigned int>(ulTimerID));
    }
    if (poNode == nullptr)
    {
        return ZOL_ERR_NO_DEST;
    }
    CZolTimerTask::instance()->cancelTimer(poNode->m_lReactorId);
    delete poNode;
    return ZOL_OK;
}

int CZolTimer::cancelTimer(unsigned char ucTaskMgrID, unsigned short usTaskID)
{
    SZolTimerNode *poNode = nullptr;
    {
        const ACE_Guard<ACE_Mutex> oGuard(m_oTimerLock);
        poNode = m_poInside->m_oIndex.removeTask(ucTaskMgrID, usTaskID);
    }
    while (poNode != nullptr)
    {
        SZolTimerNode *poNext = poNode->m_poTaskNext;
        CZolTimerTask::instance()->cancelTimer(poNode->m_lReactorId);
        delete poNode;
        poNode = poNext;
    }
    return ZOL_OK;
}

// ---- Looking

void CZolTimer::printf(std::string &strText)
{
    const ACE_Guard<ACE_Mutex> oGuard(m_oTimerLock);
    strText = "zOL Timer List:\n";
    for (const SZolTimerNode *poNode = m_oTimerList.m_poHead; poNode != nullptr; poNode = poNode->m_poNext)
    {
        poNode->printf(strText);
    }
}

unsigned int CZolTimer::getTimerCount()
{
    const ACE_Guard<ACE_Mutex> oGuard(m_oTimerLock);
    return m_oTimerList.m_uiCount;
}
