#include "task/ZolInlineTask.h"

#include "ZolAppMgr.h"
#include "ZolMsgPdu.h"
#include "ZolRunLog.h"
#include "ZolTimer.h"
#include "message/ZolAnswer.h"
#include "transport/ZolAcceptorHandler.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolSendMsgTask.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

// Results in the payload of a response; no codes of ZolErrors.h.
constexpr int RESULT_OK = 0;
constexpr int RESULT_BAD_ARGUMENT = -2;
constexpr int RESULT_NO_FILE = -11;

std::string unknownCommand(ACE_UINT32 ulCmdID)
{
    return "receive a unknown command code: " + std::to_string(ulCmdID);
}

/// A file or a terminal to append to, or -1. Its name comes from a peer, so nothing here may wait for another process,
/// as opening a pipe without a reader would.
int openDump(const std::string &strFile)
{
    if (strFile.find('\0') != std::string::npos)
    {
        return -1;
    }
    const int iFile = open(strFile.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    struct stat oStat
    {
    };
    if (iFile != -1 && fstat(iFile, &oStat) == 0 && (S_ISREG(oStat.st_mode) || S_ISCHR(oStat.st_mode)))
    {
        return iFile;
    }
    if (iFile != -1)
    {
        close(iFile);
    }
    return -1;
}

/// What cannot be written is lost: the command has succeeded when the file is open.
void writeAll(int iFile, const std::string &strText)
{
    size_t uiDone = 0;
    while (uiDone < strText.size())
    {
        const ssize_t iWritten = write(iFile, strText.data() + uiDone, strText.size() - uiDone);
        if (iWritten == 0 || (iWritten < 0 && errno != EINTR)) // 0 sets no errno
        {
            return;
        }
        uiDone += iWritten > 0 ? static_cast<size_t>(iWritten) : 0;
    }
}

} // namespace

CZolTask *CZolInlineTaskMgr::createTask(CZolMsgPdu *poMsg)
{
    if (poMsg == nullptr)
    {
        return nullptr;
    }
    switch (poMsg->m_ulCmdID)
    {
    case MSG_GET_LOG_LEVEL_CMDID:
    case MSG_SET_LOG_LEVEL_CMDID:
    case MSG_PRINT_VARIABLE_CMDID:
    case MSG_DIRECT_REQUEST_CMDID:
        return new CZolInlineTask(m_bCmdResend.load(std::memory_order_relaxed));
    default:
        CZolDebugInfo("CZolInlineTaskMgr::createTask").debug(unknownCommand(poMsg->m_ulCmdID).c_str());
        return nullptr;
    }
}

void CZolInlineTask::reqMsgProcess(const CZolMsgPdu *poReqMsg)
{
    CZolDebugInfo oDebug("CZolInlineTask::reqMsgProcess");
    if (poReqMsg == nullptr)
    {
        oDebug.info("poReqMsg is null.");
        return;
    }
    switch (poReqMsg->m_ulCmdID)
    {
    case MSG_GET_LOG_LEVEL_CMDID:
        getLogLevel(*poReqMsg);
        break;
    case MSG_SET_LOG_LEVEL_CMDID:
        setLogLevel(*poReqMsg);
        break;
    case MSG_PRINT_VARIABLE_CMDID:
        printVariable(*poReqMsg);
        break;
    case MSG_DIRECT_REQUEST_CMDID:
        serveDirectRequest(*poReqMsg);
        break;
    default:
        oDebug.debug(unknownCommand(poReqMsg->m_ulCmdID).c_str());
        break;
    }
    setTaskStatus(TASK_EXIT);
}

void CZolInlineTask::getLogLevel(const CZolMsgPdu &oPdu)
{
    sendResults(oPdu, {RESULT_OK, CZolRunLog::logLevel()}, "CZolInlineTask::getLogLevel");
}

void CZolInlineTask::setLogLevel(const CZolMsgPdu &oPdu)
{
    CZolDebugInfo oDebug("CZolInlineTask::setLogLevel");
    ACE_UINT32 ulLevel = 0;
    if (oPdu.m_ulDataLength != sizeof ulLevel)
    {
        sendResults(oPdu, {RESULT_BAD_ARGUMENT}, "CZolInlineTask::setLogLevel");
        oDebug.debug("the log level is null");
        return;
    }
    memcpy(&ulLevel, zolPayload(&oPdu), sizeof ulLevel);
    ulLevel = ntohl(ulLevel);
    if (ulLevel > CZolRunLog::LEVEL_DEBUG)
    {
        sendResults(oPdu, {RESULT_BAD_ARGUMENT}, "CZolInlineTask::setLogLevel");
        oDebug.debug("the log level is invalid");
        return;
    }
    CZolRunLog::logLevel(static_cast<int>(ulLevel));
    sendResults(oPdu, {RESULT_OK}, "CZolInlineTask::setLogLevel");
}

void CZolInlineTask::printVariable(const CZolMsgPdu &oPdu)
{
    CZolDebugInfo oDebug("CZolInlineTask::printVariable");
    const std::string strFile(zolPayload(&oPdu), oPdu.m_ulDataLength);
    int iResult = RESULT_BAD_ARGUMENT;
    if (strFile.empty())
    {
        oDebug.debug("The destination file name is null");
    }
    else
    {
        iResult = dumpTo(strFile);
    }
    if (iResult == RESULT_OK && m_bCmdResend)
    {
        resendToApplication(oPdu);
        return;
    }
    if (sendResults(oPdu, {iResult}, "CZolInlineTask::printVariable") != ZOL_ERR_FAILED && iResult == RESULT_OK)
    {
        oDebug.info("ZOL variables has exported successfully.");
    }
}

int CZolInlineTask::dumpTo(const std::string &strFile)
{
    const int iFile = openDump(strFile);
    if (iFile == -1)
    {
        return RESULT_NO_FILE;
    }
    std::string strTimers;
    writeAll(iFile, CZolAppMgr::instance()->dumpAllTaskMgr() + "\n");
    CZolTimer::instance()->printf(strTimers);
    writeAll(iFile, strTimers);
    writeAll(iFile, CZolSendMsgTask::instance()->dumpMsgList());
    writeAll(iFile, CZolConnMgr::instance()->dumpConnections());
    writeAll(iFile, "\n=== Zolvane Memory Dump Finished ===\n\n");
    close(iFile);
    return RESULT_OK;
}

/// The application's task manager 0 owes the answer from here on.
void CZolInlineTask::resendToApplication(const CZolMsgPdu &oPdu)
{
    const unsigned int uiTotal = static_cast<unsigned int>(zolTotalLength(&oPdu));
    CZolMsgPdu *poCopy = new (uiTotal) CZolMsgPdu;
    if (poCopy == nullptr)
    {
        return;
    }
    memcpy(static_cast<void *>(poCopy), &oPdu, uiTotal);
    CZolAppMgr::instance()->sendLocalAsynMsg(poCopy, 0);
    CZolDebugInfo("CZolInlineTask::printVariable").info("The debug message has been resend to taskmgr 0.");
}

/// Answers with the results as words of 32 bits, big-endian: the result of the send, or ZOL_ERR_FAILED without memory.
int CZolInlineTask::sendResults(const CZolMsgPdu &oRequest, std::initializer_list<int> oResults, const char *pcScope)
{
    const unsigned int uiBytes = static_cast<unsigned int>(oResults.size() * sizeof(ACE_UINT32));
    CZolMsgPdu *poResponse = new (static_cast<unsigned int>(sizeof(CZolMsgPdu)) + uiBytes) CZolMsgPdu;
    if (poResponse == nullptr)
    {
        return ZOL_ERR_FAILED;
    }
    poResponse->init();
    zolAddressAnswer(*poResponse, oRequest);
    poResponse->m_ucMsgType = CZolMsgPdu::MSG_RESPONSE;
    poResponse->m_ulDataLength = uiBytes;
    char *pcAt = zolPayload(poResponse);
    for (const int iResult : oResults)
    {
        const ACE_UINT32 ulWord = htonl(static_cast<ACE_UINT32>(iResult));
        memcpy(pcAt, &ulWord, sizeof ulWord);
        pcAt += sizeof ulWord;
    }
    const int iSent = sendAsynMsg(poResponse);
    if (iSent == ZOL_ERR_FAILED)
    {
        CZolDebugInfo(pcScope).error("Fail to send response msg!");
    }
    return iSent;
}

/// The payload is the address of the request. A peer can send this command too, with any address in it: only one that
/// is still under way is followed.
void CZolInlineTask::serveDirectRequest(const CZolMsgPdu &oPdu)
{
    std::uintptr_t ulAddress = 0;
    if (oPdu.m_ulDataLength == sizeof ulAddress)
    {
        memcpy(&ulAddress, zolPayload(&oPdu), sizeof ulAddress);
    }
    auto *poRequest = reinterpret_cast<SZolP2PRequest *>(ulAddress);
    if (poRequest == nullptr || !CZolP2PDesk::instance().take(poRequest))
    {
        CZolDebugInfo("CZolInlineTask::reqMsgProcess").debug(unknownCommand(oPdu.m_ulCmdID).c_str());
        return;
    }
    const std::unique_ptr<SZolP2PRequest> oRequest(poRequest); // closes the connection and frees the request
    CZolMsgPdu *poResponse = nullptr;
    CZolConnMgr::instance()->recvP2PMsg(oRequest->m_poPdu, poResponse);
    if (poResponse != nullptr)
    {
        CZolAcceptorHandler::instance()->sendP2PResponse(oRequest->m_poConn->getStream(), poResponse);
        delete poResponse;
    }
}
