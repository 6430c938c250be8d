#include "transport/ZolConnMgr.h"

#include "ZolErrors.h"
#include "ZolListener.h"
#include "ZolResMgr.h"
#include "ZolRunLog.h"
#include "message/ZolPduLog.h"
#include "transport/ZolAssert.h"
#include "transport/ZolDirectClient.h"
#include "transport/ZolHost.h"
#include "transport/ZolPipeOpener.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolSendMsgTask.h"
#include "transport/ZolSocket.h"
#include "transport/ZolText.h"

#include <ace/OS_NS_unistd.h>
#include <cstdlib>
#include <cxxabi.h>
#include <exception>

namespace
{

bool isRefusal(int iStatus)
{
    return iStatus == zolpipe::STATUS_NOT_ALLOWED || iStatus == zolpipe::STATUS_REGISTERED ||
           iStatus == zolpipe::STATUS_FULL;
}

} // namespace

CZolConnMgr *CZolConnMgr::instance()
{
    static CZolConnMgr *const poInstance = new CZolConnMgr; // NOLINT: its thread outlives main
    return poInstance;
}

CZolConnMgr::CZolConnMgr()
    : m_oPoll(m_oTable,
              {[] { return zolHost().isRunning(); },
               [this](unsigned short usProcID, unsigned short usProcHandle)
               { sendHandshakeMsg(usProcID, usProcHandle); },
               &CZolPipeOpener::openAll},
              zolsocket::wallSeconds())
{
}

int CZolConnMgr::open(void * /*pvArg*/)
{
    if (activate(THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED, 1) != 0)
    {
        return -1;
    }
    m_oStart.await();
    return 0;
}

int CZolConnMgr::initConn2Vek(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle)
{
    // Of a start that was refused, or failed later on, and is tried again: the poll would open both connections, and
    // each registration would be the other's refusal.
    m_oTable.removeGateway();
    initIdentity(usProcID, usProcHandle, bNoHandle);
    int iLength = 0;
    if (zol::getResByKey("RcvBufferLength", iLength, zolpipe::MAX_RECV_BUFFER, zolpipe::MIN_RECV_BUFFER) == 0)
    {
        CZolConnection::setRecvBufferLength(static_cast<unsigned int>(iLength));
    }
    const std::string *pstrAddress = zol::getResByKey("VEKAddress");
    const std::string *pstrPort = zol::getResByKey("VEKPort");
    if (pstrAddress == nullptr || pstrPort == nullptr)
    {
        CZolRunLog::startupLog("CZolAppMgr::initAppMgr ip or port of vEK is invalid, so zOL startup as inner system.");
        enterWithoutGateway();
        open(nullptr);
        return 0;
    }
    const long lPort =
        strtol(pstrPort->c_str(), nullptr, 10); // any text gives a number: what does not begin so gives 0
    const auto usPort = static_cast<unsigned short>(lPort);
    ACE_INET_Addr oAddr;
    // a port out of range would be cut to another one, where somebody else may listen
    if (lPort != usPort || pstrAddress->empty() || oAddr.set(usPort, pstrAddress->c_str(), 1, AF_INET) != 0)
    {
        CZolRunLog::error(
            zoltext("CZolConnMgr::initConn2Vek the vEK address is invalid. IP: ", *pstrAddress, " Port: ", *pstrPort)
                .c_str());
        return -1;
    }
    const int iResult = initConn(*pstrAddress, usPort, CZolConnection::CONN_VEK);
    if (isRefusal(iResult))
    {
        CZolRunLog::startupLog(
            zoltext("CZolAppMgr::initAppMgr failed to connect to vEK, return code: ", iResult).c_str());
        return iResult;
    }
    if (iResult != 0)
    {
        CZolRunLog::startupLog("CZolAppMgr::initAppMgr connect to vEK failed!");
    }
    open(nullptr);
    return 0;
}

void CZolConnMgr::initIdentity(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle)
{
    setProcIDAndHandle(usProcID, bNoHandle ? 0 : usProcHandle);
    m_bNoHandle.store(bNoHandle, std::memory_order_relaxed);
    m_bOwnHandle.store(!bNoHandle && usProcHandle != 0, std::memory_order_relaxed);
}

// The gateway's place in the tables, for setVEKAddress to fill.
void CZolConnMgr::enterWithoutGateway()
{
    const CZolConnRef oConn = CZolConnRef::adopt(new CZolConnection(CZolConnection::CONN_VEK));
    oConn->setPipeStatus(false);
    m_oTable.add(oConn, true);
}

int CZolConnMgr::initConn(const std::string &strHost, unsigned short usPort, CZolConnection::EnumPipeType ePipeType)
{
    ZOL_ASSERT((CZolConnection::CONN_VEK == ePipeType) || (CZolConnection::CONN_INITIATIVE == ePipeType));
    CZolDebugInfo oDebug("CZolConnMgr::initConn");
    if (ePipeType == CZolConnection::CONN_INITIATIVE && !isNoHandle() && getProcHandle() == 0)
    {
        // The blank that is missing in front of LocalProcHandle: tools that read the log know the line so.
        oDebug.error(zoltext("forbidden to request opposite app to allocate prochandle. LocalProcID ", getProcID(),
                             "LocalProcHandle ", getProcHandle())
                         .c_str());
        return -1;
    }
    const CZolConnRef oConn = CZolConnRef::adopt(new CZolConnection(ePipeType, strHost, usPort));
    const int iResult = oConn->connect();
    m_oTable.add(oConn, iResult == 0 || ePipeType == CZolConnection::CONN_VEK);
    if (iResult == 0)
    {
        oConn->registerEvent();
    }
    return iResult;
}

CZolConnRef CZolConnMgr::vekConnection(const char *pcScope)
{
    CZolConnRef oConn = m_oTable.find(0, 0);
    if (!oConn)
    {
        CZolDebugInfo(pcScope).warning("can not find the vEK connection.");
    }
    return oConn;
}

int CZolConnMgr::setVEKAddress(const std::string &strHost, unsigned short usPort)
{
    const CZolConnRef oConn = vekConnection("CZolConnMgr::setVEKAddress");
    return oConn ? oConn->setRemoteAddr(strHost, usPort) : -1;
}

void CZolConnMgr::setVEKAddrStatus(bool bValid)
{
    const CZolConnRef oConn = vekConnection("CZolConnMgr::setVEKAddrStatus");
    if (oConn)
    {
        oConn->setAddrStatus(bValid);
    }
}

int CZolConnMgr::connect2VEK()
{
    const CZolConnRef oConn = vekConnection("CZolConnMgr::connect2VEK");
    if (!oConn)
    {
        return -1;
    }
    const int iResult = oConn->connect();
    if (iResult != 0)
    {
        return iResult;
    }
    // whoever entered the new life in the table, here or in the poll, also sees to the rest
    if (m_oTable.rekey(oConn.get()))
    {
        oConn->registerEvent();
        m_oSubscriptions.replay(zolHost(), false);
    }
    return 0;
}

void CZolConnMgr::shutVEKConnect()
{
    const CZolConnRef oConn = vekConnection("CZolConnMgr::shutVEKConnect");
    if (oConn)
    {
        closePipe(oConn.get(), oConn->getLife());
    }
}

bool CZolConnMgr::isConnected(unsigned short usProcID, unsigned short usProcHandle)
{
    // The answer is good until something changes. The version is read first: an answer that is newer than it only
    // lives shorter.
    thread_local std::uint64_t ulKnownVersion = 0;
    thread_local std::uint32_t uiKnownKey = 0;
    thread_local bool bKnown = false;
    const std::uint64_t ulVersion = m_oTable.getVersion();
    const std::uint32_t uiKey = (static_cast<std::uint32_t>(usProcID) << 16) | usProcHandle;
    if (ulVersion == ulKnownVersion && uiKey == uiKnownKey)
    {
        return bKnown;
    }
    ulKnownVersion = ulVersion;
    uiKnownKey = uiKey;
    bKnown = m_oTable.isConnected(usProcID, usProcHandle);
    return bKnown;
}

int CZolConnMgr::sendOn(CZolConnection *poConn, const void *pvBuf, unsigned int uiLen)
{
    CZolConnection::SSendOutcome oOutcome;
    const int iResult = poConn->send(pvBuf, uiLen, &oOutcome);
    if (iResult < 1 && oOutcome.m_uiSent != 0)
    {
        // The stream ends inside a message: whatever followed would be taken for the rest of it.
        closePipe(poConn, oOutcome.m_uiLife);
    }
    return iResult;
}

void CZolConnMgr::setProcIDAndHandle(unsigned short usProcID, unsigned short usProcHandle)
{
    CZolIdentity::own().setProcID(usProcID);
    CZolIdentity::own().setProcHandle(usProcHandle);
}

void CZolConnMgr::sendHandshakeMsg(unsigned short usProcID, unsigned short usProcHandle)
{
    CZolMsgPdu *poHello = zolpipe::newHello(getProcID(), getProcHandle(), usProcID, usProcHandle);
    if (poHello == nullptr)
    {
        CZolDebugInfo("CZolConnMgr::sendHandshakeMsg").fatal("Can't allocate memory for message");
        return;
    }
    CZolSendMsgTask::instance()->sendMsg(zolBlockOf(poHello), false);
}

int CZolConnMgr::svc()
{
    m_oStart.arrived();
    long lLastPoll = 0;
    for (;;)
    {
        ACE_OS::sleep(static_cast<unsigned int>(zolpipe::POLL_SECONDS));
        runPollCycle(zolsocket::wallSeconds(), lLastPoll);
    }
}

void CZolConnMgr::runPollCycle(long lNow, long &lLastPoll)
{
    std::vector<CZolConnRef> oReconnected;
    std::vector<SZolPipeLife> oDead;
    pollConnectons(oReconnected, oDead, lNow, lLastPoll);
    for (const SZolPipeLife &oPipe : oDead)
    {
        closePipe(oPipe.m_oConn.get(), oPipe.m_uiLife);
    }
    finishReconnect(oReconnected);
}

// The name lacks a letter; the scopes of log lines carry it.
void CZolConnMgr::pollConnectons(std::vector<CZolConnRef> &oReconnected, std::vector<SZolPipeLife> &oDead, long lNow,
                                 long &lLastPoll)
{
    m_oPoll.run(oReconnected, oDead, lNow, lLastPoll);
}

void CZolConnMgr::finishReconnect(const std::vector<CZolConnRef> &oReconnected)
{
    std::vector<CZolConnRef> oEntered;
    for (const CZolConnRef &oConn : oReconnected)
    {
        if (m_oTable.rekey(oConn.get()))
        {
            oEntered.push_back(oConn);
        }
    }
    for (const CZolConnRef &oConn : oEntered)
    {
        oConn->registerEvent();
        if (oConn->getPipeType() == CZolConnection::CONN_VEK)
        {
            m_oSubscriptions.replay(zolHost(), true);
        }
    }
}

int CZolConnMgr::recvMsg(ACE_HANDLE &oHandle)
{
    const CZolConnRef oConn = m_oTable.find(oHandle);
    if (!oConn || !oConn->getPipeStatus())
    {
        return 0;
    }
    const unsigned int uiLife = oConn->getLife();
    if (oConn->receive() < 0)
    {
        m_oTable.close(oConn.get(), uiLife);
    }
    return 0;
}

int CZolConnMgr::sendP2PMsg(unsigned int uiAddr, unsigned short usPort, CZolMsgPdu *&poRequest,
                            CZolMsgPdu **ppoResponse, int iConnTimeout, int iRecvTimeout)
{
    const int iResult = CZolDirectClient(uiAddr, usPort).exchange(poRequest, ppoResponse, iConnTimeout, iRecvTimeout);
    if (iResult == ZOL_OK && ppoResponse != nullptr)
    {
        zolLogHeader(**ppoResponse);
    }
    return iResult;
}

void CZolConnMgr::recvP2PMsg(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse)
{
    CZolDebugInfo oDebug("CZolConnMgr::recvP2PMsg");
    CZolListener *poListener = m_poListener.load(std::memory_order_acquire);
    if (poListener == nullptr)
    {
        oDebug.warning("there is no P2P listener.");
        return;
    }
    try
    {
        poListener->handleP2PMsg(poRequest, poResponse);
    }
    catch (const abi::__forced_unwind &)
    {
        throw; // a cancelled thread, not a fault
    }
    catch (const std::exception &oException)
    {
        oDebug.fatal(zoltext("the listener threw an exception: ", oException.what()).c_str());
    }
    catch (...)
    {
        oDebug.fatal("the listener threw an exception.");
    }
}
