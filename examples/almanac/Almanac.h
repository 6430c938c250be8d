#ifndef ALMANAC_ALMANAC_H
#define ALMANAC_ALMANAC_H

#include "zol.h"

/// The task of this example. At the first tick of a timer of its own it sets a timer of each kind, due a second apart,
/// and two precise clocks; it writes every firing to the journal, and ends the process when its time is over.
class CAlmanac : public CZolTask
{
public:
    static const unsigned short TASK_ID = 1;

    explicit CAlmanac(unsigned int uiSeconds) : m_uiSeconds(uiSeconds) {}

    /// Sets the first timer; the task has been added.
    bool start();

    /// Cycle timers come here, with their id.
    void timerCallBack(unsigned long ulTimerID) override;

    /// All other timers come here, with their command, and their id as payload.
    void respMsgProcess(const CZolMsgPdu *poMsg) override;

private:
    enum EnumCommand
    {
        CMD_DUE = 1, ///< a calendar timer has fired
        CMD_CLOSE = 2
    };

    void setTimers();
    void expect(unsigned long ulTimerID, const char *pcName, long lDue);
    static void printDump(const char *pcWhen);

    const unsigned int m_uiSeconds;
    unsigned long m_ulTick = 0;
    bool m_bSet = false;
};

#endif
