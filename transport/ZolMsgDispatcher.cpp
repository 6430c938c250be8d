#include "transport/ZolMsgDispatcher.h"

#include "ZolErrors.h"
#include "ZolRunLog.h"
#include "config/ZolCounters.h"
#include "transport/ZolFieldTail.h"
#include "transport/ZolPipeProtocol.h"

#include <cstdio>

namespace
{

// The command of a direct request carries an address of this process. From a pipe it can only be an attempt to have
// the built-in task follow an address of the sender's choice. With a task id it is the answer to a call of a plain
// thread, whose application may use that number for a command of its own.
bool isForgedRequest(const CZolMsgPdu &oPdu)
{
    return oPdu.m_ucDestModule == zolpipe::BUILT_IN_MODULE && oPdu.m_usDestSubModuleId == 0 &&
           oPdu.m_ulCmdID == MSG_DIRECT_REQUEST_CMDID;
}

// Leaves the lines of any other command that the built-in manager makes no task for.
void dropForgedRequest(CZolMsgPdu *poPdu)
{
    zolCount(zolCounters().m_ulNoTask);
    if (CZolRunLog::isReady())
    {
        char acText[192];
        snprintf(acText, sizeof acText, "receive a unknown command code: %u", poPdu->m_ulCmdID);
        CZolDebugInfo("CZolInlineTaskMgr::createTask").debug(acText);
        snprintf(acText, sizeof acText,
                 "createTask() return NULL when process message, src: %u,%u,%u,%u, dst:%u,%u, cmd:%u",
                 poPdu->m_usSrcProcID, poPdu->m_usSrcProcHandle, poPdu->m_ucSrcModule, poPdu->m_usSrcSubModuleId,
                 poPdu->m_ucDestModule, poPdu->m_usDestSubModuleId, poPdu->m_ulCmdID);
        CZolDebugInfo("CZolTaskMgr::unknownTaskMsg").error(acText);
    }
    delete poPdu;
}

} // namespace

void CZolMsgDispatcher::take(CZolMsgPdu *poPdu)
{
    if (!joinsRun(poPdu))
    {
        deliverRun();
        dispatchMsg(poPdu);
    }
}

// Requests for the same task manager that stand behind each other in the buffer go to its queue in one step: one lock
// and one wake-up for what may be a thousand messages. Everything else ends the run, so the order stays.
bool CZolMsgDispatcher::joinsRun(CZolMsgPdu *poPdu)
{
    if (poPdu->m_ucMsgType != CZolMsgPdu::MSG_REQUEST || isForgedRequest(*poPdu))
    {
        return false;
    }
    if (m_oRun.m_ulCount == 0 || m_ucRunModule != poPdu->m_ucDestModule)
    {
        deliverRun();
        if (!m_oInbox.hasTaskMgr(poPdu->m_ucDestModule))
        {
            return false;
        }
        m_ucRunModule = poPdu->m_ucDestModule;
    }
    m_oPipe.noteMessage(*poPdu);
    m_oRun.insert(zolBlockOf(poPdu));
    return true;
}

void CZolMsgDispatcher::deliverRun()
{
    if (m_oRun.m_ulCount != 0 && m_oInbox.deliverRequests(m_oRun, m_ucRunModule) != ZOL_OK)
    {
        zolCount(zolCounters().m_ulNoManager, m_oRun.m_ulCount);
        m_oRun.deleteAll();
    }
}

void CZolMsgDispatcher::dispatchMsg(CZolMsgPdu *poPdu)
{
    if (poPdu == nullptr)
    {
        CZolDebugInfo("CZolConnection::dispatchMsg").error("invalid parameter, null pointer!");
        return;
    }
    m_oPipe.noteMessage(*poPdu);
    switch (poPdu->m_ucMsgType)
    {
    case CZolMsgPdu::MSG_REQUEST:
    case CZolMsgPdu::MSG_RESPONSE:
        deliverOrDrop(poPdu, "CZolConnection::dispatchMsg");
        return;
    case CZolMsgPdu::MSG_BIG_REQUEST:
    case CZolMsgPdu::MSG_BIG_RESPONSE:
        processBigMsgBlock(poPdu);
        return;
    case CZolMsgPdu::MSG_REGISTER:
    case CZolMsgPdu::MSG_TIMER:
        break;
    case CZolMsgPdu::MSG_HELLO:
        m_oPipe.noteHello();
        break;
    default:
        zolCount(zolCounters().m_ulInvalidType);
        logWithFields(&CZolDebugInfo::error, "CZolConnection::dispatchMsg", "invalid message type, ", *poPdu);
    }
    delete poPdu;
}

int CZolMsgDispatcher::deliverOrDrop(CZolMsgPdu *poPdu, const char *pcScope)
{
    const int iResult = deliverMsg(poPdu);
    if (iResult != ZOL_OK)
    {
        zolCount(zolCounters().m_ulNoManager);
        if (CZolRunLog::isReady())
        {
            char acError[32];
            snprintf(acError, sizeof acError, ", Error:%d", iResult);
            CZolDebugInfo(pcScope).error(("dispatch message failed, " + zolFieldTail(*poPdu) + acError).c_str());
        }
        delete poPdu;
    }
    return iResult;
}

int CZolMsgDispatcher::deliverMsg(CZolMsgPdu *poPdu)
{
    CZolDebugInfo oDebug("CZolConnection::deliverMsg");
    if (poPdu == nullptr)
    {
        oDebug.error("invalid parameter: null pointer!");
        return ZOL_ERR_FAILED;
    }
    if (isForgedRequest(*poPdu))
    {
        dropForgedRequest(poPdu);
        return ZOL_OK;
    }
    const int iResult = m_oInbox.deliver(zolBlockOf(poPdu), poPdu->m_ucDestModule, false);
    if (iResult != ZOL_ERR_NO_DEST)
    {
        return iResult;
    }
    if (poPdu->m_ucDestModule == zolpipe::INITIAL_MODULE && poPdu->m_usDestSubModuleId == zolpipe::INITIAL_TASK &&
        m_oHost.takeInitialResponse(poPdu))
    {
        return ZOL_OK;
    }
    oDebug.error("dest not found!");
    return ZOL_ERR_NO_DEST;
}

int CZolMsgDispatcher::processBigMsgBlock(CZolMsgPdu *poPdu)
{
    CZolMsgPdu *poWhole = nullptr;
    const int iResult = m_oJoiner.add(poPdu, poWhole);
    return poWhole != nullptr ? deliverOrDrop(poWhole, "CZolConnection::processBigMsgBlock") : iResult;
}
