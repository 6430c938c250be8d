#include "transport/ZolP2PRequest.h"

#include "transport/ZolAcceptorHandler.h"
#include "transport/ZolPipeProtocol.h"

#include <ace/Guard_T.h>
#include <algorithm>

SZolP2PRequest::SZolP2PRequest(const CZolConnRef &oConn, const CZolMsgPdu &oHeader)
    : m_poConn(oConn.get()), m_poPdu(new (oHeader.m_ulDataLength + zolpipe::HEADER_LENGTH) CZolMsgPdu),
      m_ulData(oHeader.m_ulDataLength)
{
    m_poConn->addRef();
    if (m_poPdu != nullptr)
    {
        *m_poPdu = oHeader;
        m_poPdu->m_usHeaderLength = zolpipe::HEADER_LENGTH; // there is no more of it than this
    }
}

SZolP2PRequest::~SZolP2PRequest()
{
    m_poConn->release();
    delete m_poPdu;
    CZolP2PDesk::instance().end(m_ulData);
    CZolAcceptorHandler::wakeForUnread();
}

CZolP2PDesk &CZolP2PDesk::instance()
{
    static CZolP2PDesk *const poInstance = new CZolP2PDesk; // NOLINT: the task's thread may outlive main
    return *poInstance;
}

bool CZolP2PDesk::hasRoom(std::uint32_t ulData) const
{
    const std::uint32_t ulLargest = m_oSizes.empty() ? 0 : *m_oSizes.rbegin();
    return m_ulBytes + ulData - std::max(ulLargest, ulData) <= m_ulBesides;
}

void CZolP2PDesk::count(std::uint32_t ulData)
{
    m_oSizes.insert(ulData);
    m_ulBytes += ulData;
}

CZolP2PDesk::EnumAdmission CZolP2PDesk::admit(const CZolConnRef &oConn, const CZolMsgPdu &oHeader)
{
    ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oLock, REFUSED);
    if (m_oSizes.size() + m_oUnread.size() >= MAX_REQUESTS)
    {
        return REFUSED;
    }
    if (!hasRoom(oHeader.m_ulDataLength))
    {
        m_oUnread.push_back({oConn, oHeader});
        return WAITING;
    }
    count(oHeader.m_ulDataLength);
    return ADMITTED;
}

bool CZolP2PDesk::next(CZolConnRef &oConn, CZolMsgPdu &oHeader)
{
    ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oLock, false);
    m_bWoken = false;
    if (m_oUnread.empty() || !hasRoom(m_oUnread.front().m_oHeader.m_ulDataLength))
    {
        return false;
    }
    oConn = std::move(m_oUnread.front().m_oConn);
    oHeader = m_oUnread.front().m_oHeader;
    m_oUnread.pop_front();
    count(oHeader.m_ulDataLength);
    return true;
}

void CZolP2PDesk::end(std::uint32_t ulData)
{
    ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oLock);
    m_oSizes.erase(m_oSizes.find(ulData));
    m_ulBytes -= ulData;
}

bool CZolP2PDesk::hasToWake()
{
    ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oLock, false);
    if (m_bWoken || m_oUnread.empty() || !hasRoom(m_oUnread.front().m_oHeader.m_ulDataLength))
    {
        return false;
    }
    m_bWoken = true;
    return true;
}

void CZolP2PDesk::wakeFailed()
{
    ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oLock);
    m_bWoken = false;
}

void CZolP2PDesk::setBytesBesidesLargest(std::uint64_t ulBytes)
{
    ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oLock);
    m_ulBesides = ulBytes;
}

std::size_t CZolP2PDesk::countWaiting()
{
    ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oLock, 0);
    return m_oUnread.size();
}

std::size_t CZolP2PDesk::countInHand()
{
    ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oLock, 0);
    return m_oSizes.size();
}

void CZolP2PDesk::hand(const SZolP2PRequest *poRequest)
{
    ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oLock);
    m_oUnderWay.insert(poRequest);
}

bool CZolP2PDesk::take(const SZolP2PRequest *poRequest)
{
    ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oLock, false);
    return m_oUnderWay.erase(poRequest) != 0;
}
