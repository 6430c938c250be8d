#ifndef ZOL_LISTENER_H
#define ZOL_LISTENER_H

#include "ZolExport.h"

class CZolMsgPdu;

/// Receiver of direct requests: messages that a peer sends on a fresh TCP connection to the port given to
/// zol::bindPort, and waits there for the answer. The application derives and hands its object to zol::setListener.
///
/// Threads:   handleP2PMsg() runs on the one thread of the built-in task manager, so requests come one after the
///            other; a slow listener delays the next request and the debug commands.
/// Ownership: the library never owns the listener; it must outlive its use.
class ZOL_EXPORT CZolListener
{
public:
    CZolListener() = default;
    CZolListener(const CZolListener &) = default;
    CZolListener &operator=(const CZolListener &) = default;
    virtual ~CZolListener() = default;

    /// poRequest stays the library's and is valid during the call, in host order with its payload behind the header.
    /// poResponse comes in null. Set to a PDU built with CZolMsgPdu::operator new and a header length of 28, it goes
    /// back to the caller and is released by the library; left null, the connection is closed without an answer.
    /// The result is not looked at.
    virtual int handleP2PMsg(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse) = 0;
};

#endif
