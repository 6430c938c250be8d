#include "ZolDateUtil.h"
#include "ZolErrors.h"
#include "ZolMemMan.h"
#include "ZolMsgPdu.h"
#include "ZolRunLog.h"
#include "ZolTimer.h"
#include "message/ZolIdentity.h"
#include "message/ZolInbox.h"
#include "timer/ZolWallClock.h"

#include <cstdio>
#include <cstring>

bool SZolTimerItem::isValid() const
{
    if (m_eType == TIMER_INVALID || !zolInbox().hasTaskMgr(m_ucTaskMgrID))
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
    poPdu->init();
    poPdu->m_ucMsgType = m_eType == TIMER_CYCLE ? CZolMsgPdu::MSG_TIMER : CZolMsgPdu::MSG_REQUEST;
    poPdu->m_ulCmdID = m_uiCmdCode;
    poPdu->m_usSrcProcID = CZolIdentity::own().getProcID();
    poPdu->m_usSrcProcHandle = CZolIdentity::own().getProcHandle();
    poPdu->m_ucDestModule = m_ucTaskMgrID;
    poPdu->m_usDestSubModuleId = m_usTaskID;
    poPdu->m_ulDataLength = sizeof ulTimerId;
    std::memcpy(zolPayload(poPdu), &ulTimerId, sizeof ulTimerId);

    // past the limit of the queue: a full one must never hold up the timer thread
    const int iResult = zolInbox().deliver(zolBlockOf(poPdu), m_ucTaskMgrID, true);
    if (iResult == ZOL_ERR_NO_DEST)
    {
        oDebug.error("Can't find a TaskMgr with specified TaskMgrId");
        delete poPdu;
    }
    else if (iResult != ZOL_OK)
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
