#include "task/ZolRoute.h"

#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolTaskMgr.h"
#include "message/ZolIdentity.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolSendMsgTask.h"

SZolRoute zolRoute(const CZolMsgPdu &oMsg)
{
    if (CZolIdentity::own().isDestOf(oMsg))
    {
        CZolTaskMgr *poTaskMgr = CZolAppMgr::instance()->findTaskMgr(oMsg.m_ucDestModule);
        return {poTaskMgr != nullptr ? WAY_LOCAL : WAY_NO_TASKMGR, poTaskMgr};
    }
    const bool bUp = CZolConnMgr::instance()->isConnected(oMsg.m_usDestProcID, oMsg.m_usDestProcHandle);
    return {bUp ? WAY_PIPE : WAY_NO_PIPE, nullptr};
}

int SZolRoute::send(CZolMsgPdu *poMsg) const
{
    CZolMemBlock *poBlock = zolBlockOf(poMsg);
    return m_poTaskMgr != nullptr ? m_poTaskMgr->enqueueMsg(poBlock, true)
                                  : CZolSendMsgTask::instance()->sendMsg(poBlock);
}
