#ifndef ZOL_TRANSPORT_ZOLRECVMSGHANDLER_H
#define ZOL_TRANSPORT_ZOLRECVMSGHANDLER_H

#include <ace/Event_Handler.h>

/// The one event handler under which all pipes are registered with the reactor of the process; the descriptor tells
/// them apart. Without data; created by initAppMgr, never destroyed.
class CZolRecvMsgHandler : public ACE_Event_Handler
{
public:
    static CZolRecvMsgHandler *instance();
    ~CZolRecvMsgHandler() override = default;

    int handle_input(ACE_HANDLE oHandle) override;                   ///< 0 always
    int handle_close(ACE_HANDLE oHandle, ACE_Reactor_Mask) override; ///< 0; in whichever thread removed the handle

private:
    CZolRecvMsgHandler() = default;
};

#endif
