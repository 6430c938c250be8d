#include "ZolAppMgr.h"
#include "ZolDateUtil.h"
#include "ZolMemMan.h"
#include "ZolMsgPdu.h"
#include "ZolRunLog.h"
#include "ZolTaskMgr.h"
#include "ZolTimer.h"
#include "timer/ZolWallClock.h"

#include <cstdio>
#include <cstring>

bool SZolTimerItem::isValid() const
{
    if (m_eType == TIMER_INVALID || CZolAppMgr::instance()->findTaskMgr(m_ucTaskMgrID) == nullptr)
    {
        return false;
    }
    switch (m_eType)
    {
    case TIMER_DATE:
        return m_lStartTime >= CZolWallClock::now();
    case TIMER_CYCLE:
        return m_uiInterval > 0;
    case TIMER_WEEK:
        return m_lStartTime < m_lEndTime && m_uiTimeSecs <= CZolDateUtil::ONE_DAY && m_ucDays <= 6;
    case TIMER_MONTH:
        return m_lStartTime < m_lEndTime && m_uiTimeSecs <= CZolDateUtil::ONE_DAY && m_ucDays >= 1 && m_ucDays <= 31;
    default:
        return m_lStartTime < m_lEndTime && m_uiTimeSecs <= CZolDateUtil::ONE_DAY;
    }
}

void SZolTimerItem::sendMessage() const
{
    CZolDebugInfo oDebug("SZolTimerItem::sendMessage");
    const ACE_UINT32 ulTimerId = m_ulTimerId;
    auto *poPdu = new (static_cast<unsigned int>(sizeof(CZolMsgPdu) + sizeof ulTimerId)) CZolMsgPdu;
    if (poPdu == nullptr)
    {
        oDebug.error("no memory for the message of a timer");
        return;
    }
    CZolAppMgr *poAppMgr = CZolAppMgr::instance();
    poPdu->init();
    poPdu->m_ucMsgType = m_eType == TIMER_CYCLE ? CZolMsgPdu::MSG_TIMER : CZolMsgPdu::MSG_REQUEST;
    poPdu->m_ulCmdID = m_uiCmdCode;
    poPdu->m_usSrcProcID = poAppMgr->getProcID();
    poPdu->m_usSrcProcHandle = poAppMgr->getProcHandle();
    poPdu->m_ucDestModule = m_ucTaskMgrID;
    poPdu->m_usDestSubModuleId = m_usTaskID;
    poPdu->m_ulDataLength = sizeof ulTimerId;
    std::memcpy(reinterpret_cast<char *>(poPdu) + sizeof(CZolMsgPdu), &ulTimerId, sizeof ulTimerId);

    CZolTaskMgr *poTaskMgr = poAppMgr->findTaskMgr(m_ucTaskMgrID);
    if (poTaskMgr == nullptr)
    {
        oDebug.error("Can't find a TaskMgr with specified TaskMgrId");
        delete poPdu;
        return;
    }
    // past the limit of the queue: a full one must never hold up the timer thread
    if (poTaskMgr->enqueueMsg(zolBlockOf(poPdu), true) == -1)
    {
        if (CZolRunLog::isReady())
        {
            std::string strPdu;
            poPdu->printf(strPdu);
            oDebug.error(("Can't send message using CZolTaskMgr::enqueueMsg()" + strPdu).c_str());
        }
        delete poPdu;
    }
}

void SZolTimerItem::printf(std::string &strText) const
{
    char acLine[320];
    std::snprintf(acLine, sizeof acLine,
                  "    timerid: %u (reactorid: %ld) , type: %d, TaskMgrID: %u, TaskID: %u, CmdCode: %u, Interval: %u, "
                  "TimeSecs: %u, Days: %u, StartTime: %ld, EndTime: %ld\n",
                  m_ulTimerId, m_lReactorId, static_cast<int>(m_eType), static_cast<unsigned int>(m_ucTaskMgrID),
                  static_cast<unsigned int>(m_usTaskID), m_uiCmdCode, m_uiInterval, m_uiTimeSecs,
                  static_cast<unsigned int>(m_ucDays), m_lStartTime, m_lEndTime);
    strText += acLine;
}
