#include "transport/ZolPipeOpener.h"

#include "ZolRunLog.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolText.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

namespace
{

const char *const SCOPE = "CZolConnection::connect";
constexpr std::chrono::milliseconds CLOSE_WAIT(100); // how long a poll waits for a close under way

} // namespace

CZolPipeOpener::~CZolPipeOpener()
{
    if (m_eState != IDLE && m_eState != DONE)
    {
        finish(-1);
    }
}

short CZolPipeOpener::getEvents() const
{
    return m_eState == READING ? POLLIN : POLLOUT;
}

void CZolPipeOpener::start(bool bTry)
{
    if (!lock(bTry))
    {
        m_eState = DONE;
        return;
    }
    CZolDebugInfo oDebug(SCOPE);
    if (!m_oConn->m_bAddrValid)
    {
        oDebug.warning("fail to build a connect because the remote address is invalid.");
        return finish(-1);
    }
    const ACE_INET_Addr &oAddr = m_oConn->m_oOppAddr;
    const std::string strTarget =
        zoltext(zoladdress(oAddr), ", OppPort: ", oAddr.get_port_number(), ", PipeType: ", m_oConn->getPipeType());
    if (m_oConn->getPipeStatus())
    {
        oDebug.info(("the connect is valid already. OppAddr: " + strTarget).c_str());
        return finish(0);
    }
    oDebug.info(("begin to connect. OppAddr: " + strTarget).c_str());
    begin();
}

// False, with nothing held, if bTry and another thread stays busy with the connection: it may be connecting itself, for
// seconds. One that is closing the last life is done in no time, and a poll that left at once would come back after 20
// s.
bool CZolPipeOpener::lock(bool bTry)
{
    ACE_RW_Mutex &oLock = m_oConn->m_oPipeLock;
    const zolsocket::Deadline oLimit = zolsocket::in(CLOSE_WAIT);
    for (;;)
    {
        if ((bTry ? oLock.tryacquire_write() : oLock.acquire_write()) == 0)
        {
            // down, but with its socket: whoever took the last life down is about to close it and needs this lock
            if (m_oConn->getPipeStatus() || m_oConn->getHandle() == ACE_INVALID_HANDLE)
            {
                m_bLocked = true;
                return true;
            }
            oLock.release();
        }
        else if (!bTry)
        {
            return false;
        }
        if (bTry && zolsocket::Clock::now() >= oLimit)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void CZolPipeOpener::begin()
{
    m_oDeadline = zolsocket::in(std::chrono::seconds(zolpipe::CONNECT_SECONDS));
    m_eState = CONNECTING;
    const ACE_HANDLE oHandle = zolsocket::open();
    m_oConn->m_oStream.set_handle(oHandle);
    const int iStarted = oHandle == ACE_INVALID_HANDLE ? -1 : zolsocket::startConnect(oHandle, m_oConn->m_oOppAddr);
    if (iStarted < 0)
    {
        return fail("connect failed, error: ");
    }
    if (iStarted == 0)
    {
        connected();
    }
}

void CZolPipeOpener::step()
{
    if (m_eState == CONNECTING)
    {
        pollfd oPoll{getHandle(), POLLOUT, 0};
        if (poll(&oPoll, 1, 0) > 0)
        {
            return zolsocket::finishConnect(getHandle()) == 0 ? connected() : fail("connect failed, error: ");
        }
        if (isLate())
        {
            errno = ETIME;
            fail("connect failed, error: ");
        }
        return;
    }
    if (m_eState != DONE)
    {
        transfer();
    }
}

void CZolPipeOpener::connected()
{
    if (zolsocket::isOwnEcho(getHandle()))
    {
        errno = ECONNREFUSED; // it would read its own request as an answer, and the status in it as accepted
        return fail("connect failed, error: ");
    }
    CZolConnMgr *poMgr = CZolConnMgr::instance();
    m_eState = SENDING;
    m_oDeadline = zolsocket::in(std::chrono::seconds(zolpipe::REGISTER_SECONDS));
    if (!m_oExchange.begin(poMgr->getProcID(), poMgr->isOwnHandle() ? poMgr->getProcHandle() : 0, poMgr->isNoHandle()))
    {
        return fail("send register msg failed, error: ");
    }
    transfer();
}

void CZolPipeOpener::transfer()
{
    if (m_eState == SENDING && send())
    {
        m_eState = READING;
    }
    if (m_eState == READING && read())
    {
        answered();
    }
    if (m_eState != DONE && isLate())
    {
        errno = ETIME;
        fail(m_eState == SENDING ? "send register msg failed, error: " : "recv response of register failed, error: ");
    }
}

// True when all has gone out.
bool CZolPipeOpener::send()
{
    const ssize_t iSent =
        ::send(getHandle(), m_oExchange.getNext(), m_oExchange.getLeft(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (iSent > 0)
    {
        return m_oExchange.advance(static_cast<unsigned int>(iSent));
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
    {
        fail("send register msg failed, error: ");
    }
    return false;
}

// True when all has come in.
bool CZolPipeOpener::read()
{
    const ssize_t iRead = ::recv(getHandle(), m_oExchange.getNext(), m_oExchange.getLeft(), MSG_DONTWAIT);
    if (iRead > 0)
    {
        return m_oExchange.advance(static_cast<unsigned int>(iRead));
    }
    if (iRead == 0)
    {
        errno = ECONNRESET;
    }
    if (iRead == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
    {
        fail("recv response of register failed, error: ");
    }
    return false;
}

void CZolPipeOpener::answered()
{
    const int iResult = m_oExchange.conclude();
    if (iResult != 0)
    {
        return finish(iResult);
    }
    succeed();
}

void CZolPipeOpener::succeed()
{
    CZolConnMgr *poMgr = CZolConnMgr::instance();
    CZolConnection &oConn = *m_oConn.get();
    const CZolMsgPdu &oAnswer = m_oExchange.getAnswer();
    ACE_Write_Guard<ACE_RW_Mutex> oGuard(oConn.m_oStatusLock);
    if (oConn.getPipeType() == CZolConnection::CONN_INITIATIVE)
    {
        oConn.m_usOppProcID = oAnswer.m_usSrcProcID;
        oConn.m_usOppProcHandle = oAnswer.m_usSrcProcHandle;
    }
    else if (!poMgr->isNoHandle() && !poMgr->isOwnHandle())
    {
        CZolIdentity::own().setProcHandle(oAnswer.m_usDestProcHandle);
    }
    const unsigned short usOppProcID = oConn.m_usOppProcID;
    const unsigned short usOppProcHandle = oConn.m_usOppProcHandle;
    oConn.setLastRecvTime(zolsocket::wallSeconds());
    oConn.m_uiLife.fetch_add(1, std::memory_order_acq_rel);
    oConn.m_bPipeStatus.store(true, std::memory_order_release);
    oGuard.release();
    poMgr->pipes().pipesChanged();
    CZolDebugInfo oDebug(SCOPE);
    oDebug.info(zoltext("register successful. OppProcID: ", usOppProcID, " OppProcHandle: ", usOppProcHandle).c_str());
    finish(0);
}

void CZolPipeOpener::fail(const char *pcText)
{
    CZolDebugInfo oDebug(SCOPE);
    const int iError = errno;
    oDebug.error(zoltext(pcText, iError, ", ", zolerror(iError)).c_str());
    finish(-1);
}

void CZolPipeOpener::finish(int iResult)
{
    m_oExchange.end();
    if (m_bLocked)
    {
        if (iResult != 0 && !m_oConn->getPipeStatus())
        {
            m_oConn->closeSocket();
        }
        m_oConn->m_oPipeLock.release();
        m_bLocked = false;
    }
    m_iResult = iResult;
    m_eState = DONE;
}

std::vector<CZolConnRef> CZolPipeOpener::openAll(const std::vector<CZolConnRef> &oConns)
{
    std::vector<std::unique_ptr<CZolPipeOpener>> oOpeners;
    for (const CZolConnRef &oConn : oConns)
    {
        oOpeners.push_back(std::make_unique<CZolPipeOpener>(oConn));
        oOpeners.back()->start(true);
    }
    run(oOpeners);
    std::vector<CZolConnRef> oOpened;
    for (const auto &poOpener : oOpeners)
    {
        if (poOpener->getResult() == 0)
        {
            oOpened.push_back(poOpener->getConnection());
        }
    }
    return oOpened;
}

void CZolPipeOpener::run(const std::vector<std::unique_ptr<CZolPipeOpener>> &oOpeners)
{
    std::vector<pollfd> oPolls;
    for (;;)
    {
        oPolls.clear();
        zolsocket::Deadline oFirst = zolsocket::Deadline::max();
        for (const auto &poOpener : oOpeners)
        {
            if (!poOpener->isDone())
            {
                oPolls.push_back({poOpener->getHandle(), poOpener->getEvents(), 0});
                oFirst = std::min(oFirst, poOpener->getDeadline());
            }
        }
        if (oPolls.empty())
        {
            return;
        }
        const auto oLeft = std::chrono::ceil<std::chrono::milliseconds>(oFirst - zolsocket::Clock::now()).count();
        poll(oPolls.data(), oPolls.size(), static_cast<int>(std::max<long long>(oLeft, 0)));
        for (const auto &poOpener : oOpeners)
        {
            poOpener->step();
        }
    }
}
