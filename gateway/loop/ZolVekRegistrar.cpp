#include "gateway/loop/ZolVekRegistrar.h"

#include "ZolRunLog.h"

#include <algorithm>
#include <cinttypes>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace
{

const std::uint32_t BODY_BYTES = 4;

TZolVekKey keyOf(const char *pcRequest, std::uint16_t usHandle)
{
    return zolVekKey(zolwire::load16(pcRequest + zolwire::AT_SRC_PROC), usHandle);
}

/// What the kernel knows of the other end; TCP_ESTABLISHED if it cannot be asked.
int stateOf(int iSocket)
{
    tcp_info oInfo{};
    socklen_t uiLength = sizeof oInfo;
    return getsockopt(iSocket, IPPROTO_TCP, TCP_INFO, &oInfo, &uiLength) == 0 ? oInfo.tcpi_state : int{TCP_ESTABLISHED};
}

} // namespace

void CZolVekRegistrar::first(CZolVekSession &oSession, const CZolVekFrame &oFrame)
{
    if (oFrame.type() != CZolMsgPdu::MSG_REGISTER || oFrame.headerLength() != zolwire::HEADER_BYTES ||
        oFrame.dataLength() != BODY_BYTES)
    {
        m_oAgenda.closeLater(oSession, "its first message is no register message");
        return;
    }
    const char *const pcRequest = oFrame.data();
    const std::uint16_t usProcID = zolwire::load16(pcRequest + zolwire::AT_SRC_PROC);
    const int iStatus = admit(oSession, usProcID);
    if (iStatus != VEK_STATUS_ACCEPTED)
    {
        refuse(oSession, pcRequest, iStatus);
        return;
    }
    std::uint16_t usHandle = zolwire::load16(pcRequest + zolwire::AT_SRC_HANDLE);
    const bool bAllocate = usHandle == 0 && zolwire::load32(oFrame.payload()) == 0;
    if (bAllocate)
    {
        if (!m_oRoutes.allocate(usProcID, m_oAgenda.m_ulNowMs, usHandle))
        {
            refuse(oSession, pcRequest, VEK_STATUS_FULL);
            return;
        }
        accept(oSession, pcRequest, zolVekKey(usProcID, usHandle));
        return;
    }
    CZolVekSession *const poOld = m_oRoutes.find(zolVekKey(usProcID, usHandle));
    if (poOld == nullptr)
    {
        accept(oSession, pcRequest, zolVekKey(usProcID, usHandle));
        return;
    }
    startProbe(oSession, *poOld, pcRequest);
}

int CZolVekRegistrar::admit(const CZolVekSession &oSession, std::uint16_t usProcID) const
{
    if (m_bDraining)
    {
        return VEK_STATUS_DRAINING;
    }
    if (!m_oPolicy.mayRegister(usProcID, oSession.m_uiAddress))
    {
        return VEK_STATUS_FORBIDDEN;
    }
    return m_oRoutes.size() >= m_oSettings.m_uiMaxConnections ? VEK_STATUS_FULL : VEK_STATUS_ACCEPTED;
}

void CZolVekRegistrar::startProbe(CZolVekSession &oNewcomer, CZolVekSession &oOld, const char *pcRequest)
{
    SProbe oProbe = {&oNewcomer, &oOld, m_oAgenda.m_ulNowMs, 0, {}};
    std::memcpy(oProbe.m_acRequest, pcRequest, sizeof oProbe.m_acRequest);
    oNewcomer.m_eState = VEK_PROBING;
    m_oProbes.push_back(oProbe);
    m_oAgenda.ready(oOld);
    look(m_oProbes.back());
}

bool CZolVekRegistrar::isQuiet(const CZolVekSession &oOld)
{
    int iUnread = 0;
    return !oOld.m_bReadable && oOld.m_poWaitsFor == nullptr && ioctl(oOld.m_iSocket, FIONREAD, &iUnread) == 0 &&
           iUnread == 0;
}

bool CZolVekRegistrar::isAlive(const SProbe &oProbe, std::uint64_t ulNowMs)
{
    int iUnacknowledged = 0;
    const int iSocket = oProbe.m_poOld->m_iSocket;
    if (oProbe.m_ulAskedMs == 0 || ulNowMs <= oProbe.m_ulAskedMs)
    {
        return false;
    }
    if (ioctl(iSocket, SIOCOUTQ, &iUnacknowledged) == 0 && iUnacknowledged == 0)
    {
        return true;
    }
    // a process that is stopped takes no bytes, but its kernel still answers
    tcp_info oInfo{};
    socklen_t uiLength = sizeof oInfo;
    return getsockopt(iSocket, IPPROTO_TCP, TCP_INFO, &oInfo, &uiLength) == 0 &&
           oInfo.tcpi_last_ack_recv + 1 < ulNowMs - oProbe.m_ulAskedMs;
}

bool CZolVekRegistrar::look(SProbe &oProbe)
{
    CZolVekSession &oOld = *oProbe.m_poOld;
    const std::uint64_t ulWaitedMs = m_oAgenda.m_ulNowMs - oProbe.m_ulStartMs;
    const std::uint64_t ulProbeMs = std::uint64_t{1000} * m_oSettings.m_uiProbeSeconds;
    if (!oOld.m_strCloseReason.empty())
    {
        return false; // it closes at the end of this turn
    }
    const int iState = stateOf(oOld.m_iSocket);
    if (iState == TCP_ESTABLISHED && isAlive(oProbe, m_oAgenda.m_ulNowMs))
    {
        return true;
    }
    if (ulWaitedMs >= ulProbeMs && iState != TCP_ESTABLISHED)
    {
        m_oAgenda.giveUp(oOld); // it has ended, and there is no room for what it has sent before
    }
    else if (ulWaitedMs >= ulProbeMs)
    {
        m_oAgenda.closeLater(oOld, "its process or machine has gone, and another process takes its place");
    }
    else if (iState == TCP_ESTABLISHED && oProbe.m_ulAskedMs == 0 && (isQuiet(oOld) || ulWaitedMs >= ulProbeMs / 2))
    {
        char acHello[zolwire::HEADER_BYTES];
        oOld.fillHello(acHello);
        oOld.m_oOutbox.addHello(acHello);
        m_oAgenda.dirty(oOld);
        oProbe.m_ulAskedMs = m_oAgenda.m_ulNowMs;
    }
    return false;
}

void CZolVekRegistrar::tick()
{
    for (std::size_t ulAt = 0; ulAt < m_oProbes.size();)
    {
        if (!look(m_oProbes[ulAt]))
        {
            ++ulAt;
            continue;
        }
        refuse(*m_oProbes[ulAt].m_poNewcomer, m_oProbes[ulAt].m_acRequest, VEK_STATUS_UP);
        m_oProbes.erase(m_oProbes.begin() + static_cast<std::ptrdiff_t>(ulAt));
    }
}

void CZolVekRegistrar::gone(CZolVekSession &oSession)
{
    for (std::size_t ulAt = 0; ulAt < m_oProbes.size();)
    {
        const SProbe oProbe = m_oProbes[ulAt];
        if (oProbe.m_poNewcomer != &oSession && oProbe.m_poOld != &oSession)
        {
            ++ulAt;
            continue;
        }
        m_oProbes.erase(m_oProbes.begin() + static_cast<std::ptrdiff_t>(ulAt));
        if (oProbe.m_poOld != &oSession)
        {
            continue;
        }
        const TZolVekKey uiKey =
            keyOf(oProbe.m_acRequest, zolwire::load16(oProbe.m_acRequest + zolwire::AT_SRC_HANDLE));
        const int iStatus = admit(*oProbe.m_poNewcomer, zolVekProcOf(uiKey));
        if (iStatus != VEK_STATUS_ACCEPTED)
        {
            refuse(*oProbe.m_poNewcomer, oProbe.m_acRequest, iStatus);
        }
        else if (m_oRoutes.find(uiKey) == nullptr)
        {
            accept(*oProbe.m_poNewcomer, oProbe.m_acRequest, uiKey);
        }
        else
        {
            refuse(*oProbe.m_poNewcomer, oProbe.m_acRequest, VEK_STATUS_UP); // another newcomer was first
        }
        m_oAgenda.ready(*oProbe.m_poNewcomer);
    }
}

void CZolVekRegistrar::accept(CZolVekSession &oSession, const char *pcRequest, TZolVekKey uiKey)
{
    oSession.m_eState = VEK_UP;
    oSession.m_uiKey = uiKey;
    m_oRoutes.add(uiKey, &oSession);
    ++m_oStatistics.m_ulRegistered;
    respond(oSession, pcRequest, zolVekHandleOf(uiKey), VEK_STATUS_ACCEPTED);
    CZolVekLog::line(CZolRunLog::LEVEL_INFO, "CZolVekRegistrar::accept", "%s is up, %zu in all",
                     oSession.name().c_str(), m_oRoutes.size());
}

void CZolVekRegistrar::refuse(CZolVekSession &oSession, const char *pcRequest, int iStatus)
{
    oSession.m_eState = VEK_REFUSED;
    switch (iStatus)
    {
    case VEK_STATUS_UP:
        ++m_oStatistics.m_ulRefusedUp;
        break;
    case VEK_STATUS_FORBIDDEN:
        ++m_oStatistics.m_ulRefusedId;
        break;
    case VEK_STATUS_FULL:
        ++m_oStatistics.m_ulRefusedFull;
        break;
    default:
        ++m_oStatistics.m_ulRefusedDrain;
        break;
    }
    respond(oSession, pcRequest, zolwire::load16(pcRequest + zolwire::AT_SRC_HANDLE), iStatus);
    std::uint64_t ulHeldBack = 0;
    if (m_oRefusalLines.pass(oSession.m_uiAddress, m_oAgenda.m_ulNowMs, ulHeldBack))
    {
        CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekRegistrar::refuse",
                         "process %u handle %u from %s refused, status %d; and %" PRIu64 " more since the last line",
                         zolwire::load16(pcRequest + zolwire::AT_SRC_PROC),
                         zolwire::load16(pcRequest + zolwire::AT_SRC_HANDLE), oSession.name().c_str(), iStatus,
                         ulHeldBack);
    }
}

void CZolVekRegistrar::respond(CZolVekSession &oSession, const char *pcRequest, std::uint16_t usHandle, int iStatus)
{
    char acResponse[zolwire::HEADER_BYTES + BODY_BYTES] = {};
    acResponse[zolwire::AT_VERSION] = pcRequest[zolwire::AT_VERSION];
    acResponse[zolwire::AT_TYPE] = CZolMsgPdu::MSG_REGISTER;
    std::memcpy(acResponse + zolwire::AT_COMMAND, pcRequest + zolwire::AT_COMMAND, 4);
    std::memcpy(acResponse + zolwire::AT_DEST_PROC, pcRequest + zolwire::AT_SRC_PROC, 2);
    zolwire::store16(acResponse + zolwire::AT_DEST_HANDLE, usHandle);
    acResponse[zolwire::AT_SRC_MODULE] = pcRequest[zolwire::AT_DEST_MODULE];
    acResponse[zolwire::AT_DEST_MODULE] = pcRequest[zolwire::AT_SRC_MODULE];
    std::memcpy(acResponse + zolwire::AT_SRC_TASK, pcRequest + zolwire::AT_DEST_TASK, 2);
    std::memcpy(acResponse + zolwire::AT_DEST_TASK, pcRequest + zolwire::AT_SRC_TASK, 2);
    zolwire::store16(acResponse + zolwire::AT_HEADER_LENGTH, zolwire::HEADER_BYTES);
    zolwire::store32(acResponse + zolwire::AT_DATA_LENGTH, BODY_BYTES);
    zolwire::store32(acResponse + zolwire::HEADER_BYTES, static_cast<std::uint32_t>(iStatus));
    oSession.m_oOutbox.addCopy(acResponse, sizeof acResponse);
    m_oAgenda.dirty(oSession);
}
