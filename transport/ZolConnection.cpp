#include "transport/ZolConnection.h"

#include "ZolRunLog.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolHost.h"
#include "transport/ZolPipeOpener.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolRecvMsgHandler.h"
#include "transport/ZolSocket.h"
#include "transport/ZolText.h"

#include <ace/Guard_T.h>
#include <ace/Reactor.h>
#include <cerrno>
#include <sys/socket.h>

unsigned int CZolConnection::sm_uiRecvBufferLength = zolpipe::DEFAULT_RECV_BUFFER;

namespace
{

// Resolves to an address of the internet family only: the other one would print and connect in its own form.
bool resolve(const std::string &strHost, unsigned short usPort, ACE_INET_Addr &oAddr)
{
    return !strHost.empty() && oAddr.set(usPort, strHost.c_str(), 1, AF_INET) == 0;
}

} // namespace

CZolConnection::CZolConnection(EnumPipeType ePipeType, const std::string &strHost, unsigned short usPort)
    : m_ePipeType(ePipeType), m_bPipeStatus(false), m_bAddrValid(true), m_oOppAddr(static_cast<u_short>(0), 0U),
      m_lLastRecvTime(zolsocket::wallSeconds()), m_oDispatcher(m_oEnd, zolInbox(), zolHost()),
      m_oReader(sm_uiRecvBufferLength, m_oDispatcher)
{
    m_bAddrValid = resolve(strHost, usPort, m_oOppAddr);
}

CZolConnection::CZolConnection(EnumPipeType ePipeType)
    : m_ePipeType(ePipeType), m_bPipeStatus(true), m_bAddrValid(false), m_oOppAddr(static_cast<u_short>(0), 0U),
      m_lLastRecvTime(zolsocket::wallSeconds()), m_oDispatcher(m_oEnd, zolInbox(), zolHost()),
      m_oReader(sm_uiRecvBufferLength, m_oDispatcher), m_uiLife(1)
{
}

CZolConnection::~CZolConnection()
{
    reset();
    closeSocket();
}

void CZolConnection::release()
{
    if (m_uiRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
    {
        delete this;
    }
}

int CZolConnection::connect()
{
    std::vector<std::unique_ptr<CZolPipeOpener>> oOpeners;
    oOpeners.push_back(std::make_unique<CZolPipeOpener>(CZolConnRef(this)));
    oOpeners.front()->start(false);
    CZolPipeOpener::run(oOpeners);
    return oOpeners.front()->getResult();
}

int CZolConnection::send(const void *pvBuf, unsigned int uiLen, SSendOutcome *poOutcome)
{
    SSendOutcome oIgnored;
    SSendOutcome &oOutcome = poOutcome != nullptr ? *poOutcome : oIgnored;
    oOutcome = {0, getLife()};
    // A pipe that is being opened is locked for up to 10 s; what is to go over it has no use for that wait.
    if (!getPipeStatus())
    {
        errno = ENOTCONN;
        return -1;
    }
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oPipeLock, -1);
    std::size_t uiSent = 0;
    oOutcome.m_uiLife = getLife();
    const auto oDeadline = zolsocket::in(std::chrono::seconds(zolpipe::SEND_SECONDS));
    const int iResult = zolsocket::sendAll(getHandle(), pvBuf, uiLen, oDeadline, uiSent);
    oOutcome.m_uiSent = static_cast<unsigned int>(uiSent);
    if (iResult == 0)
    {
        return static_cast<int>(uiLen);
    }
    if (errno == ETIME)
    {
        CZolDebugInfo("CZolConnection::send")
            .warning(
                zoltext("timeout to send message, OppProcID: ", getOppProcID(), ", OppProcHandle: ", getOppProcHandle())
                    .c_str());
    }
    return -1;
}

bool CZolConnection::takeDown()
{
    ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oStatusLock, false);
    if (!m_bPipeStatus.load(std::memory_order_relaxed))
    {
        return false;
    }
    m_bPipeStatus.store(false, std::memory_order_release);
    // The socket is open: only the caller that gets true from here goes on to close it.
    ::shutdown(getHandle(), SHUT_RDWR);
    return true;
}

void CZolConnection::disconnect()
{
    ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oPipeLock);
    m_bResetDue.store(true);
    resetIfDue();
    closeSocket();
    setPipeStatus(false);
    if (CZolRunLog::isReady())
    {
        CZolRunLog::info(zoltext("CZolConnection::disconnect disconnect finished. OppProcID: ", getOppProcID(),
                                 " OppProcHandle: ", getOppProcHandle(), " OppAddr: ", zoladdress(m_oOppAddr),
                                 " OppPortNumber: ", m_oOppAddr.get_port_number(), " PipeType: ", m_ePipeType)
                             .c_str());
    }
}

// The reactor must let go of a descriptor before it is closed, or its next owner would be served as this one.
void CZolConnection::closeSocket()
{
    const ACE_HANDLE oHandle = getHandle();
    if (oHandle != ACE_INVALID_HANDLE)
    {
        ACE_Reactor *poReactor = zolHost().getReactor();
        poReactor->remove_handler(oHandle, ACE_Event_Handler::READ_MASK | ACE_Event_Handler::DONT_CALL);
        m_oStream.close();
    }
}

int CZolConnection::setRemoteAddr(const std::string &strHost, unsigned short usPort)
{
    ACE_INET_Addr oAddr;
    const bool bValid = resolve(strHost, usPort, oAddr); // may take seconds, so before the lock
    ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oPipeLock, -1);
    m_bAddrValid = bValid;
    if (!bValid)
    {
        CZolDebugInfo oDebug("CZolConnection::setRemoteAddr");
        oDebug.error(zoltext("Invalid vek address. IP: ", strHost, " Port: ", usPort).c_str());
        return -1;
    }
    ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oStatusGuard, m_oStatusLock, -1);
    m_oOppAddr = oAddr;
    return 0;
}

void CZolConnection::setAddrStatus(bool bValid)
{
    ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oPipeLock);
    m_bAddrValid = bValid;
}

void CZolConnection::registerEvent()
{
    // While the lock is held nobody closes the socket; one that is down already must not come to the reactor again.
    ACE_READ_GUARD(ACE_RW_Mutex, oGuard, m_oPipeLock);
    if (!getPipeStatus() || getHandle() == ACE_INVALID_HANDLE)
    {
        return;
    }
    ACE_Reactor *poReactor = zolHost().getReactor();
    if (poReactor->register_handler(getHandle(), CZolRecvMsgHandler::instance(), ACE_Event_Handler::READ_MASK) != 0)
    {
        CZolRunLog::fatal(
            ("CZolConnection::registerEvent Unable to register CZolRecvMsgHandler!" + toString()).c_str());
    }
}

void CZolConnection::setPipeStatus(bool bUp)
{
    ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oStatusLock);
    m_bPipeStatus.store(bUp, std::memory_order_release);
}

unsigned short CZolConnection::getOppProcID() const
{
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oStatusLock, 0);
    return m_usOppProcID;
}

unsigned short CZolConnection::getOppProcHandle() const
{
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oStatusLock, 0);
    return m_usOppProcHandle;
}

void CZolConnection::setOppProc(unsigned short usProcID, unsigned short usProcHandle)
{
    ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oStatusLock);
    m_usOppProcID = usProcID;
    m_usOppProcHandle = usProcHandle;
}

std::string CZolConnection::toString() const
{
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oStatusLock, "");
    return zoltext("    OppProcID: ", m_usOppProcID, ", OppProcHandle: ", m_usOppProcHandle,
                   ", PipeType: ", m_ePipeType, ", OppAddr: ", zoladdress(m_oOppAddr),
                   ", OppPortNumber: ", m_oOppAddr.get_port_number(), ", PipeStatus: ", getPipeStatus() ? 1 : 0);
}
