#include "support/RawGateway.h"

#include <algorithm>
#include <arpa/inet.h>
#include <poll.h>

namespace zoltest
{

CRawGateway::CRawGateway(unsigned short usPort) : m_oListener(usPort), m_oThread([this] { run(); }) {}

CRawGateway::~CRawGateway()
{
    m_bEnd = true;
    m_oThread.join();
}

std::string CRawGateway::config() const
{
    return "VEKAddress = 127.0.0.1\nVEKPort = " + std::to_string(port()) + "\n";
}

std::vector<SFrame> CRawGateway::frames() const
{
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    return m_oFrames;
}

unsigned int CRawGateway::countOfType(unsigned int uiType) const
{
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    return static_cast<unsigned int>(std::count_if(
        m_oFrames.begin(), m_oFrames.end(), [uiType](const SFrame &oFrame) { return oFrame.m_ucType == uiType; }));
}

void CRawGateway::send(const SFrame &oFrame)
{
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    route(oFrame);
}

void CRawGateway::dropAll()
{
    m_bDrop = true;
}

void CRawGateway::run()
{
    while (!m_bEnd)
    {
        std::vector<pollfd> oPolls{{m_oListener.socket(), POLLIN, 0}};
        for (const SSession &oSession : m_oSessions)
        {
            oPolls.push_back({oSession.m_oPipe.socket(), POLLIN, 0});
        }
        poll(oPolls.data(), oPolls.size(), 10);
        const bool bDrop = m_bDrop.exchange(false); // one that comes later is for the next turn
        std::size_t uiIndex = 1;
        for (auto itSession = m_oSessions.begin(); itSession != m_oSessions.end(); ++uiIndex)
        {
            const bool bReadable = oPolls[uiIndex].revents != 0;
            if (bDrop || (bReadable && !serve(*itSession)))
            {
                const std::lock_guard<std::mutex> oGuard(m_oLock);
                m_uiPipes -= itSession->m_bRegistered ? 1U : 0U;
                itSession = m_oSessions.erase(itSession);
            }
            else
            {
                ++itSession;
            }
        }
        if (oPolls[0].revents != 0)
        {
            const std::lock_guard<std::mutex> oGuard(m_oLock);
            m_oSessions.emplace_back();
            m_oSessions.back().m_oPipe = m_oListener.accept();
        }
    }
}

bool CRawGateway::serve(SSession &oSession)
{
    SFrame oFrame;
    if (!oSession.m_oPipe.readFrame(oFrame))
    {
        return false;
    }
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    m_oFrames.push_back(oFrame);
    switch (oFrame.m_ucType)
    {
    case 3:
        answerRegister(oSession, oFrame);
        return oSession.m_bRegistered;
    case 4:
        oSession.m_oPipe.send(oFrame.wire());
        return true;
    case 11:
    case 12:
    case 15:
        answerLookUp(oSession, oFrame);
        return true;
    default:
        route(oFrame);
        return true;
    }
}

void CRawGateway::answerRegister(SSession &oSession, const SFrame &oRequest)
{
    const int iStatus = m_iStatus;
    SFrame oResponse = registerFrame(0, 0, static_cast<unsigned int>(iStatus));
    const bool bAllocate = oRequest.m_usSrcHandle == 0 && oRequest.status() == 0;
    oResponse.m_usDestProc = oRequest.m_usSrcProc;
    oResponse.m_usDestHandle = bAllocate ? m_usNext.load() : oRequest.m_usSrcHandle;
    oSession.m_usProc = oRequest.m_usSrcProc;
    oSession.m_usHandle = oResponse.m_usDestHandle;
    oSession.m_bRegistered = iStatus == 0;
    m_uiPipes += oSession.m_bRegistered ? 1U : 0U;
    oSession.m_oPipe.send(oResponse.wire());
}

void CRawGateway::answerLookUp(SSession &oSession, const SFrame &oRequest)
{
    SFrame oResponse = oRequest;
    oResponse.m_ucType = 2;
    std::swap(oResponse.m_usSrcProc, oResponse.m_usDestProc);
    std::swap(oResponse.m_usSrcHandle, oResponse.m_usDestHandle);
    std::swap(oResponse.m_ucSrcModule, oResponse.m_ucDestModule);
    std::swap(oResponse.m_usSrcTask, oResponse.m_usDestTask);
    oResponse.body(oRequest.m_ucType == 15 ? word32(0) + word32(INADDR_LOOPBACK) + word16(4711) : word32(0));
    oSession.m_oPipe.send(oResponse.wire());
}

void CRawGateway::route(const SFrame &oFrame)
{
    for (SSession &oSession : m_oSessions)
    {
        if (oSession.m_bRegistered && oSession.m_usProc == oFrame.m_usDestProc &&
            (oFrame.m_usDestHandle == 0 || oSession.m_usHandle == oFrame.m_usDestHandle))
        {
            oSession.m_oPipe.send(oFrame.wire());
            return;
        }
    }
}

} // namespace zoltest
