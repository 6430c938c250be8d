#include "gateway/watch/http/ZolSnapshot.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace
{

void signalFd(int iFd)
{
    const std::uint64_t ulOne = 1;
    // cannot fail short of 2^64 - 1 signals that nobody took
    (void)!write(iFd, &ulOne, sizeof ulOne);
}

void takeSignal(int iFd)
{
    std::uint64_t ulCount = 0;
    (void)!read(iFd, &ulCount, sizeof ulCount);
}

} // namespace

void SZolGatewaySnapshot::clear()
{
    SZolGatewaySnapshot oEmpty;
    oEmpty.m_oDrops.swap(m_oDrops);
    oEmpty.m_oRegistrations.swap(m_oRegistrations);
    oEmpty.m_oPipes.swap(m_oPipes);
    oEmpty.m_oEdges.swap(m_oEdges);
    oEmpty.m_oSubscriptions.swap(m_oSubscriptions);
    oEmpty.m_oEvents.swap(m_oEvents);
    oEmpty.m_oSettings.swap(m_oSettings);
    *this = std::move(oEmpty);
    m_oDrops.clear();
    m_oRegistrations.clear();
    m_oPipes.clear();
    m_oEdges.clear();
    m_oSubscriptions.clear();
    m_oEvents.clear();
    m_oSettings.clear();
}

CZolSnapshotExchange::CZolSnapshotExchange()
    : m_iAskedFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_iFilledFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

CZolSnapshotExchange::~CZolSnapshotExchange()
{
    for (const int iFd : {m_iAskedFd, m_iFilledFd})
    {
        if (iFd >= 0)
        {
            close(iFd);
        }
    }
}

SZolGatewaySnapshot *CZolSnapshotExchange::takeAsked()
{
    takeSignal(m_iAskedFd);
    return m_poAsked.exchange(nullptr, std::memory_order_acquire);
}

void CZolSnapshotExchange::publish(SZolGatewaySnapshot *poFilled)
{
    m_poFilled.store(poFilled, std::memory_order_release);
    signalFd(m_iFilledFd);
}

void CZolSnapshotExchange::end()
{
    m_bEnded.store(true, std::memory_order_release);
    signalFd(m_iFilledFd);
}

const SZolGatewaySnapshot *CZolSnapshotExchange::get(std::chrono::milliseconds oMaxAge, std::chrono::milliseconds oWait,
                                                     bool bWatched)
{
    const auto hasAll = [this, bWatched] { return m_poPresent->m_bWatched || !bWatched; };
    if (m_poPresent != nullptr && hasAll() && std::chrono::steady_clock::now() - m_oReceived < oMaxAge)
    {
        return m_poPresent;
    }
    if (m_bOutstanding)
    {
        (void)waitFilled(std::chrono::milliseconds(0)); // came after its asker had given up: too old by now
    }
    ask(bWatched);
    const auto oNow = std::chrono::steady_clock::now();
    const bool bTriedJustNow = m_bSilent && oNow - m_oGivenUp < oMaxAge;
    const auto oPatience = bTriedJustNow ? std::chrono::milliseconds(0) : oWait;
    m_bSilent = !waitFilled(oPatience);
    if (!m_bSilent && !hasAll()) // it was asked for less before
    {
        ask(bWatched);
        m_bSilent = !waitFilled(oPatience);
    }
    if (m_bSilent && !bTriedJustNow)
    {
        m_oGivenUp = std::chrono::steady_clock::now();
    }
    return m_bSilent ? nullptr : m_poPresent;
}

void CZolSnapshotExchange::ask(bool bWatched)
{
    if (m_bOutstanding)
    {
        return;
    }
    SZolGatewaySnapshot *const poFree = m_poPresent == &m_aoRecords[0] ? &m_aoRecords[1] : &m_aoRecords[0];
    poFree->clear();
    poFree->m_bWatched = bWatched;
    m_poAsked.store(poFree, std::memory_order_release);
    m_bOutstanding = true;
    signalFd(m_iAskedFd);
}

// An answer that does not come in time is still owed: the next get() takes it from its slot or goes on waiting for it,
// so that a routing thread that is busy is never asked twice.
bool CZolSnapshotExchange::waitFilled(std::chrono::milliseconds oWait)
{
    const auto oEnd = std::chrono::steady_clock::now() + oWait;
    while (true)
    {
        if (SZolGatewaySnapshot *const poFilled = m_poFilled.exchange(nullptr, std::memory_order_acquire))
        {
            takeSignal(m_iFilledFd);
            m_poPresent = poFilled;
            m_bOutstanding = false;
            m_oReceived = std::chrono::steady_clock::now();
            ++m_ulNumber;
            return true;
        }
        const auto oLeft = std::chrono::ceil<std::chrono::milliseconds>(oEnd - std::chrono::steady_clock::now());
        if (oLeft.count() <= 0 || m_bEnded.load(std::memory_order_acquire))
        {
            return false;
        }
        pollfd oPoll = {m_iFilledFd, POLLIN, 0};
        if (poll(&oPoll, 1, static_cast<int>(oLeft.count())) > 0 &&
            m_poFilled.load(std::memory_order_acquire) == nullptr)
        {
            takeSignal(m_iFilledFd); // left over from an answer that was taken before its signal came
        }
    }
}
