#include "transport/ZolPipeTable.h"

#include "ZolRunLog.h"
#include "transport/ZolAssert.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolText.h"

#include <ace/Guard_T.h>

CZolPipeTable::~CZolPipeTable()
{
    for (const auto &oEntry : m_oHandleMap)
    {
        oEntry.second->release();
    }
}

CZolConnRef CZolPipeTable::find(ACE_HANDLE oHandle)
{
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, CZolConnRef());
    return CZolConnRef(findHandle(oHandle));
}

CZolConnRef CZolPipeTable::find(unsigned short usProcID, unsigned short usProcHandle)
{
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, CZolConnRef());
    return CZolConnRef(findProc(usProcID, usProcHandle));
}

CZolConnRef CZolPipeTable::choose(const CZolMsgPdu &oPdu)
{
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, CZolConnRef());
    if (!zolpipe::goesToGateway(oPdu))
    {
        CZolConnection *poDirect = findProc(oPdu.m_usDestProcID, oPdu.m_usDestProcHandle);
        if (poDirect != nullptr && poDirect->getPipeStatus())
        {
            return CZolConnRef(poDirect);
        }
    }
    return CZolConnRef(findProc(0, 0));
}

bool CZolPipeTable::isConnected(unsigned short usProcID, unsigned short usProcHandle)
{
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, false);
    const CZolConnection *poDirect = findProc(usProcID, usProcHandle);
    const CZolConnection *poVek = findProc(0, 0);
    return (poDirect != nullptr && poDirect->getPipeStatus()) || (poVek != nullptr && poVek->getPipeStatus());
}

std::vector<CZolConnRef> CZolPipeTable::getAll()
{
    std::vector<CZolConnRef> oAll;
    ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, oAll);
    for (const auto &oEntry : m_oHandleMap)
    {
        oAll.emplace_back(oEntry.second);
    }
    return oAll;
}

std::string CZolPipeTable::dump()
{
    std::string strText = "\nzOL Connection List: \n";
    ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, strText);
    for (const auto &oEntry : m_oHandleMap)
    {
        strText += oEntry.second->toString() + "\n";
    }
    return strText;
}

void CZolPipeTable::count(unsigned int &uiUp, unsigned int &uiAll)
{
    ACE_READ_GUARD(ACE_RW_Mutex, oGuard, m_oConnLock);
    uiUp = 0;
    uiAll = static_cast<unsigned int>(m_oHandleMap.size());
    for (const auto &oEntry : m_oHandleMap)
    {
        uiUp += oEntry.second->getPipeStatus() ? 1U : 0U;
    }
}

CZolConnection *CZolPipeTable::findProc(unsigned short usProcID, unsigned short usProcHandle) const
{
    const auto itProc = m_oProcMap.find(usProcID);
    if (itProc == m_oProcMap.end())
    {
        return nullptr;
    }
    const auto itHandle = itProc->second.find(usProcHandle);
    return itHandle == itProc->second.end() ? nullptr : itHandle->second;
}

CZolConnection *CZolPipeTable::findHandle(ACE_HANDLE oHandle) const
{
    ZOL_ASSERT(ACE_INVALID_HANDLE != oHandle);
    const auto itFound = m_oHandleMap.find(oHandle);
    if (itFound == m_oHandleMap.end())
    {
        if (m_oClosedHandles.count(oHandle) == 0)
        {
            CZolDebugInfo("CZolConnection::findConnection")
                .error(zoltext("can not find connection by handle. Handle: ", oHandle).c_str());
        }
        return nullptr;
    }
    return itFound->second;
}

void CZolPipeTable::enter(CZolConnection *poConn, ACE_HANDLE oKey)
{
    m_oHandleMap.emplace(oKey, poConn);
    poConn->m_oTableKey = oKey;
    m_oClosedHandles.erase(oKey);
    pipesChanged();
}

void CZolPipeTable::leave(CZolConnection *poConn)
{
    const auto oRange = m_oHandleMap.equal_range(poConn->m_oTableKey);
    for (auto itEntry = oRange.first; itEntry != oRange.second; ++itEntry)
    {
        if (itEntry->second == poConn)
        {
            m_oHandleMap.erase(itEntry);
            break;
        }
    }
    pipesChanged();
}

void CZolPipeTable::enterProc(CZolConnection *poConn)
{
    m_oProcMap[poConn->getOppProcID()][poConn->getOppProcHandle()] = poConn;
}

void CZolPipeTable::add(const CZolConnRef &oConn, bool bByProcess)
{
    ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oConnLock);
    oConn->addRef();
    if (bByProcess)
    {
        enterProc(oConn.get());
    }
    enter(oConn.get(), oConn->getHandle());
}

int CZolPipeTable::addAnswered(const CZolConnRef &oConn, unsigned short usProcID, unsigned short usProcHandle,
                               const std::function<int()> &fnAnswer)
{
    ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, -1);
    pipesChanged(); // ends what threads know, before anybody can have seen the answer
    const int iResult = fnAnswer();
    if (iResult == 0)
    {
        oConn->setOppProc(usProcID, usProcHandle);
        oConn->addRef();
        enterProc(oConn.get());
        enter(oConn.get(), oConn->getHandle());
    }
    return iResult;
}

CZolConnRef CZolPipeTable::remove(ACE_HANDLE oHandle)
{
    ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, CZolConnRef());
    return unlink(oHandle);
}

CZolConnRef CZolPipeTable::unlink(ACE_HANDLE oHandle)
{
    CZolConnection *poConn = findHandle(oHandle);
    if (poConn == nullptr)
    {
        return CZolConnRef();
    }
    CZolDebugInfo oDebug("CZolConnMgr::delConnection");
    const unsigned short usProcID = poConn->getOppProcID();
    const unsigned short usProcHandle = poConn->getOppProcHandle();
    const auto itProc = m_oProcMap.find(usProcID);
    if (itProc == m_oProcMap.end())
    {
        oDebug.error(
            zoltext("can not find connection by ProcID. ProcID: ", usProcID, " ProcHandle: ", usProcHandle).c_str());
    }
    else if (itProc->second.count(usProcHandle) == 0)
    {
        oDebug.error(zoltext("can not find connection by ProcHandle. ProcID: ", usProcID, " ProcHandle: ", usProcHandle)
                         .c_str());
    }
    else if (itProc->second[usProcHandle] == poConn) // else a pipe that this process opened has taken the key
    {
        itProc->second.erase(usProcHandle);
        if (itProc->second.empty())
        {
            m_oProcMap.erase(itProc);
        }
    }
    leave(poConn);
    return CZolConnRef::adopt(poConn);
}

bool CZolPipeTable::rekey(CZolConnection *poConn)
{
    ACE_WRITE_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, false);
    if (poConn->m_oTableKey != ACE_INVALID_HANDLE || !poConn->getPipeStatus())
    {
        return false;
    }
    leave(poConn);
    enter(poConn, poConn->getHandle());
    if (poConn->getPipeType() != CZolConnection::CONN_VEK)
    {
        enterProc(poConn);
    }
    return true;
}

// Takes an open pipe out of its key and turns its status. The reference that comes back, if any, says that the caller
// is the one to close it.
CZolConnRef CZolPipeTable::unlinkDown(CZolConnection *poConn)
{
    if (!poConn->takeDown())
    {
        return CZolConnRef();
    }
    CZolConnRef oConn(poConn);
    if (poConn->m_oTableKey != ACE_INVALID_HANDLE)
    {
        ACE_HANDLE oKey = poConn->m_oTableKey;
        m_oClosedHandles.insert(oKey);
        if (poConn->getPipeType() == CZolConnection::CONN_PASSIVE)
        {
            unlink(oKey);
        }
        else
        {
            leave(poConn);
            enter(poConn, ACE_INVALID_HANDLE);
        }
    }
    pipesChanged();
    return oConn;
}

void CZolPipeTable::close(ACE_HANDLE oHandle)
{
    ZOL_ASSERT(ACE_INVALID_HANDLE != oHandle);
    CZolConnRef oClosing;
    {
        ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oConnLock);
        CZolConnection *poConn = findHandle(oHandle);
        if (poConn != nullptr)
        {
            oClosing = unlinkDown(poConn);
        }
    }
    if (oClosing)
    {
        oClosing->disconnect();
    }
}

void CZolPipeTable::close(CZolConnection *poConn, unsigned int uiLife)
{
    CZolConnRef oClosing;
    {
        ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oConnLock);
        if (poConn->getLife() == uiLife)
        {
            oClosing = unlinkDown(poConn);
        }
    }
    if (oClosing)
    {
        oClosing->disconnect();
    }
}

void CZolPipeTable::removeGateway()
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
