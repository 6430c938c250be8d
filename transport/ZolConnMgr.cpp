#include "transport/ZolConnMgr.h"

#include "ZolResMgr.h"
#include "ZolRunLog.h"
#include "transport/ZolAssert.h"
#include "transport/ZolHost.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolSendMsgTask.h"
#include "transport/ZolSocket.h"
#include "transport/ZolText.h"

#include <ace/Guard_T.h>
#include <cstdlib>

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

CZolConnMgr::CZolConnMgr() : m_lLastHelloTime(zolsocket::wallSeconds()) {}

CZolConnMgr::~CZolConnMgr()
{
    for (const auto &oEntry : m_oHandleMap)
    {
        oEntry.second->release();
    }
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
    forgetGateway();
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

// Of a start that was refused, or failed later on, and is tried again: the poll would open both connections, and each
// registration would be the other's refusal.
void CZolConnMgr::forgetGateway()
{
    CZolConnRef oOld;
    bool bClosing = false;
    {
        ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oConnLock);
        oOld = CZolConnRef(findProc(0, 0));
        if (!oOld)
        {
            return;
        }
        bClosing = static_cast<bool>(unlinkDown(oOld.get()));
        m_oProcMap[0].erase(0);
        leave(oOld.get());
        oOld->release(); // the table's
    }
    if (bClosing)
    {
        oOld->disconnect();
    }
}

// The gateway's place in the tables, for setVEKAddress to fill.
void CZolConnMgr::enterWithoutGateway()
{
    auto *poConn = new CZolConnection(CZolConnection::CONN_VEK);
    poConn->setPipeStatus(false);
    ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oConnLock);
    m_oProcMap[0][0] = poConn;
    enter(poConn, ACE_INVALID_HANDLE);
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
    CZolConnRef oConn = CZolConnRef::adopt(new CZolConnection(ePipeType, strHost, usPort));
    const int iResult = oConn->connect();
    {
        ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, -1);
        if (iResult == 0 || ePipeType == CZolConnection::CONN_VEK)
        {
            m_oProcMap[oConn->getOppProcID()][oConn->getOppProcHandle()] = oConn.get();
        }
        oConn->addRef();
        enter(oConn.get(), oConn->getHandle());
    }
    if (iResult == 0)
    {
        oConn->registerEvent();
    }
    return iResult;
}

CZolConnRef CZolConnMgr::vekConnection(const char *pcScope)
{
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, CZolConnRef());
    CZolConnection *poConn = findProc(0, 0);
    if (poConn == nullptr)
    {
        CZolDebugInfo(pcScope).warning("can not find the vEK connection.");
    }
    return CZolConnRef(poConn);
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
    bool bEntered = false;
    {
        ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, -1);
        bEntered = rekey(oConn.get());
    }
    // whoever entered the new life in the tables, here or in the poll, also sees to the rest
    if (bEntered)
    {
        oConn->registerEvent();
        replaySubscribe(false);
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
    const std::uint64_t ulVersion = m_ulVersion.load(std::memory_order_acquire);
    const std::uint32_t uiKey = (static_cast<std::uint32_t>(usProcID) << 16) | usProcHandle;
    if (ulVersion == ulKnownVersion && uiKey == uiKnownKey)
    {
        return bKnown;
    }
    bool bUp = false;
    {
        ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, false);
        const CZolConnection *poDirect = findProc(usProcID, usProcHandle);
        const CZolConnection *poVek = findProc(0, 0);
        bUp = (poDirect != nullptr && poDirect->getPipeStatus()) || (poVek != nullptr && poVek->getPipeStatus());
    }
    ulKnownVersion = ulVersion;
    uiKnownKey = uiKey;
    bKnown = bUp;
    return bUp;
}

CZolConnRef CZolConnMgr::chooseConnection(const CZolMsgPdu *poPdu)
{
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, CZolConnRef());
    if (!zolpipe::goesToGateway(*poPdu))
    {
        CZolConnection *poDirect = findProc(poPdu->m_usDestProcID, poPdu->m_usDestProcHandle);
        if (poDirect != nullptr && poDirect->getPipeStatus())
        {
            return CZolConnRef(poDirect);
        }
    }
    return CZolConnRef(findProc(0, 0));
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

bool CZolConnMgr::isProcRegistered(unsigned short usProcID, unsigned short usProcHandle)
{
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, false);
    return findProc(usProcID, usProcHandle) != nullptr;
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

void CZolConnMgr::addSubscribe(unsigned long ulCmd, unsigned char ucModule, unsigned short usTask)
{
    ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oSubscribeLock);
    m_oSubscribeMap[static_cast<std::uint32_t>(ulCmd)].insert((std::uint32_t(ucModule) << 16) + usTask);
}

void CZolConnMgr::delSubscribe(unsigned long ulCmd, unsigned char ucModule, unsigned short usTask)
{
    ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oSubscribeLock);
    const auto itFound = m_oSubscribeMap.find(static_cast<std::uint32_t>(ulCmd));
    if (itFound != m_oSubscribeMap.end())
    {
        itFound->second.erase((std::uint32_t(ucModule) << 16) + usTask);
        if (itFound->second.empty())
        {
            m_oSubscribeMap.erase(itFound);
        }
    }
}

// No lock is held while a subscription goes out and its answer is waited for.
void CZolConnMgr::replaySubscribe(bool bStopAtFailure)
{
    SubscribeMap oSubscriptions;
    {
        ACE_GUARD(ACE_Thread_Mutex, oGuard, m_oSubscribeLock);
        oSubscriptions = m_oSubscribeMap;
    }
    for (const auto &[uiCmd, oTasks] : oSubscriptions)
    {
        for (const std::uint32_t uiTask : oTasks)
        {
            const int iResult = zolHost().subscribe(uiCmd, static_cast<unsigned char>(uiTask >> 16),
                                                    static_cast<unsigned short>(uiTask & 0xFFFF));
            if (bStopAtFailure && iResult != ZOL_OK && iResult != ZOL_ERR_TIMEOUT)
            {
                return;
            }
        }
    }
}

std::string CZolConnMgr::dumpConnections()
{
    std::string strText = "\nzOL Connection List: \n";
    ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, strText);
    for (const auto &oEntry : m_oHandleMap)
    {
        strText += oEntry.second->toString() + "\n";
    }
    return strText;
}

void CZolConnMgr::countPipes(unsigned int &uiUp, unsigned int &uiAll)
{
    ACE_READ_GUARD(ACE_RW_Mutex, oGuard, m_oConnLock);
    uiUp = 0;
    uiAll = static_cast<unsigned int>(m_oHandleMap.size());
    for (const auto &oEntry : m_oHandleMap)
    {
        uiUp += oEntry.second->getPipeStatus() ? 1U : 0U;
    }
}
