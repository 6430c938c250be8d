#ifndef ZOL_TIMER_H
#define ZOL_TIMER_H

#include "ZolExport.h"

#include <ace/Atomic_Op.h>
#include <ace/Event_Handler.h>
#include <ace/Mutex.h>
#include <ace/Thread_Mutex.h>

#include <ctime>
#include <map>
#include <string>

class CZolTimerInside;
struct SZolTimerNode;

/// The kinds of timers, as the dump shows them.
enum EnumTimerType
{
    TIMER_CYCLE = 0, ///< every so many seconds; reaches CZolTask::timerCallBack
    TIMER_DATE = 1,  ///< once; this and all that follow reach the task as a request with the timer id as payload
    TIMER_DAY = 2,   ///< every day at a time of day
    TIMER_WEEK = 3,  ///< every week on a weekday at a time of day
    TIMER_MONTH = 4, ///< every month on a day of the month, or on its last day if it is shorter
    TIMER_INVALID = 5
};

/// One timer: whom to tell, and by which rule. Times are seconds since the epoch.
struct ZOL_EXPORT SZolTimerItem
{
    long m_lReactorId = -1;          ///< what the reactor calls this timer
    unsigned char m_ucTaskMgrID = 0; ///< the task manager to be told
    unsigned short m_usTaskID = 0;   ///< the task to be told
    unsigned int m_uiCmdCode = 0;    ///< command of the message
    EnumTimerType m_eType = TIMER_INVALID;
    unsigned int m_uiTimeSecs = 0xFFFFFFFF; ///< day, week, month: time of day, seconds after local midnight
    unsigned char m_ucDays = 0;             ///< week: 0 is Sunday to 6 is Saturday; month: 1 to 31
    long m_lStartTime = -1;                 ///< date: the moment; day, week, month: start of the period
    long m_lEndTime = -1;                   ///< day, week, month: end of the period
    unsigned int m_ulTimerId = 0;           ///< the id that the caller got
    unsigned int m_uiInterval = 0;          ///< seconds

    /// Whether the rule makes sense now and its task manager exists.
    bool isValid() const;

    /// Puts the message of one firing into the queue of the task manager; never waits for room there.
    void sendMessage() const;

    /// Appends the line of this record in the dump to strText.
    void printf(std::string &strText) const;
};

/// A function that is called on the timer thread every so many milliseconds.
class ZOL_EXPORT CZolPreciseClock
{
public:
    virtual ~CZolPreciseClock() = default;

    long m_lReactorId = 0;
    unsigned long m_ulClockId = 0;
    void (*m_pfnCallback)(unsigned long) = nullptr;
};

/// All live timers, oldest first, linked through the records themselves. The list owns the records.
struct SZolTimerList
{
    unsigned int m_uiCount = 0;
    SZolTimerNode *m_poHead = nullptr;
    SZolTimerNode *m_poTail = nullptr;
};

/// The timers of the process. Whoever asks for one gets an id, and at each expiry the task that was named gets a
/// message; the task's code never runs on the timer thread. Precise clocks share that thread and call a function on it.
///
/// Threads:  every public operation may be called from any thread, also from a handler or a clock's callback.
/// Units:    whole seconds, except for precise clocks. A time of day is seconds after local midnight, 86400 included.
/// Clocks:   delays follow a monotonic clock, so setting the machine's clock neither stalls nor hurries what is armed.
///           Calendar instants are sought by the machine's clock when a timer is set, and for months at each firing.
///           Day and week timers keep exactly 24 hours and 7 days between firings, whatever daylight saving does; month
///           timers keep their time of day.
/// Errors:   set operations give 0 for arguments that make no sense, an unknown task manager, a date that is past, or a
///           period without an instant left; nothing is logged then and nothing is set.
/// Races:    a message that was under way when its timer was cancelled still arrives, and a callback that was running
///           when its clock was cancelled goes on to its end.
/// Cost:     setting, cancelling and firing cost the same with ten timers as with a hundred thousand.
class ZOL_EXPORT CZolTimer : public ACE_Event_Handler
{
public:
    /// The one timer service, made at the first call and never destroyed.
    static CZolTimer *instance();

    /// Starts the timer thread: 0 or -1. CZolAppMgr::initAppMgr calls it, once.
    int init();

    /// Every uiInterval seconds, from one interval from now on, until it is cancelled; below 2^31.
    unsigned long setCycleInterval(unsigned int uiInterval, unsigned char ucTaskMgrID, unsigned int uiCmdCode,
                                   unsigned short usTaskID);

    /// Once, at lTime; the running second is not too late.
    unsigned long setDatePeriod(long lTime, unsigned char ucTaskMgrID, unsigned int uiCmdCode, unsigned short usTaskID);
    unsigned long setDatePeriod(const std::string &strTime, unsigned char ucTaskMgrID, unsigned int uiCmdCode,
                                unsigned short usTaskID);

    /// Every day between lStart and lEnd. The text forms take what CZolDateUtil reads.
    unsigned long setDayPeriod(long lStart, long lEnd, unsigned int uiTimeSecs, unsigned char ucTaskMgrID,
                               unsigned int uiCmdCode, unsigned short usTaskID);
    unsigned long setDayPeriod(const std::string &strStart, const std::string &strEnd, const std::string &strTime,
                               unsigned char ucTaskMgrID, unsigned int uiCmdCode, unsigned short usTaskID);

    /// Every week on ucWeekDay, 0 for Sunday.
    unsigned long setWeekPeriod(long lStart, long lEnd, unsigned char ucWeekDay, unsigned int uiTimeSecs,
                                unsigned char ucTaskMgrID, unsigned int uiCmdCode, unsigned short usTaskID);
    unsigned long setWeekPeriod(const std::string &strStart, const std::string &strEnd, unsigned char ucWeekDay,
                                const std::string &strTime, unsigned char ucTaskMgrID, unsigned int uiCmdCode,
                                unsigned short usTaskID);

    /// Every month on ucMonthDay, 1 to 31; the last day of a month that is too short for it.
    unsigned long setMonthPeriod(long lStart, long lEnd, unsigned char ucMonthDay, unsigned int uiTimeSecs,
                                 unsigned char ucTaskMgrID, unsigned int uiCmdCode, unsigned short usTaskID);
    unsigned long setMonthPeriod(const std::string &strStart, const std::string &strEnd, unsigned char ucMonthDay,
                                 const std::string &strTime, unsigned char ucTaskMgrID, unsigned int uiCmdCode,
                                 unsigned short usTaskID);

    /// 0, or ZOL_ERR_NO_DEST if there is no such timer.
    int cancelTimer(unsigned long ulTimerID);

    /// Cancels every timer of one task; 0 also if it has none. Costs nothing to speak of then.
    int cancelTimer(unsigned char ucTaskMgrID, unsigned short usTaskID);

    /// Calls pfnCallback with the clock's id every uiMilliseconds, first one period from now: the id, or 0. A callback
    /// that takes long holds up every timer of the process; periods that it outlasts are skipped. One that throws
    /// leaves a fatal line, and its clock goes on.
    unsigned long registerPreciseClock(unsigned int uiMilliseconds, void (*pfnCallback)(unsigned long));

    /// Stops a clock; a callback may stop its own. Ignores any other id.
    void cancelPreciseClock(unsigned long ulClockId);

    /// Replaces strText by the dump: a headline, then one line for each timer, oldest first.
    void printf(std::string &strText);

    /// How many timers are alive, clocks not counted.
    unsigned int getTimerCount();

    /// One expiry, on the timer thread; pvArg is the id.
    int handle_timeout(const ACE_Time_Value &oNow, const void *pvArg) override;

private:
    friend class CZolTimerInside;

    CZolTimer();
    ~CZolTimer() override;

    bool schedule(SZolTimerItem *poItem);
    void getDelay(long &lDelay, const SZolTimerItem &oItem);
    long getScheduledTime(const struct tm &oReference, const SZolTimerItem &oItem);
    int preciseClockCB(unsigned long ulId);

    SZolTimerList m_oTimerList; // guarded by m_oTimerLock; owns the records
    ACE_Mutex m_oTimerLock;     // leaf: nothing is taken under it, and no reactor call is made
    ACE_Mutex m_oClockLock;     // leaf, as m_oTimerLock; the two are never held together
    std::map<unsigned long, CZolPreciseClock *> m_oClockMap; // guarded by m_oClockLock; owns the clocks
    static CZolTimer *sm_poInstance;
    static ACE_Atomic_Op<ACE_Thread_Mutex, unsigned long> sm_oSequenceId; // its low 32 bits are the next id

    CZolTimerInside *const m_poInside; // owned
};

#endif
