// The way in, as far as it needs the socket: reading, and whose the receive state is.

#include "ZolRunLog.h"
#include "message/ZolPduLog.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolConnection.h"
#include "transport/ZolSocket.h"

#include <ace/Guard_T.h>
#include <cerrno>
#include <cstdio>
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
    int iResult = 0;
    {
        ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oRecvLock, -1);
        // The life first: a pipe that turns over between the two lines then fails the read, instead of adding the bytes
        // of its new life to what is left of the old one.
        const unsigned int uiLife = getLife();
        if (m_bResetDue.exchange(false))
        {
            reset();
        }
        iResult = readAndCut(uiLife);
    }
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
        const std::uint32_t uiRoom = m_oReader.getRoomLength();
        const int iRead = recvInLife(m_oReader.getRoom(), uiRoom, uiLife);
        if (iRead <= 0)
        {
            return iRead;
        }
        if (!m_oReader.add(static_cast<std::uint32_t>(iRead)))
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

void CZolConnection::reset()
{
    CZolRunLog::info("CZolConnection::reset CZolConnection will be reset!");
    m_bNonBlock = false;
    m_oReader.reset();
    m_oDispatcher.reset();
}

// Whoever cannot take the lock leaves the work to its holder, who looks here again after giving it up.
void CZolConnection::resetIfDue()
{
    while (m_bResetDue.load())
    {
        const ACE_Guard<ACE_Thread_Mutex> oGuard(m_oRecvLock, false); // a try
        if (oGuard.locked() == 0)
        {
            return;
        }
        if (m_bResetDue.exchange(false))
        {
            reset();
        }
    }
}

// Traffic of the gateway's pipe is not written to the log.
void CZolConnection::CEnd::noteMessage(const CZolMsgPdu &oPdu)
{
    if (m_oConn.m_ePipeType != CONN_VEK)
    {
        zolLogHeader(oPdu);
    }
}

void CZolConnection::CEnd::noteHello()
{
    if (m_oConn.m_ePipeType == CONN_PASSIVE)
    {
        CZolConnMgr::instance()->sendHandshakeMsg(m_oConn.getOppProcID(), m_oConn.getOppProcHandle());
    }
}
