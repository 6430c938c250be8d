#include "gateway/loop/ZolVekGateway.h"

#include "ZolRunLog.h"
#include "gateway/watch/ZolVekLog.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <ctime>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

// What epoll carries: the address of a session, or one of these small numbers.
const std::uint64_t LISTENER_EVENT = 0;
const std::uint64_t FIRST_WATCHED_EVENT = 1;
const std::uint64_t LAST_WATCHED_EVENT = 63;

const std::uint32_t UNREGISTERED_FRAME_BYTES = zolwire::HEADER_BYTES + 4; // the register message, and nothing larger

std::uint64_t monotonicMs()
{
    timespec oNow{};
    clock_gettime(CLOCK_MONOTONIC, &oNow);
    return static_cast<std::uint64_t>(oNow.tv_sec) * 1000 + static_cast<std::uint64_t>(oNow.tv_nsec) / 1000000;
}

} // namespace

CZolVekGateway::CZolVekGateway(const SZolVekSettings &oSettings, TClock fnClock)
    : m_oSettings(oSettings), m_fnClock(fnClock ? std::move(fnClock) : TClock(monotonicMs)),
      m_oRouter(m_oSettings, m_oStatistics, m_oMemory, m_oRoutes, m_oAgenda),
      m_oRegistrar(m_oSettings, m_oStatistics, m_oRoutes, m_oAgenda),
      m_oReporter(m_oSettings, m_oStatistics, m_oRoutes, m_oRouter), m_oThrottle(m_oSettings, m_oStatistics, m_oAgenda),
      m_oFlusher(m_oStatistics, m_oAgenda, m_oRouter), m_oNewcomers(m_oSettings, m_oStatistics, m_oAgenda),
      m_oSweeper(m_oSettings, m_oAgenda, m_oRoutes, m_oReporter),
      m_oDrain(m_oSettings, m_oStatistics, m_oAgenda, m_oRoutes)
{
    m_iEpoll = epoll_create1(EPOLL_CLOEXEC);
    m_oAgenda.m_ulNowMs = m_fnClock();
    m_oRoutes.rest(std::uint64_t{1000} * m_oSettings.m_uiHandleRestSeconds);
    if (m_oSettings.m_uiGraceSeconds > 0)
    {
        m_oRouter.graceUntil(m_oAgenda.m_ulNowMs + std::uint64_t{1000} * m_oSettings.m_uiGraceSeconds);
    }
}

CZolVekGateway::~CZolVekGateway()
{
    m_oClosed.clear();
    m_oSessions.clear();
    m_oRouter.endTurn();
    if (m_iEpoll >= 0)
    {
        ::close(m_iEpoll);
    }
}

bool CZolVekGateway::open(std::string &strError)
{
    return m_oNewcomers.open(m_iEpoll, LISTENER_EVENT, strError);
}

void CZolVekGateway::watch(int iHandle, std::function<void()> fnReadable)
{
    epoll_event oEvent{};
    oEvent.events = EPOLLIN;
    oEvent.data.u64 = FIRST_WATCHED_EVENT + m_oWatched.size();
    m_oWatched.push_back(std::move(fnReadable));
    epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, iHandle, &oEvent);
}

void CZolVekGateway::observe(CZolSnapshotExchange &oExchange)
{
    watch(oExchange.askedFd(),
          [this, &oExchange]
          {
              SZolGatewaySnapshot *const poSnapshot = oExchange.takeAsked();
              if (poSnapshot != nullptr)
              {
                  m_oReporter.fill(*poSnapshot, m_oAgenda.m_ulNowMs, unregistered(), m_oDrain.isOn());
                  oExchange.publish(poSnapshot);
              }
          });
}

// ---- The loop -----------------------------------------------------------------------------------------------------

bool CZolVekGateway::isHurried() const
{
    return m_oDrain.isOn() || !m_oNewcomers.isEmpty() || !m_oThrottle.isEmpty() || m_oRegistrar.isProbing();
}

std::uint64_t CZolVekGateway::nextTickMs() const
{
    return m_ulLastTickMs + (isHurried() ? SHORT_TICK_MS : TICK_MS);
}

int CZolVekGateway::waitMs(int iMaxWaitMs) const
{
    if (!m_oAgenda.m_oReady.empty())
    {
        return 0;
    }
    const std::uint64_t ulNow = m_fnClock();
    const std::uint64_t ulDue = nextTickMs();
    const int iDueMs = ulDue <= ulNow ? 0 : static_cast<int>(std::min<std::uint64_t>(ulDue - ulNow, TICK_MS));
    return iMaxWaitMs < 0 ? iDueMs : std::min(iMaxWaitMs, iDueMs);
}

void CZolVekGateway::runOnce(int iMaxWaitMs)
{
    epoll_event aoEvents[MAX_EVENTS];
    const int iCount = epoll_wait(m_iEpoll, aoEvents, MAX_EVENTS, waitMs(iMaxWaitMs));
    m_oReporter.turnBegins();
    m_oAgenda.m_ulNowMs = m_fnClock();
    for (int i = 0; i < iCount; ++i)
    {
        const std::uint64_t ulWhat = aoEvents[i].data.u64;
        if (ulWhat == LISTENER_EVENT)
        {
            acceptAll();
        }
        else if (ulWhat <= LAST_WATCHED_EVENT)
        {
            m_oWatched[ulWhat - FIRST_WATCHED_EVENT]();
        }
        else
        {
            onEvent(*static_cast<CZolVekSession *>(aoEvents[i].data.ptr), aoEvents[i].events);
        }
    }
    m_oTurns.swap(m_oAgenda.m_oReady); // what becomes ready now has its turn in the next round
    for (CZolVekSession *poSession : m_oTurns)
    {
        turn(*poSession);
    }
    m_oTurns.clear();
    closePending();
    if (m_oAgenda.m_ulNowMs >= nextTickMs())
    {
        tick();
        closePending();
    }
    deleteClosed();
    m_oLargeFrames.wake(m_oRouter.freeBytes(), m_oAgenda);
    m_oReporter.turnEnds();
}

void CZolVekGateway::acceptAll()
{
    for (std::size_t ulTaken = 0; ulTaken < MAX_EVENTS; ++ulTaken)
    {
        std::uint32_t uiAddress = 0;
        std::uint16_t usPort = 0;
        const int iSocket = m_oNewcomers.accept(unregistered(), uiAddress, usPort);
        if (iSocket < 0)
        {
            return;
        }
        adopt(iSocket, uiAddress, usPort);
    }
}

void CZolVekGateway::adopt(int iSocket, std::uint32_t uiAddress, std::uint16_t usPort)
{
    auto poSession = std::make_unique<CZolVekSession>(iSocket, uiAddress, usPort, ++m_ulLastSerial, &m_oMemory);
    CZolVekSession *const poPlain = poSession.get();
    poPlain->m_lSinceWallMs = CZolVekReporter::wallMs();
    poPlain->m_ulReceivedMs = m_oAgenda.m_ulNowMs;
    poPlain->m_ulSentMs = m_oAgenda.m_ulNowMs;
    epoll_event oEvent{};
    oEvent.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    oEvent.data.ptr = poPlain;
    if (epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, iSocket, &oEvent) != 0)
    {
        return; // the destructor closes the socket
    }
    ++m_oStatistics.m_ulAccepted;
    m_oNewcomers.came(*poPlain);
    m_oSessions.emplace(poPlain, std::move(poSession));
}

void CZolVekGateway::onEvent(CZolVekSession &oSession, std::uint32_t uiEvents)
{
    if (oSession.m_eState == VEK_CLOSED)
    {
        return; // closed earlier in this turn
    }
    if ((uiEvents & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0)
    {
        oSession.m_bReadable = true;
        oSession.m_bEnded = oSession.m_bEnded || (uiEvents & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
        m_oAgenda.ready(oSession);
    }
    if ((uiEvents & (EPOLLHUP | EPOLLERR)) != 0)
    {
        m_oFlusher.breakPipe(oSession, 0);
    }
    if (oSession.m_bBroken || ((uiEvents & EPOLLOUT) != 0 && oSession.m_bBlocked))
    {
        oSession.m_bBlocked = false;
        m_oRouter.beginTurn();
        m_oFlusher.flush(oSession);
    }
}

// ---- A turn of one pipe -------------------------------------------------------------------------------------------

bool CZolVekGateway::mayRead(const CZolVekSession &oSession) const
{
    if (!oSession.m_bReadable || oSession.m_poWaitsFor != nullptr || oSession.m_bThrottled ||
        oSession.m_bWaitsForMemory || !oSession.m_strCloseReason.empty())
    {
        return false;
    }
    return oSession.m_eState == VEK_UNREGISTERED || oSession.m_eState == VEK_REFUSED ||
           (oSession.m_eState == VEK_UP && (!m_oDrain.isOn() || oSession.m_bFinished));
}

void CZolVekGateway::turn(CZolVekSession &oSession)
{
    oSession.m_bReady = false;
    if (oSession.m_bBroken || oSession.m_bDiscard)
    {
        m_oRouter.release(oSession);
        m_oThrottle.letGo(oSession);
    }
    if (oSession.m_eState == VEK_CLOSED || oSession.m_poWaitsFor != nullptr || oSession.m_bThrottled ||
        !oSession.m_strCloseReason.empty())
    {
        return;
    }
    m_oRouter.beginTurn();
    oSession.m_oReader.begin(m_oBuffer);
    // what an earlier turn could not place comes first, and only then is more read
    if (takeFrames(oSession) && mayRead(oSession) && m_oLargeFrames.admit(oSession, m_oRouter.freeBytes()))
    {
        std::string strReason;
        const int iRead = oSession.receive(m_oRouter.readBytes(), strReason);
        if (iRead > 0)
        {
            oSession.m_ulReceivedMs = m_oAgenda.m_ulNowMs;
            oSession.m_ulAskedMs = 0;
            oSession.m_ulBytesIn += static_cast<std::uint64_t>(iRead);
            m_oStatistics.m_ulBytesIn += static_cast<std::uint64_t>(iRead);
            takeFrames(oSession);
        }
        else if (iRead < 0)
        {
            m_oAgenda.closeLater(oSession, strReason);
        }
    }
    oSession.m_oReader.end();
    m_oLargeFrames.note(oSession);
    m_oFlusher.flushDirty();
    m_oRouter.endTurn();
    if (mayRead(oSession))
    {
        m_oAgenda.ready(oSession);
    }
}

bool CZolVekGateway::takeFrames(CZolVekSession &oSession)
{
    CZolVekFrame oFrame;
    for (;;)
    {
        const bool bUp = oSession.m_eState == VEK_UP;
        if (!bUp && oSession.m_eState != VEK_UNREGISTERED && oSession.m_eState != VEK_REFUSED)
        {
            return false;
        }
        if (bUp && !m_oDrain.isOn() && m_oThrottle.holds(oSession))
        {
            return false;
        }
        const EnumZolVekRead eRead =
            oSession.m_oReader.next(oFrame, bUp ? m_oSettings.m_uiMaxFrameBytes : UNREGISTERED_FRAME_BYTES);
        if (eRead == VEK_READ_MORE)
        {
            return true;
        }
        if (oSession.m_bFinished && eRead == VEK_READ_DAMAGED)
        {
            oSession.m_bReadable = false; // to close it now would lose what the kernel has still to send
            return false;
        }
        if (eRead == VEK_READ_DAMAGED)
        {
            m_oAgenda.closeLater(oSession, "a frame announced " + std::to_string(oSession.m_oReader.announcedBytes()) +
                                               " bytes, or a header shorter than a header");
            return false;
        }
        if (!bUp)
        {
            if (oSession.m_eState == VEK_UNREGISTERED)
            {
                m_oRegistrar.first(oSession, oFrame);
            }
            if (!oSession.m_strCloseReason.empty())
            {
                return false;
            }
            continue; // what follows a refusal is read and dropped, so that the close does not reset the connection
        }
        if (oSession.m_bDiscard)
        {
            ++(oSession.m_bFinished ? m_oStatistics.m_ulDropDraining : m_oStatistics.m_ulDropSlow);
        }
        else if (m_oRouter.route(oSession, oFrame) == VEK_STALLED)
        {
            oSession.m_oReader.undo();
            return false;
        }
        ++oSession.m_ulFramesIn;
        ++m_oStatistics.m_ulFramesIn;
        oSession.m_oRate.take(oFrame.length());
    }
}

// ---- Closing ------------------------------------------------------------------------------------------------------

void CZolVekGateway::closePending()
{
    while (!m_oAgenda.m_oToClose.empty())
    {
        std::vector<CZolVekSession *> oToClose;
        oToClose.swap(m_oAgenda.m_oToClose);
        for (CZolVekSession *poSession : oToClose)
        {
            close(*poSession);
        }
        m_oRouter.beginTurn();
        m_oFlusher.flushDirty(); // of what others got because these have gone; that may close further ones
        m_oRouter.endTurn();
    }
}

void CZolVekGateway::close(CZolVekSession &oSession)
{
    const bool bUp = oSession.m_eState == VEK_UP;
    std::uint64_t ulHeldBack = 0;
    if (bUp)
    {
        m_oFlusher.dropQueued(oSession);
        CZolVekLog::line(CZolRunLog::LEVEL_INFO, "CZolVekGateway::close",
                         "%s is down: %s; messages in %" PRIu64 " out %" PRIu64 " of which waiting %" PRIu64,
                         oSession.name().c_str(), oSession.m_strCloseReason.c_str(),
                         oSession.m_ulFramesIn - oSession.m_ulOwnIn, oSession.m_ulFramesQueued - oSession.m_ulOwnOut,
                         oSession.m_ulUnsent);
    }
    else if (m_oUnregisteredLines.pass(oSession.m_uiAddress, m_oAgenda.m_ulNowMs, ulHeldBack))
    {
        CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekGateway::close",
                         "%s closed: %s; and %" PRIu64 " more since the last line", oSession.name().c_str(),
                         oSession.m_strCloseReason.c_str(), ulHeldBack);
    }
    if (bUp)
    {
        m_oRoutes.remove(oSession.m_uiKey, m_oAgenda.m_ulNowMs);
    }
    oSession.m_eState = VEK_CLOSED;
    ::close(oSession.m_iSocket);
    m_oRouter.gone(oSession);
    m_oLargeFrames.gone(oSession);
    m_oThrottle.letGo(oSession);
    m_oNewcomers.gone(oSession);
    m_oRegistrar.gone(oSession);
    const auto oFound = m_oSessions.find(&oSession);
    m_oClosed.push_back(std::move(oFound->second));
    m_oSessions.erase(oFound);
}

void CZolVekGateway::deleteClosed()
{
    if (m_oClosed.empty())
    {
        return;
    }
    auto &oReady = m_oAgenda.m_oReady;
    oReady.erase(std::remove_if(oReady.begin(), oReady.end(),
                                [](const CZolVekSession *po) { return po->m_eState == VEK_CLOSED; }),
                 oReady.end());
    m_oClosed.clear();
}

// ---- The clock ----------------------------------------------------------------------------------------------------

void CZolVekGateway::tick()
{
    m_ulLastTickMs = m_oAgenda.m_ulNowMs;
    m_oRouter.beginTurn();
    m_oRegistrar.tick();
    m_oThrottle.wake();
    m_oNewcomers.sweep(unregistered(), m_oDrain.isOn(),
                       [this](CZolVekSession *poSession) { return m_oSessions.count(poSession) != 0; });
    if (m_oAgenda.m_ulNowMs >= m_ulNextSweepMs)
    {
        m_ulNextSweepMs = m_oAgenda.m_ulNowMs + TICK_MS;
        m_oRouter.tick();
        m_oRoutes.tick(m_oAgenda.m_ulNowMs);
        m_oReporter.tick(m_oAgenda.m_ulNowMs);
        m_oSweeper.sweep(m_oDrain.isOn());
    }
    m_oFlusher.flushDirty();
    m_oRouter.endTurn();
    if (m_oDrain.isOn())
    {
        m_oDrain.tick(!m_oThrottle.isEmpty(), [this](CZolVekSession &oSession) { dropUnplaced(oSession); });
    }
}

// ---- The end ------------------------------------------------------------------------------------------------------

void CZolVekGateway::drain()
{
    m_oDrain.begin();
    m_oRegistrar.drain();
    m_oRouter.beginTurn();
    m_oRouter.endGrace();
    m_oFlusher.flushDirty();
    m_oRouter.endTurn();
}

void CZolVekGateway::dropUnplaced(CZolVekSession &oSession)
{
    oSession.m_oReader.begin(m_oBuffer);
    takeFrames(oSession);
    oSession.m_oReader.end();
}

void CZolVekGateway::reload(const SZolVekSettings &oSettings)
{
    const SZolVekSettings oNew = zolVekReloaded(m_oSettings, oSettings);
    const bool bNewRate = oNew.m_ulMaxFramesPerSecond != m_oSettings.m_ulMaxFramesPerSecond ||
                          oNew.m_ulMaxBytesPerSecond != m_oSettings.m_ulMaxBytesPerSecond;
    m_oSettings = oNew;
    if (bNewRate)
    {
        // what was sent under another rate, or under none, is no debt under this one
        std::for_each(m_oSessions.begin(), m_oSessions.end(),
                      [](auto &oPair) { oPair.first->m_oRate = CZolVekRate(); });
    }
    m_oRoutes.rest(std::uint64_t{1000} * m_oSettings.m_uiHandleRestSeconds);
    CZolRunLog::logLevel(static_cast<int>(m_oSettings.m_uiLogLevel));
}
