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
const std::uint64_t LARGE_FRAME_MS = 5000; // without a byte of a large frame that has begun and is read
const std::uint64_t CROWDED_MS = 500;      // with all places of newcomers taken, one has at least so long to register

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
      m_oReporter(m_oSettings, m_oStatistics, m_oRoutes, m_oRouter)
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
    if (!m_oListener.open(m_oSettings, strError))
    {
        return false;
    }
    epoll_event oEvent{};
    oEvent.events = EPOLLIN;
    oEvent.data.u64 = LISTENER_EVENT;
    m_bListening = epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, m_oListener.handle(), &oEvent) == 0;
    return m_bListening;
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
                  m_oReporter.fill(*poSnapshot, m_oAgenda.m_ulNowMs, unregistered(), m_bDraining);
                  oExchange.publish(poSnapshot);
              }
          });
}

// ---- The loop -----------------------------------------------------------------------------------------------------

bool CZolVekGateway::isHurried() const
{
    return m_bDraining || !m_oNewcomers.empty() || !m_oThrottled.empty() || m_oRegistrar.isProbing();
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
    for (int i = 0; i < static_cast<int>(MAX_EVENTS); ++i)
    {
        if (unregistered() >= m_oSettings.m_uiMaxUnregistered)
        {
            stopListening();
            return;
        }
        std::uint32_t uiAddress = 0;
        std::uint16_t usPort = 0;
        const int iSocket = m_oListener.accept(uiAddress, usPort);
        if (iSocket < 0)
        {
            if (m_oListener.isExhausted())
            {
                stopListening(); // it would wake the loop at once again
            }
            return;
        }
        if (!isCrowded(uiAddress))
        {
            adopt(iSocket, uiAddress, usPort);
            continue;
        }
        ::close(iSocket);
    }
}

void CZolVekGateway::stopListening()
{
    epoll_ctl(m_iEpoll, EPOLL_CTL_DEL, m_oListener.handle(), nullptr);
    m_bListening = false; // the backlog holds them; sweepNewcomers() goes on
}

bool CZolVekGateway::isCrowded(std::uint32_t uiAddress)
{
    const auto oFound = m_oByAddress.find(uiAddress);
    if (m_oSettings.m_uiMaxPipesPerAddress == 0 || oFound == m_oByAddress.end() ||
        oFound->second < m_oSettings.m_uiMaxPipesPerAddress)
    {
        return false;
    }
    ++m_oStatistics.m_ulCrowdedOut;
    std::uint64_t ulHeldBack = 0;
    if (m_oCrowdLines.pass(uiAddress, m_oAgenda.m_ulNowMs, ulHeldBack))
    {
        CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekGateway::isCrowded",
                         "%u.%u.%u.%u has its %u connections and gets no further one, and %" PRIu64
                         " more since the last line",
                         uiAddress >> 24, (uiAddress >> 16) & 255, (uiAddress >> 8) & 255, uiAddress & 255,
                         oFound->second, ulHeldBack);
    }
    return true;
}

void CZolVekGateway::adopt(int iSocket, std::uint32_t uiAddress, std::uint16_t usPort)
{
    auto poSession = std::make_unique<CZolVekSession>(iSocket, uiAddress, usPort, ++m_ulLastSerial, &m_oMemory);
    CZolVekSession *const poPlain = poSession.get();
    poPlain->m_ulSinceMs = m_oAgenda.m_ulNowMs;
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
    ++m_oByAddress[uiAddress];
    m_oNewcomers.push_back({poPlain, poPlain->m_ulSerial});
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
        breakPipe(oSession, 0);
    }
    if (oSession.m_bBroken || ((uiEvents & EPOLLOUT) != 0 && oSession.m_bBlocked))
    {
        oSession.m_bBlocked = false;
        m_oRouter.beginTurn();
        flush(oSession);
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
           (oSession.m_eState == VEK_UP && (!m_bDraining || oSession.m_bFinished));
}

void CZolVekGateway::turn(CZolVekSession &oSession)
{
    oSession.m_bReady = false;
    if (oSession.m_bBroken || oSession.m_bDiscard)
    {
        letGo(oSession);
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
    flushDirty();
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
        if (bUp && isThrottled(oSession))
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

bool CZolVekGateway::isThrottled(CZolVekSession &oSession)
{
    if ((m_oSettings.m_ulMaxFramesPerSecond | m_oSettings.m_ulMaxBytesPerSecond) == 0 || m_bDraining ||
        oSession.m_bBroken || oSession.m_bDiscard ||
        oSession.m_oRate.mayTake(m_oSettings.m_ulMaxFramesPerSecond, m_oSettings.m_ulMaxBytesPerSecond,
                                 m_oAgenda.m_ulNowMs))
    {
        return false;
    }
    oSession.m_bThrottled = true;
    m_oThrottled.push_back(&oSession);
    ++m_oStatistics.m_ulThrottled;
    return true;
}

void CZolVekGateway::wakeThrottled()
{
    std::vector<CZolVekSession *> oThrottled;
    oThrottled.swap(m_oThrottled);
    for (CZolVekSession *poSession : oThrottled)
    {
        poSession->m_bThrottled = false; // its turn finds out whether it may go on
        m_oAgenda.ready(*poSession);
    }
}

void CZolVekGateway::flush(CZolVekSession &oSession)
{
    if (!oSession.m_bBroken && !oSession.m_bBlocked && !oSession.m_oOutbox.isEmpty())
    {
        std::uint64_t ulWritten = 0;
        const EnumZolVekFlush eResult = oSession.m_oOutbox.flush(oSession.m_iSocket, ulWritten);
        if (ulWritten > 0)
        {
            oSession.m_ulSentMs = m_oAgenda.m_ulNowMs;
            oSession.m_ulStuckSinceMs = m_oAgenda.m_ulNowMs;
            oSession.m_ulBytesOut += ulWritten;
            m_oStatistics.m_ulBytesOut += ulWritten;
        }
        if (eResult == VEK_FLUSH_BROKEN)
        {
            breakPipe(oSession, errno);
        }
        else if (eResult == VEK_FLUSH_BLOCKED)
        {
            oSession.m_ulStuckSinceMs =
                oSession.m_ulStuckSinceMs == 0 ? m_oAgenda.m_ulNowMs : oSession.m_ulStuckSinceMs;
            oSession.m_bBlocked = true;
        }
        else if (eResult == VEK_FLUSH_DONE)
        {
            oSession.m_ulStuckSinceMs = 0;
        }
    }
    if (oSession.m_bBroken)
    {
        dropQueued(oSession);
    }
    oSession.m_oOutbox.settle();
    countSent(oSession);
    m_oRouter.wakeWaiters(oSession);
}

void CZolVekGateway::countSent(CZolVekSession &oSession)
{
    const std::uint64_t ulSent = oSession.m_oOutbox.sent();
    if (oSession.m_eState == VEK_UP && ulSent > 0)
    {
        m_oStatistics.m_ulFramesOut += ulSent - 1 - oSession.m_ulFramesOut; // the first one answered its registration
        oSession.m_ulFramesOut = ulSent - 1;
    }
}

void CZolVekGateway::flushDirty()
{
    for (CZolVekSession *poSession : m_oAgenda.m_oDirty)
    {
        poSession->m_bDirty = false;
        if (poSession->m_eState != VEK_CLOSED)
        {
            flush(*poSession);
        }
    }
    m_oAgenda.m_oDirty.clear();
}

// ---- A pipe that breaks -------------------------------------------------------------------------------------------
//
// The peer has reset it, or the kernel has given it up. What it had sent is still in the socket and is routed before
// its key is free; that its end is reached closes it. Nobody can be made to send less by not reading it, so it neither
// keeps to a rate nor stops at the bound of a queue, but at twice that. What has no room within ProbeSeconds is
// dropped.

void CZolVekGateway::breakPipe(CZolVekSession &oSession, int iError)
{
    if (oSession.m_bBroken)
    {
        return;
    }
    oSession.m_bBroken = true;
    oSession.m_iError = iError;
    oSession.m_ulBrokenMs = m_oAgenda.m_ulNowMs;
    oSession.m_bReadable = true;
    oSession.m_bEnded = true;
    m_oAgenda.ready(oSession);
}

void CZolVekGateway::dropQueued(CZolVekSession &oSession)
{
    const std::uint64_t ulFrames = oSession.m_eState == VEK_UP ? oSession.m_oOutbox.frames() : 0;
    oSession.m_ulUnsent += ulFrames;
    m_oStatistics.m_ulDropQueued += ulFrames;
    oSession.m_oOutbox.clear();
    countSent(oSession);
    oSession.m_bBlocked = false;
    oSession.m_ulStuckSinceMs = 0;
}

void CZolVekGateway::letGo(CZolVekSession &oSession)
{
    m_oRouter.release(oSession);
    if (oSession.m_bThrottled)
    {
        oSession.m_bThrottled = false;
        m_oThrottled.erase(std::remove(m_oThrottled.begin(), m_oThrottled.end(), &oSession), m_oThrottled.end());
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
        flushDirty(); // of what others got because these have gone; that may close further ones
        m_oRouter.endTurn();
    }
}

void CZolVekGateway::close(CZolVekSession &oSession)
{
    const bool bUp = oSession.m_eState == VEK_UP;
    std::uint64_t ulHeldBack = 0;
    if (bUp)
    {
        dropQueued(oSession);
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
    m_oThrottled.erase(std::remove(m_oThrottled.begin(), m_oThrottled.end(), &oSession), m_oThrottled.end());
    const auto oCount = m_oByAddress.find(oSession.m_uiAddress);
    if (--oCount->second == 0)
    {
        m_oByAddress.erase(oCount);
    }
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
    wakeThrottled();
    sweepNewcomers();
    if (m_oAgenda.m_ulNowMs >= m_ulNextSweepMs)
    {
        m_ulNextSweepMs = m_oAgenda.m_ulNowMs + TICK_MS;
        m_oRouter.tick();
        m_oRoutes.tick(m_oAgenda.m_ulNowMs);
        m_oReporter.tick(m_oAgenda.m_ulNowMs);
        sweep();
    }
    flushDirty();
    m_oRouter.endTurn();
    if (m_bDraining)
    {
        checkDrained();
    }
}

void CZolVekGateway::sweepNewcomers()
{
    const std::uint64_t ulNow = m_oAgenda.m_ulNowMs;
    while (!m_oNewcomers.empty())
    {
        CZolVekSession *const poSession = m_oNewcomers.front().m_poSession;
        const auto oFound = m_oSessions.find(poSession);
        const bool bWaits = oFound != m_oSessions.end() && poSession->m_ulSerial == m_oNewcomers.front().m_ulSerial &&
                            poSession->m_eState != VEK_UP && poSession->m_strCloseReason.empty();
        if (bWaits && poSession->m_eState == VEK_PROBING)
        {
            break; // decided within ProbeSeconds
        }
        if (bWaits)
        {
            const std::uint64_t ulWaitedMs = ulNow - poSession->m_ulSinceMs;
            const bool bCrowded = !m_bListening && !m_bDraining && ulWaitedMs >= CROWDED_MS &&
                                  unregistered() - m_oAgenda.m_oToClose.size() >= m_oSettings.m_uiMaxUnregistered;
            if (!bCrowded && ulWaitedMs < std::uint64_t{1000} * m_oSettings.m_uiRegisterSeconds)
            {
                break;
            }
            m_oAgenda.closeLater(*poSession, poSession->m_eState == VEK_REFUSED ? "it was refused"
                                             : bCrowded                         ? "it did not register, and others wait"
                                                                                : "it did not register in time");
        }
        m_oNewcomers.pop_front();
    }
    if (!m_bListening && m_oListener.handle() >= 0 && unregistered() < m_oSettings.m_uiMaxUnregistered)
    {
        epoll_event oEvent{};
        oEvent.events = EPOLLIN;
        oEvent.data.u64 = LISTENER_EVENT;
        m_bListening = epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, m_oListener.handle(), &oEvent) == 0;
    }
}

void CZolVekGateway::sweep()
{
    const std::uint64_t ulNow = m_oAgenda.m_ulNowMs;
    m_oRoutes.forEach(
        [&](CZolVekSession *poSession)
        {
            if (poSession->m_bFinished)
            {
                return; // checkDrained() waits for it
            }
            if (poSession->m_bBroken)
            {
                if (ulNow - poSession->m_ulBrokenMs >= std::uint64_t{1000} * m_oSettings.m_uiProbeSeconds)
                {
                    m_oAgenda.giveUp(*poSession);
                }
                return;
            }
            if (poSession->m_oOutbox.isEmpty())
            {
                poSession->m_oOutbox.shrink();
                if (ulNow - poSession->m_ulSentMs >= std::uint64_t{1000} * m_oSettings.m_uiHelloSeconds ||
                    m_oReporter.wantsAnswer(*poSession, ulNow))
                {
                    poSession->m_ulAskedMs = poSession->m_ulAskedMs == 0 ? ulNow : poSession->m_ulAskedMs;
                    char acHello[zolwire::HEADER_BYTES];
                    poSession->fillHello(acHello);
                    poSession->m_oOutbox.addHello(acHello);
                    m_oAgenda.dirty(*poSession);
                }
            }
            else if (poSession->m_ulStuckSinceMs != 0 &&
                     ulNow - poSession->m_ulStuckSinceMs >= std::uint64_t{1000} * m_oSettings.m_uiStuckSeconds)
            {
                m_oAgenda.closeLater(*poSession,
                                     "it took no byte for " + std::to_string(m_oSettings.m_uiStuckSeconds) + " s");
            }
            sweepLargeFrame(*poSession);
        });
}

void CZolVekGateway::sweepLargeFrame(CZolVekSession &oSession)
{
    const std::uint64_t ulNow = m_oAgenda.m_ulNowMs;
    if (!oSession.m_bLargeUnderWay || oSession.m_bReady || !oSession.m_strCloseReason.empty())
    {
        return;
    }
    if (m_bDraining || oSession.m_bReadable || oSession.m_bThrottled || oSession.m_poWaitsFor != nullptr)
    {
        oSession.m_ulLargeMs = ulNow; // it is up to us
    }
    else if (ulNow - std::max(oSession.m_ulReceivedMs, oSession.m_ulLargeMs) >= LARGE_FRAME_MS)
    {
        m_oAgenda.closeLater(oSession, "a frame of more than 64 KiB did not go on for 5 s");
    }
}

// ---- The end ------------------------------------------------------------------------------------------------------
//
// Nothing more is read, what has been read is routed, and outboxes leave. Then each pipe is closed in the direction to
// the process, and only when its kernel has acknowledged all, the end included, is it left: a socket that is closed
// while something in it is unread resets the connection, and the kernel throws away what it still had to send. So what
// comes after the half-close is read, dropped and counted.

void CZolVekGateway::drain()
{
    m_bDraining = true;
    m_oRegistrar.drain();
    m_ulDrainUntilMs = m_oAgenda.m_ulNowMs + std::uint64_t{1000} * m_oSettings.m_uiDrainSeconds;
    CZolVekLog::line(CZolRunLog::LEVEL_INFO, "CZolVekGateway::drain", "draining, %zu pipes are up", m_oRoutes.size());
    m_oRouter.beginTurn();
    m_oRouter.endGrace();
    flushDirty();
    m_oRouter.endTurn();
}

bool CZolVekGateway::isSettled() const
{
    bool bWaiting = !m_oAgenda.m_oReady.empty() || !m_oThrottled.empty();
    m_oRoutes.forEach([&](const CZolVekSession *poSession)
                      { bWaiting = bWaiting || poSession->m_poWaitsFor != nullptr; });
    return !bWaiting;
}

bool CZolVekGateway::finishAll()
{
    bool bAll = true;
    m_oRoutes.forEach(
        [&](CZolVekSession *poSession)
        {
            if (!poSession->m_bFinished && poSession->m_oOutbox.isEmpty())
            {
                shutdown(poSession->m_iSocket, SHUT_WR);
                poSession->m_bFinished = true;
                poSession->m_bReadable = true;
                m_oAgenda.giveUp(*poSession);
            }
            bAll = bAll && poSession->m_bFinished && (poSession->m_bBroken || poSession->unacknowledged() == 0);
        });
    return bAll;
}

void CZolVekGateway::dropRest()
{
    std::uint64_t ulLeft = 0;
    std::size_t ulWaiting = 0;
    m_oRoutes.forEach(
        [&](CZolVekSession *poSession)
        {
            ulLeft += poSession->m_oOutbox.bytes() + poSession->unacknowledged();
            ulWaiting += poSession->m_poWaitsFor != nullptr ? 1 : 0;
            m_oStatistics.m_ulDropDraining += poSession->m_oOutbox.frames();
            poSession->m_bFinished = true;
            poSession->m_bDiscard = true;
            poSession->m_oReader.begin(m_oBuffer);
            takeFrames(*poSession); // those that had to wait
            poSession->m_oReader.end();
        });
    CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekGateway::dropRest",
                     "the time to drain is over, %" PRIu64 " bytes are lost, %zu sources had to wait", ulLeft,
                     ulWaiting);
}

void CZolVekGateway::checkDrained()
{
    m_bFinishing = m_bFinishing || isSettled();
    if (m_bFinishing && finishAll())
    {
        m_bDone = true;
    }
    else if (!m_bDone && m_oAgenda.m_ulNowMs >= m_ulDrainUntilMs)
    {
        dropRest();
        m_bDone = true;
    }
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
