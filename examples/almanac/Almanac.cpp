#include "Almanac.h"

#include "Journal.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace
{

std::string dateAndTime(long lTime)
{
    std::string strText;
    CZolDateUtil::timeToStr(lTime, strText);
    return strText;
}

std::string timeOfDay(long lTime)
{
    return dateAndTime(lTime).substr(11);
}

struct tm localTm(long lTime)
{
    const time_t lSeconds = lTime;
    struct tm oLocal = {};
    localtime_r(&lSeconds, &oLocal);
    return oLocal;
}

/// On the timer thread: whatever takes long here holds up every timer of the process.
void clockTicks(unsigned long ulClockId)
{
    CJournal::instance().fired(ulClockId);
}

void startClock(unsigned int uiMilliseconds, const char *pcName)
{
    const long long llPeriod = uiMilliseconds * 1000LL;
    const long long llNow = CJournal::now();
    const unsigned long ulClockId = CZolTimer::instance()->registerPreciseClock(uiMilliseconds, clockTicks);
    CJournal::instance().expect(ulClockId, pcName, llNow + llPeriod, llPeriod);
}

} // namespace

bool CAlmanac::start()
{
    const long long llNow = CJournal::now();
    m_ulTick = setTimer(1);
    CJournal::instance().expect(m_ulTick, "cycle, every second", llNow + 1000000, 1000000);
    return m_ulTick != 0;
}

void CAlmanac::timerCallBack(unsigned long ulTimerID)
{
    if (!m_bSet)
    {
        m_bSet = true;
        setTimers();
        printDump("with all timers set");
        CJournal::printHeadline();
    }
    CJournal::instance().fired(ulTimerID);
}

void CAlmanac::setTimers()
{
    CZolTimer *const poTimer = CZolTimer::instance();
    const unsigned char ucMgr = getTaskMgr()->getTaskMgrID();
    const long lNow = time(nullptr);
    const long lEnd = lNow + 366L * CZolDateUtil::ONE_DAY;

    expect(poTimer->setDatePeriod(lNow + 2, ucMgr, CMD_DUE, getTaskID()), "date, by number", lNow + 2);
    expect(poTimer->setDatePeriod(dateAndTime(lNow + 2), ucMgr, CMD_DUE, getTaskID()), "date, by text", lNow + 2);
    expect(
        poTimer->setDayPeriod(dateAndTime(lNow), dateAndTime(lEnd), timeOfDay(lNow + 3), ucMgr, CMD_DUE, getTaskID()),
        "every day at this time", lNow + 3);
    const struct tm oWeek = localTm(lNow + 4);
    expect(poTimer->setWeekPeriod(dateAndTime(lNow), dateAndTime(lEnd), static_cast<unsigned char>(oWeek.tm_wday),
                                  timeOfDay(lNow + 4), ucMgr, CMD_DUE, getTaskID()),
           "every week on this day", lNow + 4);
    const struct tm oMonth = localTm(lNow + 5);
    expect(poTimer->setMonthPeriod(dateAndTime(lNow), dateAndTime(lEnd), static_cast<unsigned char>(oMonth.tm_mday),
                                   timeOfDay(lNow + 5), ucMgr, CMD_DUE, getTaskID()),
           "every month on this day", lNow + 5);
    startClock(400, "precise clock, 400 ms");
    startClock(1500, "precise clock, 1500 ms");
    poTimer->setDatePeriod(lNow + static_cast<long>(m_uiSeconds), ucMgr, CMD_CLOSE, getTaskID());
}

/// Only what the time of this program holds, so that it can tell whether all has come.
void CAlmanac::expect(unsigned long ulTimerID, const char *pcName, long lDue)
{
    if (ulTimerID == 0)
    {
        std::printf("refused: %s\n", pcName);
    }
    if (lDue < static_cast<long>(time(nullptr)) + static_cast<long>(m_uiSeconds))
    {
        CJournal::instance().expect(ulTimerID, pcName, lDue * 1000000LL, 0);
    }
}

void CAlmanac::respMsgProcess(const CZolMsgPdu *poMsg)
{
    if (poMsg->m_ulCmdID == CMD_CLOSE)
    {
        printDump("at the end: the dates have gone");
        CZolAppMgr::instance()->exitThreads();
        return;
    }
    ACE_UINT32 ulTimerId = 0;
    std::memcpy(&ulTimerId, zolPayload(poMsg), sizeof ulTimerId);
    CJournal::instance().fired(ulTimerId);
}

void CAlmanac::printDump(const char *pcWhen)
{
    std::string strText;
    CZolTimer::instance()->printf(strText);
    std::printf("\nThe dump %s:\n%s\n", pcWhen, strText.c_str());
}
