#include "gateway/loop/ZolVekNewcomers.h"

#include "ZolRunLog.h"

#include <cinttypes>
#include <sys/epoll.h>
#include <unistd.h>

namespace
{

const int MAX_ACCEPTED = 256;         // of one address too many, before others have their turn
const std::uint64_t CROWDED_MS = 500; // with all places of newcomers taken, one has at least so long to register

} // namespace

bool CZolVekNewcomers::open(int iEpoll, std::uint64_t ulEvent, std::string &strError)
{
    m_iEpoll = iEpoll;
    m_ulEvent = ulEvent;
    return m_oListener.open(m_oSettings, strError) && listen();
}

bool CZolVekNewcomers::listen()
{
    epoll_event oEvent{};
    oEvent.events = EPOLLIN;
    oEvent.data.u64 = m_ulEvent;
    m_bListening = epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, m_oListener.handle(), &oEvent) == 0;
    return m_bListening;
}

void CZolVekNewcomers::stopListening()
{
    epoll_ctl(m_iEpoll, EPOLL_CTL_DEL, m_oListener.handle(), nullptr);
    m_bListening = false; // the backlog holds them; sweep() goes on
}

int CZolVekNewcomers::accept(unsigned int uiUnregistered, std::uint32_t &uiAddress, std::uint16_t &usPort)
{
    if (uiUnregistered >= m_oSettings.m_uiMaxUnregistered)
    {
        stopListening();
        return -1;
    }
    for (int i = 0; i < MAX_ACCEPTED; ++i)
    {
        const int iSocket = m_oListener.accept(uiAddress, usPort);
        if (iSocket < 0)
        {
            if (m_oListener.isExhausted())
            {
                stopListening(); // it would wake the loop at once again
            }
            return -1;
        }
        if (!isCrowded(uiAddress))
        {
            return iSocket;
        }
        close(iSocket);
    }
    return -1;
}

bool CZolVekNewcomers::isCrowded(std::uint32_t uiAddress)
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
        CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekNewcomers::isCrowded",
                         "%u.%u.%u.%u has its %u connections and gets no further one, and %" PRIu64
                         " more since the last line",
                         uiAddress >> 24, (uiAddress >> 16) & 255, (uiAddress >> 8) & 255, uiAddress & 255,
                         oFound->second, ulHeldBack);
    }
    return true;
}

void CZolVekNewcomers::came(CZolVekSession &oSession)
{
    ++m_oByAddress[oSession.m_uiAddress];
    m_oNewcomers.push_back({&oSession, oSession.m_ulSerial, m_oAgenda.m_ulNowMs});
}

void CZolVekNewcomers::gone(const CZolVekSession &oSession)
{
    const auto oCount = m_oByAddress.find(oSession.m_uiAddress);
    if (--oCount->second == 0)
    {
        m_oByAddress.erase(oCount);
    }
}

void CZolVekNewcomers::sweep(unsigned int uiUnregistered, bool bDraining, const TIsOpen &fnIsOpen)
{
    const std::uint64_t ulNow = m_oAgenda.m_ulNowMs;
    while (!m_oNewcomers.empty())
    {
        CZolVekSession *const poSession = m_oNewcomers.front().m_poSession;
        const bool bWaits = fnIsOpen(poSession) && poSession->m_ulSerial == m_oNewcomers.front().m_ulSerial &&
                            poSession->m_eState != VEK_UP && poSession->m_strCloseReason.empty();
        if (bWaits && poSession->m_eState == VEK_PROBING)
        {
            break; // decided within ProbeSeconds
        }
        if (bWaits)
        {
            const std::uint64_t ulWaitedMs = ulNow - m_oNewcomers.front().m_ulCameMs;
            const bool bCrowded = !m_bListening && !bDraining && ulWaitedMs >= CROWDED_MS &&
                                  uiUnregistered - m_oAgenda.m_oToClose.size() >= m_oSettings.m_uiMaxUnregistered;
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
    if (!m_bListening && m_oListener.handle() >= 0 && uiUnregistered < m_oSettings.m_uiMaxUnregistered)
    {
        listen();
    }
}
