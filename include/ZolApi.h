#ifndef ZOL_API_H
#define ZOL_API_H

#include "ZolErrors.h"
#include "ZolExport.h"
#include "ZolResMgr.h"
#include "ZolUtil.h"

#include <cstdint>
#include <string>

class CZolMsgPdu;
class CZolListener;

namespace SNACC
{
class AsnType; // an application without ASN.1 bodies needs no header of the ASN.1 runtime
}

/// The queue of one task manager at the moment of the call.
struct SZolTaskMgrStatistics
{
    std::uint64_t m_ulTaskMgrID;
    std::uint64_t m_ulQueuedMessages;
    std::uint64_t m_ulQueuedBytes; ///< headers and bodies
};

/// What zol::getStatistics tells. Only 64-bit words, so that the layout is the same for every compiler; the record
/// grows at its end and nothing in it ever moves.
///
/// Units: sizes are bytes, headers included; everything else is a number of things. The losses count from the start of
/// the process, the rest is a snapshot. Each word is right by itself; no two of them are taken at the same instant.
struct SZolStatistics
{
    static constexpr unsigned int MAX_TASK_MGR = 202; ///< ids 0 to 200 and 254

    std::uint64_t m_ulDroppedNoTask;       ///< no such task, or createTask gave none
    std::uint64_t m_ulDroppedNoManager;    ///< no such task manager
    std::uint64_t m_ulDroppedNoConnection; ///< no pipe to the destination nor to the gateway
    std::uint64_t m_ulDroppedSendFailed;   ///< the socket refused or timed out
    std::uint64_t m_ulDroppedInvalidType;  ///< a type that the receiver has no use for
    std::uint64_t m_ulDroppedBigMsg;       ///< blocks out of order, without their start, or too large
    std::uint64_t m_ulLateResponses;       ///< responses whose caller had gone
    std::uint64_t m_ulLostLogLines;        ///< log lines that were handed over and found the buffer full

    std::uint64_t m_ulSendBytes;       ///< messages that wait for the send thread
    std::uint64_t m_ulPoolSmallFree;   ///< free blocks of 512 bytes
    std::uint64_t m_ulPoolSmallTotal;  ///< all blocks of 512 bytes
    std::uint64_t m_ulPoolMediumFree;  ///< free blocks of 2048 bytes
    std::uint64_t m_ulPoolMediumTotal; ///< all blocks of 2048 bytes
    std::uint64_t m_ulTimersAlive;     ///< timers set and neither fired for the last time nor cancelled
    std::uint64_t m_ulPipesUp;         ///< pipes that are registered and usable, the gateway's included
    std::uint64_t m_ulPipesAll;        ///< these and the ones that are down and will be tried again

    std::uint64_t m_ulTaskMgrCount; ///< valid entries of m_arrTaskMgr, in the order of their registration
    SZolTaskMgrStatistics m_arrTaskMgr[MAX_TASK_MGR];

    std::uint64_t m_ulDroppedTaskEnded; ///< waiting for a task, or on the way to its handler, when it ended
};

/// The free operations of the library: what an application calls besides deriving from CZolTaskMgr and CZolTask.
///
/// Threads:   any, unless a group says otherwise. Synchronous sends at the initial stage only from the thread that
///            called CZolAppMgr::initAppMgr.
/// Ownership: an operation that takes a CZolMsgPdu pointer by reference takes the message over and sets the pointer to
///            null, whatever the outcome. A returned PDU is the caller's, who gives it up with delete.
/// Errors:    codes of ZolErrors.h and a line in the run log; nothing is thrown.
namespace zol
{

// ---- Encoding -----------------------------------------------------------------------------------------------------
// A body is an ASN.1 value or raw bytes; a null one of either form gives an empty payload. The rest of the header is
// filled from the calling thread's current task and the identity of the process.

/// A request, or null if the body cannot be encoded or memory is out.
ZOL_EXPORT CZolMsgPdu *encodeReq(std::uint32_t ulCmdID, const SNACC::AsnType *poBody, std::uint16_t usDestProcID,
                                 std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID);
ZOL_EXPORT CZolMsgPdu *encodeReq(std::uint32_t ulCmdID, const char *pcData, std::uint32_t ulLength,
                                 std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID);

/// The response to oRequest. Null also for a request from this very process that names no sender task.
ZOL_EXPORT CZolMsgPdu *encodeResp(const CZolMsgPdu &oRequest, const SNACC::AsnType *poBody);
ZOL_EXPORT CZolMsgPdu *encodeResp(const CZolMsgPdu &oRequest, const char *pcData, std::uint32_t ulLength);

/// Decodes the payload into oBody; ZOL_ERR_DECODE leaves oBody half filled. Bytes behind the value are no error. Takes
/// at most half a megabyte of the stack, which is enough for a thousand levels of values in values; what is nested
/// deeper is refused.
ZOL_EXPORT int decodeAsn(const CZolMsgPdu &oMsg, SNACC::AsnType &oBody);

/// A copy of header and payload, or null.
ZOL_EXPORT CZolMsgPdu *messageCopy(const CZolMsgPdu &oMsg);

// ---- Sending ------------------------------------------------------------------------------------------------------
// Destinations are process, task manager, task; task 0 has a task created. A send may wait while the queue that it
// goes to is full. What is sent may still be lost on its way: only a response tells that it arrived.

/// 0, or ZOL_ERR_FAILED for any failure.
ZOL_EXPORT int sendReqMsg(std::uint32_t ulCmdID, const SNACC::AsnType *poBody, std::uint16_t usDestProcID,
                          std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID);
ZOL_EXPORT int sendReqMsg(std::uint32_t ulCmdID, const char *pcData, std::uint32_t ulLength, std::uint16_t usDestProcID,
                          std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID);

/// Sends a request and waits up to iTimeout seconds for its response, which is the caller's. Codes of
/// CZolAppMgr::sendSynMsg, which also tells what becomes of poResponse; as it was if the body cannot be encoded.
ZOL_EXPORT int sendSyncReq(std::uint32_t ulCmdID, const SNACC::AsnType *poBody, int iTimeout, CZolMsgPdu *&poResponse,
                           std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID);
ZOL_EXPORT int sendSyncReq(std::uint32_t ulCmdID, const char *pcData, std::uint32_t ulLength, int iTimeout,
                           CZolMsgPdu *&poResponse, std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID,
                           std::uint16_t usDestTaskID);

/// The same, with the response decoded into oResponse; ZOL_ERR_DECODE if that fails.
ZOL_EXPORT int sendSyncReq(std::uint32_t ulCmdID, const SNACC::AsnType *poBody, int iTimeout, SNACC::AsnType &oResponse,
                           std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID, std::uint16_t usDestTaskID);
ZOL_EXPORT int sendSyncReq(std::uint32_t ulCmdID, const char *pcData, std::uint32_t ulLength, int iTimeout,
                           SNACC::AsnType &oResponse, std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID,
                           std::uint16_t usDestTaskID);

/// To every process that the gateway knows. 0, or ZOL_ERR_FAILED.
ZOL_EXPORT int sendBroadCast(std::uint32_t ulCmdID, const SNACC::AsnType *poBody);
ZOL_EXPORT int sendBroadCast(std::uint32_t ulCmdID, const char *pcData, std::uint32_t ulLength);

/// Answers oRequest, which stays the caller's. 0, or ZOL_ERR_FAILED.
ZOL_EXPORT int sendRespMsg(const CZolMsgPdu &oRequest, const SNACC::AsnType *poBody);
ZOL_EXPORT int sendRespMsg(const CZolMsgPdu &oRequest, const char *pcData, std::uint32_t ulLength);

/// Forwards a copy of oMsg; a response to it goes to its first sender. 0, or ZOL_ERR_FAILED.
ZOL_EXPORT int resendMessage(const CZolMsgPdu &oMsg, std::uint16_t usDestProcID, std::uint8_t ucDestTaskMgrID,
                             std::uint16_t usDestTaskID);

/// One direct exchange with a peer's port, over a connection of its own. uiAddr is in network byte order. The response
/// is the caller's; a null ppoResponse means that none is awaited. iTimeout is in seconds and bounds connecting and
/// receiving each; the form with two bounds takes milliseconds.
ZOL_EXPORT int sendP2PMsg(std::uint32_t uiAddr, std::uint16_t usPort, CZolMsgPdu *&poRequest, CZolMsgPdu **ppoResponse,
                          int iTimeout);
ZOL_EXPORT int sendP2PMsg(std::uint32_t uiAddr, std::uint16_t usPort, CZolMsgPdu *&poRequest, CZolMsgPdu **ppoResponse,
                          int iConnectMs, int iReceiveMs);
ZOL_EXPORT int sendP2PMsg(const std::string &strAddr, std::uint16_t usPort, CZolMsgPdu *&poRequest,
                          CZolMsgPdu **ppoResponse, int iTimeout);

// ---- Control of connections: after CZolAppMgr::initAppMgr -----------------------------------------------------------

/// Listens on a port of this process, for direct pipes and direct requests.
ZOL_EXPORT int bindPort(std::uint16_t usPort);

/// Opens a direct pipe to a peer that listens there.
ZOL_EXPORT int connect(const std::string &strAddr, std::uint16_t usPort);

/// The receiver of direct requests. It stays the application's and must outlive its use; before traffic begins.
ZOL_EXPORT void setListener(CZolListener &oListener);

/// Whether the address of the gateway is taken as valid, so that the pipe to it is opened at the next poll.
ZOL_EXPORT void setVEKAddrStatus(bool bValid);

/// Names another gateway.
ZOL_EXPORT int setVEKAddress(const std::string &strAddr, std::uint16_t usPort);

/// Opens the pipe to the gateway now instead of at the next poll; 0 if it is up already.
ZOL_EXPORT int connect2VEK();

/// Closes the pipe to the gateway.
ZOL_EXPORT void shutVEKConnect();

/// Replaces the identity of the process, without telling any peer; before traffic begins.
ZOL_EXPORT void setProcIDAndHandle(std::uint16_t usProcID, std::uint16_t usProcHandle);

/// Lets the built-in task manager forward debug commands. ZOL_ERR_FAILED before initAppMgr.
ZOL_EXPORT int debugCmdResend();

// ---- Watching the process -------------------------------------------------------------------------------------------

/// Fills at most uiBytes bytes of the record, so that an application built against a shorter one stays whole. Costs a
/// few short locks; ZOL_ERR_FAILED for null, ZOL_ERR_STAGE before initAppMgr has succeeded (the losses are filled).
ZOL_EXPORT int getStatistics(SZolStatistics *poStatistics, unsigned int uiBytes);

/// From now on a handler that runs longer than uiLimitMs is named in the log, once for each run. 0 turns it off, which
/// is how a process starts. The check takes place about four times within the limit, on the timer thread. After
/// CZolAppMgr::initAppMgr; before it the call does nothing.
ZOL_EXPORT void setHandlerLimit(unsigned int uiLimitMs);

} // namespace zol

#endif
