// What a task asks of the library: sending, timers, subscriptions.

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolRunLog.h"
#include "ZolTask.h"
#include "ZolTaskMgr.h"
#include "ZolTimer.h"
#include "config/ZolCounters.h"
#include "task/ZolRoute.h"
#include "task/ZolTaskLog.h"

#include <limits>

int CZolTask::sendAsynMsg(CZolMsgPdu *&poMsg)
{
    CZolDebugInfo oDebug("CZolTask::sendAsynMsg");
    CZolMsgPdu *poTaken = poMsg;
    poMsg = nullptr;
    if (poTaken == nullptr)
    {
        oDebug.error("invalid parameter: null pointer!");
        return ZOL_ERR_FAILED;
    }
    if (m_poTaskMgr == nullptr)
    {
        oDebug.error("please add task to taskmgr.");
        delete poTaken;
        return ZOL_ERR_FAILED;
    }
    const SZolRoute oRoute = zolRoute(*poTaken);
    switch (oRoute.m_eWay)
    {
    case WAY_NO_TASKMGR:
        refuseLocal(poTaken, "CZolTask::sendAsynMsg");
        return ZOL_ERR_NO_DEST;
    case WAY_NO_PIPE:
        zolCount(zolCounters().m_ulNoConnection);
        delete poTaken;
        return ZOL_ERR_INTERRUPTED;
    case WAY_LOCAL:
    case WAY_PIPE:
        break;
    }
    const int iResult = oRoute.send(poTaken);
    if (iResult != ZOL_OK)
    {
        delete poTaken;
    }
    return iResult;
}

void CZolTask::refuseLocal(CZolMsgPdu *poMsg, const char *pcScope) const
{
    zolCount(zolCounters().m_ulNoManager);
    zolFormatError(pcScope,
                   "taskmgr %u task %u send message to local process failed, task not found, Dest: Mod=%u, "
                   "SubMod=%u, cmd=%d",
                   m_poTaskMgr->getTaskMgrID(), m_usTaskID, poMsg->m_ucDestModule, poMsg->m_usDestSubModuleId,
                   poMsg->m_ulCmdID);
    delete poMsg;
}

unsigned long CZolTask::setTimer(unsigned long ulInterval)
{
    if (m_usTaskID == 0 || m_poTaskMgr == nullptr)
    {
        CZolDebugInfo("CZolTask::setTimer").warning("m_usTaskID==0, add task to taskmgr first.");
        return 0;
    }
    const unsigned int uiMgr = m_poTaskMgr->getTaskMgrID();
    unsigned long ulTimerID = 0;
    if (ulInterval <= std::numeric_limits<unsigned int>::max()) // the timer service counts in 32 bits
    {
        ulTimerID = CZolTimer::instance()->setCycleInterval(static_cast<unsigned int>(ulInterval),
                                                            m_poTaskMgr->getTaskMgrID(), 0, m_usTaskID);
    }
    if (ulTimerID != 0)
    {
        zolFormatInfo("CZolTask::setTimer", "taskmgr %u task %u set timer %u(interval=%u) successful.", uiMgr,
                      m_usTaskID, static_cast<unsigned int>(ulTimerID), static_cast<unsigned int>(ulInterval));
        return ulTimerID;
    }
    zolFormatError("CZolTask::setTimer", "taskmgr %u task %u set timer(interval=%u) failed.", uiMgr, m_usTaskID,
                   static_cast<unsigned int>(ulInterval));
    return 0;
}

void CZolTask::cancelTimer(unsigned long ulTimerID)
{
    if (CZolTimer::instance()->cancelTimer(ulTimerID) != ZOL_OK)
    {
        zolFormatError("CZolTask::cancelTimer", "task %u cancel timer %d failed!", m_usTaskID,
                       static_cast<int>(ulTimerID));
        return;
    }
    zolFormatInfo("CZolTask::cancelTimer", "task %u cancel timer %d successful", m_usTaskID,
                  static_cast<int>(ulTimerID));
}

int CZolTask::registerSubscribe(unsigned int uiCmd)
{
    if (m_poTaskMgr == nullptr)
    {
        CZolDebugInfo("CZolTask::subscribe").error("Fail to register subscribe, the task is not initialized.");
        return ZOL_ERR_FAILED;
    }
    return CZolAppMgr::instance()->registerSubscribe(uiCmd, m_poTaskMgr->getTaskMgrID(), m_usTaskID);
}

int CZolTask::cancelSubscribe(unsigned int uiCmd)
{
    if (m_poTaskMgr == nullptr)
    {
        CZolDebugInfo("CZolTask::cancelSubscribe").error("Fail to cancel subscribe, the task is not initialized.");
        return ZOL_ERR_FAILED;
    }
    return CZolAppMgr::instance()->cancelSubscribe(uiCmd, m_poTaskMgr->getTaskMgrID(), m_usTaskID);
}
