#include "task/ZolProcessHost.h"

#include "ZolAppMgr.h"
#include "ZolErrors.h"
#include "ZolMemMan.h"
#include "ZolTaskMgr.h"
#include "message/ZolInbox.h"
#include "transport/ZolHost.h"

#include <ace/Reactor.h>

namespace
{

class CZolProcessHost : public IZolInbox, public IZolHost
{
public:
    bool hasTaskMgr(unsigned char ucTaskMgrID) const override
    {
        return CZolAppMgr::instance()->findTaskMgr(ucTaskMgrID) != nullptr;
    }

    int deliver(CZolMemBlock *poBlock, unsigned char ucTaskMgrID, bool bPriority) override
    {
        CZolTaskMgr *poTaskMgr = CZolAppMgr::instance()->findTaskMgr(ucTaskMgrID);
        return poTaskMgr != nullptr ? poTaskMgr->enqueueMsg(poBlock, bPriority) : ZOL_ERR_NO_DEST;
    }

    int deliverRequests(CZolMemList &oRequests, unsigned char ucTaskMgrID) override
    {
        CZolTaskMgr *poTaskMgr = CZolAppMgr::instance()->findTaskMgr(ucTaskMgrID);
        if (poTaskMgr == nullptr)
        {
            return ZOL_ERR_NO_DEST;
        }
        poTaskMgr->enqueueRequests(oRequests);
        return ZOL_OK;
    }

    ACE_Reactor *getReactor() override { return CZolAppMgr::instance()->getReactor(); }
    bool isRunning() const override { return CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING; }
    bool isExiting() const override { return CZolAppMgr::instance()->getStatus() == APPMGR_EXIT; }

    bool takeInitialResponse(CZolMsgPdu *poPdu) override
    {
        CZolAppMgr *poAppMgr = CZolAppMgr::instance();
        if (poAppMgr->getStatus() != APPMGR_INITIAL)
        {
            return false;
        }
        // the thread that waits for this answer is the one that calls, inside the reactor's loop
        poAppMgr->getReactor()->end_reactor_event_loop();
        poAppMgr->enqueueMsg(poPdu);
        return true;
    }

    int sendLocal(CZolMsgPdu *&poPdu, unsigned char ucTaskMgrID) override
    {
        return CZolAppMgr::instance()->sendLocalAsynMsg(poPdu, ucTaskMgrID);
    }

    bool hasQueued(unsigned char ucTaskMgrID) override
    {
        CZolTaskMgr *poTaskMgr = CZolAppMgr::instance()->findTaskMgr(ucTaskMgrID);
        return poTaskMgr != nullptr && poTaskMgr->getLengthOfBufferMsg() != 0;
    }

    int subscribe(unsigned int uiCmd, unsigned char ucTaskMgrID, unsigned short usTaskID) override
    {
        return CZolAppMgr::instance()->subscribe(uiCmd, CZolMsgPdu::MSG_SUBSCRIBE, ucTaskMgrID, usTaskID);
    }
};

} // namespace

void zolHostProcess()
{
    static CZolProcessHost *const poHost = new CZolProcessHost; // NOLINT: threads of the library outlive main
    zolSetInbox(*poHost);
    zolSetHost(*poHost);
}
