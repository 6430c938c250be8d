#ifndef ZOL_TRANSPORT_ZOLPIPESENDER_H
#define ZOL_TRANSPORT_ZOLPIPESENDER_H

#include "transport/ZolConnection.h"

#include <cstdint>
#include <memory>

class CZolDebugInfo;

/// The pipes as the sender sees them. The connection manager stands behind it; in a test, a list of bytes.
class IZolPipes
{
public:
    virtual ~IZolPipes() = default;

    /// Grows with each change of the pipes: what was chosen holds until then.
    virtual std::uint64_t getVersion() const = 0;

    /// The pipe for a message in host order; null if there is none.
    virtual CZolConnRef chooseConnection(const CZolMsgPdu *poPdu) = 0;

    /// Sends all bytes: uiLen, or a failure below 1, after which a pipe that ends inside a message is closed.
    virtual int sendOn(CZolConnection *poConn, const void *pvBuf, unsigned int uiLen) = 0;
};

/// The way out: small messages packed into batches of at most 8188 bytes, each for one pipe, and big ones cut into
/// blocks in place. The order of messages stays as it is, on each pipe and in total. What cannot be sent is logged,
/// counted and gone.
///
/// Threads:   the send thread only; it alone writes messages to pipes.
/// Ownership: owned by the connection manager; references of connections are held within a call only.
/// Locks:     none. Those of the pipes are taken and released inside the calls of IZolPipes.
class CZolPipeSender
{
public:
    explicit CZolPipeSender(IZolPipes &oPipes); ///< oPipes must outlive it

    /// Sends all messages of the list and frees them.
    void processMsg(CZolMemList *poList);

    /// Sends one message in blocks: 0; ZOL_ERR_MSG_TYPE for a type that has no blocks; -1. The PDU stays the caller's,
    /// its payload used up and its header as before.
    int processBigMsg(CZolMsgPdu *poPdu);

    /// One line that names the messages, in wire order, of a batch that could not be sent.
    static void logSendFailure(const char *pcBuf, int iLen, CZolDebugInfo *poLog);

private:
    // What processMsg() has gathered in m_pcSendBuf and not yet sent, and how it last chose.
    struct SBatch
    {
        unsigned int m_uiUsed = 0;
        CZolConnRef m_oConn; // where those bytes go
        CZolConnRef m_oChoice;
        std::uint32_t m_uiChoiceKey = 0;
        std::uint64_t m_ulChoiceVersion = 0; // 0: none yet
    };

    const CZolConnRef &chooseForBatch(const CZolMsgPdu *poPdu, SBatch &oBatch);
    int sendBlocks(CZolConnection *poConn, CZolMsgPdu *poPdu, CZolMsgPdu *poTemplate);
    void flush(SBatch &oBatch, CZolDebugInfo *poLog);
    void sendBig(CZolMsgPdu *poPdu, CZolDebugInfo *poLog);
    void sendSmall(CZolMsgPdu *poPdu, SBatch &oBatch, CZolDebugInfo *poLog);

    IZolPipes &m_oPipes;
    const std::unique_ptr<char[]> m_pcSendBuf; // the batch
};

#endif
