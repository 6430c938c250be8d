// The way in: bytes of the socket, cut into messages, and what becomes of each by its type.

#include "ZolErrors.h"
#include "ZolRunLog.h"
#include "config/ZolCounters.h"
#include "message/ZolInbox.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolConnection.h"
#include "transport/ZolFieldTail.h"
#include "transport/ZolHost.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolSocket.h"

#include <ace/Guard_T.h>
#include <ace/Reactor.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sys/socket.h>

int CZolConnection::recv(void *pvBuf, unsigned int uiLen)
{
    return recvInLife(pvBuf, uiLen, getLife());
}

int CZolConnection::recvInLife(void *pvBuf, unsigned int uiLen, unsigned int uiLife)
{
    ssize_t iRead = -1;
    {
        // A pipe comes up under this lock exclusive, so a reader of its last life never meets the new socket.
        ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oPipeLock, -1);
        if (getLife() != uiLife)
        {
            return -1;
        }
        do
        {
            iRead = ::recv(getHandle(), pvBuf, uiLen, MSG_DONTWAIT);
        } while (iRead < 0 && errno == EINTR);
    }
    if (iRead > 0)
    {
        setLastRecvTime(zolsocket::wallSeconds());
        return static_cast<int>(iRead);
    }
    return iRead < 0 && (errno == EWOULDBLOCK || errno == EAGAIN) ? 0 : -1;
}

int CZolConnection::receive()
{
    m_oRecvLock.acquire();
    // The life first: a pipe that turns over between the two lines then fails the read, instead of adding the bytes of
    // its new life to what is left of the old one.
    const unsigned int uiLife = getLife();
    if (m_bResetDue.exchange(false))
    {
        reset();
    }
    const int iResult = readAndCut(uiLife);
    m_oRecvLock.release();
    resetIfDue();
    if (iResult < 0 && CZolRunLog::isReady())
    {
        char acText[96];
        snprintf(acText, sizeof acText, "receive() return %d, error in network connection.", iResult);
        CZolDebugInfo("CZolConnection::receive").info(acText);
    }
    return iResult;
}

int CZolConnection::readAndCut(unsigned int uiLife)
{
    if (!m_bNonBlock)
    {
        // with the lock, since a descriptor that is closed meanwhile may come back as somebody else's
        ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oPipeLock, -1);
        if (getLife() != uiLife || !getPipeStatus())
        {
            return -1;
        }
        zolsocket::prepare(getHandle());
        m_bNonBlock = true;
    }
    for (;;)
    {
        const std::uint32_t uiRoom = m_uiRecvBufferLength - m_ulRecvLen;
        const int iRead = recvInLife(m_pcRecvBuf + m_ulRecvLen, uiRoom, uiLife);
        if (iRead <= 0)
        {
            return iRead;
        }
        m_ulRecvLen += static_cast<std::uint32_t>(iRead);
        if (!cutMessages())
        {
            return -1;
        }
        // A read that did not fill the buffer took all there was; the reactor tells of what comes after it.
        if (static_cast<std::uint32_t>(iRead) < uiRoom)
        {
            return 0;
        }
    }
}

bool CZolConnection::cutMessages()
{
    std::uint32_t uiAt = 0;
    SRun oRun;
    while (uiAt < m_ulRecvLen)
    {
        const std::uint32_t uiHave = m_ulRecvLen - uiAt;
        if (m_poCurPdu == nullptr)
        {
            if (uiHave < zolpipe::HEADER_LENGTH)
            {
                deliverRun(oRun);
                keepPartOfHeader(uiAt);
                return true;
            }
            if (!startPdu(m_pcRecvBuf + uiAt))
            {
                deliverRun(oRun);
                return false;
            }
        }
        char *pcTo = reinterpret_cast<char *>(m_poCurPdu) + m_ulPduFilled;
        if (uiHave < m_ulPduLeft)
        {
            std::memcpy(pcTo, m_pcRecvBuf + uiAt, uiHave);
            m_ulPduFilled += uiHave;
            m_ulPduLeft -= uiHave;
            break;
        }
        std::memcpy(pcTo, m_pcRecvBuf + uiAt, m_ulPduLeft);
        uiAt += m_ulPduLeft;
        CZolMsgPdu *poPdu = m_poCurPdu;
        m_poCurPdu = nullptr; // gone before it is handed on: the dispatcher owns it
        m_ulPduFilled = 0;
        m_ulPduLeft = 0;
        ntohPdu(poPdu);
        if (!joinsRun(poPdu, oRun))
        {
            deliverRun(oRun);
            dispatchMsg(poPdu);
        }
    }
    deliverRun(oRun);
    m_ulRecvLen = 0;
    return true;
}

// Requests for the same task manager that stand behind each other in the buffer go to its queue in one step: one lock
// and one wake-up for what may be a thousand messages. Everything else ends the run, so the order stays.
bool CZolConnection::joinsRun(CZolMsgPdu *poPdu, SRun &oRun)
{
    if (poPdu->m_ucMsgType != CZolMsgPdu::MSG_REQUEST || isForgedRequest(*poPdu))
    {
        return false;
    }
    if (oRun.m_oRequests.m_ulCount == 0 || oRun.m_ucModule != poPdu->m_ucDestModule)
    {
        deliverRun(oRun);
        if (!zolInbox().hasTaskMgr(poPdu->m_ucDestModule))
        {
            return false;
        }
        oRun.m_ucModule = poPdu->m_ucDestModule;
    }
    if (m_ePipeType != CONN_VEK)
    {
        poPdu->printf();
    }
    oRun.m_oRequests.insert(zolBlockOf(poPdu));
    return true;
}

void CZolConnection::deliverRun(SRun &oRun)
{
    if (oRun.m_oRequests.m_ulCount != 0)
    {
        zolInbox().deliverRequests(oRun.m_oRequests, oRun.m_ucModule);
    }
}

void CZolConnection::keepPartOfHeader(std::uint32_t uiAt)
{
    m_ulRecvLen -= uiAt;
    if (uiAt != 0)
    {
        std::memmove(m_pcRecvBuf, m_pcRecvBuf + uiAt, m_ulRecvLen);
    }
}

bool CZolConnection::startPdu(const char *pcHeader)
{
    const std::uint16_t usHeader = zolpipe::wireHeaderLength(pcHeader);
    const std::uint64_t ulTotal = std::uint64_t(usHeader) + zolpipe::wireDataLength(pcHeader);
    if (usHeader < zolpipe::HEADER_LENGTH || ulTotal > std::numeric_limits<std::uint32_t>::max() - ZOL_BLOCK_HEADER)
    {
        return false;
    }
    m_poCurPdu = new (static_cast<unsigned int>(ulTotal)) CZolMsgPdu;
    m_ulPduLeft = static_cast<std::uint32_t>(ulTotal);
    m_ulPduFilled = 0;
    return m_poCurPdu != nullptr;
}

void CZolConnection::reset()
{
    CZolRunLog::info("CZolConnection::reset CZolConnection will be reset!");
    m_bNonBlock = false;
    m_ulRecvLen = 0;
    m_ulPduFilled = 0;
    m_ulPduLeft = 0;
    delete m_poCurPdu;
    m_poCurPdu = nullptr;
    for (SZolBigMsgItem *poItem : m_oBigMsgList)
    {
        freeBlocks(poItem);
    }
    m_oBigMsgList.clear();
    m_oBigMsgIndex.clear();
}

// Whoever cannot take the lock leaves the work to its holder, who looks here again after giving it up.
void CZolConnection::resetIfDue()
{
    while (m_bResetDue.load() && m_oRecvLock.tryacquire() == 0)
    {
        if (m_bResetDue.exchange(false))
        {
            reset();
        }
        m_oRecvLock.release();
    }
}

void CZolConnection::dispatchMsg(CZolMsgPdu *poPdu)
{
    if (poPdu == nullptr)
    {
        CZolDebugInfo("CZolConnection::dispatchMsg").error("invalid parameter, null pointer!");
        return;
    }
    if (m_ePipeType != CONN_VEK)
    {
        poPdu->printf();
    }
    switch (poPdu->m_ucMsgType)
    {
    case CZolMsgPdu::MSG_REQUEST:
    case CZolMsgPdu::MSG_RESPONSE:
        deliverOrDrop(poPdu, "CZolConnection::dispatchMsg");
        return;
    case CZolMsgPdu::MSG_BIG_REQUEST:
    case CZolMsgPdu::MSG_BIG_RESPONSE:
        processBigMsgBlock(poPdu);
        return;
    case CZolMsgPdu::MSG_REGISTER:
    case CZolMsgPdu::MSG_TIMER:
        break;
    case CZolMsgPdu::MSG_HELLO:
        if (m_ePipeType == CONN_PASSIVE)
        {
            CZolConnMgr::instance()->sendHandshakeMsg(getOppProcID(), getOppProcHandle());
        }
        break;
    default:
        zolCount(zolCounters().m_ulInvalidType);
        logWithFields(&CZolDebugInfo::error, "CZolConnection::dispatchMsg", "invalid message type, ", *poPdu);
    }
    delete poPdu;
}

int CZolConnection::deliverOrDrop(CZolMsgPdu *poPdu, const char *pcScope)
{
    const int iResult = deliverMsg(poPdu);
    if (iResult != ZOL_OK)
    {
        zolCount(zolCounters().m_ulNoManager);
        if (CZolRunLog::isReady())
        {
            char acError[32];
            snprintf(acError, sizeof acError, ", Error:%d", iResult);
            CZolDebugInfo(pcScope).error(("dispatch message failed, " + zolFieldTail(*poPdu) + acError).c_str());
        }
        delete poPdu;
    }
    return iResult;
}

int CZolConnection::deliverMsg(CZolMsgPdu *poPdu)
{
    CZolDebugInfo oDebug("CZolConnection::deliverMsg");
    if (poPdu == nullptr)
    {
        oDebug.error("invalid parameter: null pointer!");
        return ZOL_ERR_FAILED;
    }
    if (isForgedRequest(*poPdu))
    {
        dropForgedRequest(poPdu);
        return ZOL_OK;
    }
    const int iResult = zolInbox().deliver(zolBlockOf(poPdu), poPdu->m_ucDestModule, false);
    if (iResult != ZOL_ERR_NO_DEST)
    {
        return iResult;
    }
    if (poPdu->m_ucDestModule == zolpipe::INITIAL_MODULE && poPdu->m_usDestSubModuleId == zolpipe::INITIAL_TASK &&
        zolHost().takeInitialResponse(poPdu))
    {
        return ZOL_OK;
    }
    oDebug.error("dest not found!");
    return ZOL_ERR_NO_DEST;
}

// The command of a direct request carries an address of this process. From a pipe it can only be an attempt to have
// the built-in task follow an address of the sender's choice. With a task id it is the answer to a call of a plain
// thread, whose application may use that number for a command of its own.
bool CZolConnection::isForgedRequest(const CZolMsgPdu &oPdu)
{
    return oPdu.m_ucDestModule == zolpipe::BUILT_IN_MODULE && oPdu.m_usDestSubModuleId == 0 &&
           oPdu.m_ulCmdID == MSG_DIRECT_REQUEST_CMDID;
}

// Leaves the lines of any other command that the built-in manager makes no task for.
void CZolConnection::dropForgedRequest(CZolMsgPdu *poPdu)
{
    zolCount(zolCounters().m_ulNoTask);
    if (CZolRunLog::isReady())
    {
        char acText[192];
        snprintf(acText, sizeof acText, "receive a unknown command code: %u", poPdu->m_ulCmdID);
        CZolDebugInfo("CZolInlineTaskMgr::createTask").debug(acText);
        snprintf(acText, sizeof acText,
                 "createTask() return NULL when process message, src: %u,%u,%u,%u, dst:%u,%u, cmd:%u",
                 poPdu->m_usSrcProcID, poPdu->m_usSrcProcHandle, poPdu->m_ucSrcModule, poPdu->m_usSrcSubModuleId,
                 poPdu->m_ucDestModule, poPdu->m_usDestSubModuleId, poPdu->m_ulCmdID);
        CZolDebugInfo("CZolTaskMgr::unknownTaskMsg").error(acText);
    }
    delete poPdu;
}
