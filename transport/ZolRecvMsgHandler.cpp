#include "transport/ZolRecvMsgHandler.h"

#include "transport/ZolConnMgr.h"

CZolRecvMsgHandler *CZolRecvMsgHandler::instance()
{
    static CZolRecvMsgHandler *const poInstance = new CZolRecvMsgHandler; // NOLINT: threads may outlive main
    return poInstance;
}

int CZolRecvMsgHandler::handle_input(ACE_HANDLE oHandle)
{
    return CZolConnMgr::instance()->recvMsg(oHandle);
}

int CZolRecvMsgHandler::handle_close(ACE_HANDLE oHandle, ACE_Reactor_Mask /*ulMask*/)
{
    CZolConnMgr::instance()->closeConnection(oHandle);
    return 0;
}
