// The two tables of the connection manager: who enters, who leaves, and how a pipe goes down.

#include "ZolRunLog.h"
#include "transport/ZolAssert.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolText.h"

#include <ace/Guard_T.h>

CZolConnection *CZolConnMgr::findProc(unsigned short usProcID, unsigned short usProcHandle) const
{
    const auto itProc = m_oProcMap.find(usProcID);
    if (itProc == m_oProcMap.end())
    {
        return nullptr;
    }
    const auto itHandle = itProc->second.find(usProcHandle);
    return itHandle == itProc->second.end() ? nullptr : itHandle->second;
}

CZolConnection *CZolConnMgr::findConnection(ACE_HANDLE &oHandle)
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

void CZolConnMgr::enter(CZolConnection *poConn, ACE_HANDLE oKey)
{
    m_oHandleMap.emplace(oKey, poConn);
    poConn->m_oTableKey = oKey;
    m_oClosedHandles.erase(oKey);
    pipesChanged();
}

void CZolConnMgr::leave(CZolConnection *poConn)
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

void CZolConnMgr::addConnection(CZolConnection *poConn)
{
    enter(poConn, poConn->getHandle());
    if (poConn->getPipeType() != CZolConnection::CONN_INITIATIVE)
    {
        m_oProcMap[poConn->getOppProcID()][poConn->getOppProcHandle()] = poConn;
    }
}

CZolConnRef CZolConnMgr::delConnection(ACE_HANDLE &oHandle)
{
    CZolConnection *poConn = findConnection(oHandle);
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

// Enters a pipe that came up again under its new descriptor. False if another thread has done so, or it is down again.
bool CZolConnMgr::rekey(CZolConnection *poConn)
{
    if (poConn->m_oTableKey != ACE_INVALID_HANDLE || !poConn->getPipeStatus())
    {
        return false;
    }
    leave(poConn);
    enter(poConn, poConn->getHandle());
    if (poConn->getPipeType() != CZolConnection::CONN_VEK)
    {
        m_oProcMap[poConn->getOppProcID()][poConn->getOppProcHandle()] = poConn;
    }
    return true;
}

// Takes an open pipe out of its key and turns its status. The reference that comes back, if any, says that the caller
// is the one to close it.
CZolConnRef CZolConnMgr::unlinkDown(CZolConnection *poConn)
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
            delConnection(oKey);
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

void CZolConnMgr::closeConnection(ACE_HANDLE &oHandle)
{
    ZOL_ASSERT(ACE_INVALID_HANDLE != oHandle);
    CZolConnRef oClosing;
    {
        ACE_WRITE_GUARD(ACE_RW_Mutex, oGuard, m_oConnLock);
        CZolConnection *poConn = findConnection(oHandle);
        if (poConn != nullptr)
        {
            oClosing = unlinkDown(poConn);
        }
    }
    // Without the lock: closing waits for the senders of this pipe to leave.
    if (oClosing)
    {
        oClosing->disconnect();
    }
}

void CZolConnMgr::closePipe(CZolConnection *poConn, unsigned int uiLife)
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

int CZolConnMgr::recvMsg(ACE_HANDLE &oHandle)
{
    CZolConnRef oConn;
    {
        ACE_READ_GUARD_RETURN(ACE_RW_Mutex, oGuard, m_oConnLock, 0);
        oConn = CZolConnRef(findConnection(oHandle));
    }
    if (!oConn || !oConn->getPipeStatus())
    {
        return 0;
    }
    const unsigned int uiLife = oConn->getLife();
    if (oConn->receive() < 0)
    {
        closePipe(oConn.get(), uiLife);
    }
    return 0;
}
