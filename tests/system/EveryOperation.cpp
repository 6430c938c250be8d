// Names every public operation, so that one which the shared library does not show is a link error. Built like any
// application: the public headers and -lzol, no header of the ASN.1 runtime.

#include "zol.h"

#include <cstdio>

namespace
{

int g_iKept = 0;

/// Makes the compiler keep the reference to each operation.
template <typename... Pointers>
void keep(Pointers... fnOperations)
{
    const auto fnKeep = [](auto volatile fnKept) { g_iKept += fnKept != nullptr ? 1 : 0; };
    (fnKeep(fnOperations), ...);
}

using Asn = SNACC::AsnType;
using Cmd = std::uint32_t;
using Len = std::uint32_t;
using Proc = std::uint16_t;
using Mgr = std::uint8_t;
using Task = std::uint16_t;
using Text = const std::string &;
using Pdu = CZolMsgPdu;

void keepSettingsAndHelpers()
{
    keep(&zol::init, &zol::addResFile, &zol::initResMgr, &zol::getResMgr);
    keep<const std::string *(*)(Text)>(&zol::getResByKey);
    keep<std::string (*)(Text, Text)>(&zol::getResByKey);
    keep<int (*)(Text, int &)>(&zol::getResByKey);
    keep<int (*)(Text, int &, int, int)>(&zol::getResByKey);
    keep(&zol::saveResWithKey, &zol::getCurrFormatTime);
    keep<bool (*)(const char *, int)>(&zol::isDigit);
    keep<bool (*)(Text)>(&zol::isDigit);
    keep(&zol::trimString, &zol::getTrimEnv, &zol::strError);
}

void keepEncodingAndSending()
{
    keep<Pdu *(*)(Cmd, const Asn *, Proc, Mgr, Task)>(&zol::encodeReq);
    keep<Pdu *(*)(Cmd, const char *, Len, Proc, Mgr, Task)>(&zol::encodeReq);
    keep<Pdu *(*)(const Pdu &, const Asn *)>(&zol::encodeResp);
    keep<Pdu *(*)(const Pdu &, const char *, Len)>(&zol::encodeResp);
    keep(&zol::decodeAsn, &zol::messageCopy);
    keep<int (*)(Cmd, const Asn *, Proc, Mgr, Task)>(&zol::sendReqMsg);
    keep<int (*)(Cmd, const char *, Len, Proc, Mgr, Task)>(&zol::sendReqMsg);
    keep<int (*)(Cmd, const Asn *, int, Pdu *&, Proc, Mgr, Task)>(&zol::sendSyncReq);
    keep<int (*)(Cmd, const Asn *, int, Asn &, Proc, Mgr, Task)>(&zol::sendSyncReq);
    keep<int (*)(Cmd, const char *, Len, int, Pdu *&, Proc, Mgr, Task)>(&zol::sendSyncReq);
    keep<int (*)(Cmd, const char *, Len, int, Asn &, Proc, Mgr, Task)>(&zol::sendSyncReq);
    keep<int (*)(Cmd, const Asn *)>(&zol::sendBroadCast);
    keep<int (*)(Cmd, const char *, Len)>(&zol::sendBroadCast);
    keep<int (*)(const Pdu &, const Asn *)>(&zol::sendRespMsg);
    keep<int (*)(const Pdu &, const char *, Len)>(&zol::sendRespMsg);
    keep(&zol::resendMessage);
    keep<int (*)(std::uint32_t, std::uint16_t, Pdu *&, Pdu **, int)>(&zol::sendP2PMsg);
    keep<int (*)(std::uint32_t, std::uint16_t, Pdu *&, Pdu **, int, int)>(&zol::sendP2PMsg);
    keep<int (*)(Text, std::uint16_t, Pdu *&, Pdu **, int)>(&zol::sendP2PMsg);
}

void keepControl()
{
    keep(&zol::bindPort, &zol::connect, &zol::setListener, &zol::setVEKAddrStatus, &zol::setVEKAddress,
         &zol::connect2VEK, &zol::shutVEKConnect, &zol::setProcIDAndHandle, &zol::debugCmdResend, &zol::getStatistics,
         &zol::setHandlerLimit);
}

void keepMessages()
{
    keep<void *(*)(std::size_t, unsigned int)>(&CZolMsgPdu::operator new);
    keep<void (*)(void *, std::size_t)>(&CZolMsgPdu::operator delete);
    keep(&CZolMsgPdu::init);
    keep<void (Pdu::*)(std::string &) const>(&CZolMsgPdu::printf);
    keep(&htonPdu, &ntohPdu, &CZolMemBlock::allocMem, &CZolMemBlock::freeMem, &CZolMemBlock::getData,
         &CZolMemList::insert, &CZolMemList::popHead, &CZolMemList::deleteHead, &CZolMemList::deleteAll,
         &CZolMemMan::instance, &CZolMemMan::allocMem, &CZolMemMan::freeMem);
    const CZolMemBlock oBlock;
    const CZolMemMan oMemMan(1, 1, 0);
}

void keepAppMgr()
{
    keep(&CZolAppMgr::instance, &CZolAppMgr::destroy, &CZolAppMgr::initAppMgr, &CZolAppMgr::addTaskMgr,
         &CZolAppMgr::findTaskMgr, &CZolAppMgr::handleEvents, &CZolAppMgr::exitThreads, &CZolAppMgr::getStatus,
         &CZolAppMgr::getReactor, &CZolAppMgr::getProcID, &CZolAppMgr::getProcHandle, &CZolAppMgr::statusOfConnToVek,
         &CZolAppMgr::getCurrentTask, &CZolAppMgr::sendLocalAsynMsg, &CZolAppMgr::sendAsynMsg, &CZolAppMgr::sendSynMsg,
         &CZolAppMgr::registerSubscribe, &CZolAppMgr::cancelSubscribe, &CZolAppMgr::subscribe,
         &CZolAppMgr::getProcAddrByID, &CZolAppMgr::dumpAllTaskMgr, &CZolAppMgr::enqueueMsg);
    g_iKept += g_ulQueueSize.load() > 0 && g_mapDispatchMutex.empty() ? 1 : 0;
}

struct CMgr : CZolTaskMgr
{
    using CZolTaskMgr::CZolTaskMgr;
    CZolTask *createTask(CZolMsgPdu *poMsg) override { return CZolTaskMgr::createTask(poMsg); }
    bool initTaskMgr() override { return CZolTaskMgr::initTaskMgr(); }
    int open(void *pvArg) override { return CZolTaskMgr::open(pvArg); }
    int svc() override { return CZolTaskMgr::svc(); }
};

struct CTask : CZolTask
{
    using CZolTask::CZolTask;
    void reqMsgProcess(const CZolMsgPdu *poMsg) override { CZolTask::reqMsgProcess(poMsg); }
    void respMsgProcess(const CZolMsgPdu *poMsg) override { CZolTask::respMsgProcess(poMsg); }
    void timerCallBack(unsigned long ulTimerID) override { CZolTask::timerCallBack(ulTimerID); }
    ACE_Reactor *getReactor() override { return CZolTask::getReactor(); }
    void eventLoop() override { CZolTask::eventLoop(); }
};

struct CListener : CZolListener
{
    int handleP2PMsg(CZolMsgPdu *, CZolMsgPdu *&) override { return 0; }
};

void keepTasks()
{
    keep(&CZolTaskMgr::enqueueMsg, &CZolTaskMgr::addStaticTask, &CZolTaskMgr::addAssistTask,
         &CZolTaskMgr::delAssistTask, &CZolTaskMgr::findTask, &CZolTaskMgr::findTaskOfThread,
         &CZolTaskMgr::getTaskMgrID, &CZolTaskMgr::getLengthOfMsgQueue, &CZolTaskMgr::getLengthOfBufferMsg,
         &CZolTaskMgr::dumpAllTask, &CZolTask::sendSynMsg, &CZolTask::sendAsynMsg, &CZolTask::setTimer,
         &CZolTask::cancelTimer, &CZolTask::registerSubscribe, &CZolTask::cancelSubscribe, &CZolTask::recvNonZolMsg,
         &CZolTask::popFrontZolMsg, &CZolTask::setTaskStatus, &CZolTask::exitTask, &CZolTask::getTaskID,
         &CZolTask::getTaskStatus, &CZolTask::getTaskType, &CZolTask::getTaskMgr);
    CMgr oMgr(3, 1);
    CTask oTask(&oMgr);
    CTask oLone;
    const CListener oListener;
}

void keepTimers()
{
    using Set = unsigned long;
    keep(&CZolTimer::instance, &CZolTimer::init, &CZolTimer::setCycleInterval);
    keep<Set (CZolTimer::*)(long, unsigned char, unsigned int, unsigned short)>(&CZolTimer::setDatePeriod);
    keep<Set (CZolTimer::*)(Text, unsigned char, unsigned int, unsigned short)>(&CZolTimer::setDatePeriod);
    keep<Set (CZolTimer::*)(long, long, unsigned int, unsigned char, unsigned int, unsigned short)>(
        &CZolTimer::setDayPeriod);
    keep<Set (CZolTimer::*)(Text, Text, Text, unsigned char, unsigned int, unsigned short)>(&CZolTimer::setDayPeriod);
    keep<Set (CZolTimer::*)(long, long, unsigned char, unsigned int, unsigned char, unsigned int, unsigned short)>(
        &CZolTimer::setWeekPeriod);
    keep<Set (CZolTimer::*)(Text, Text, unsigned char, Text, unsigned char, unsigned int, unsigned short)>(
        &CZolTimer::setWeekPeriod);
    keep<Set (CZolTimer::*)(long, long, unsigned char, unsigned int, unsigned char, unsigned int, unsigned short)>(
        &CZolTimer::setMonthPeriod);
    keep<Set (CZolTimer::*)(Text, Text, unsigned char, Text, unsigned char, unsigned int, unsigned short)>(
        &CZolTimer::setMonthPeriod);
    keep<int (CZolTimer::*)(unsigned long)>(&CZolTimer::cancelTimer);
    keep<int (CZolTimer::*)(unsigned char, unsigned short)>(&CZolTimer::cancelTimer);
    keep(&CZolTimer::registerPreciseClock, &CZolTimer::cancelPreciseClock, &CZolTimer::printf, &SZolTimerItem::isValid,
         &SZolTimerItem::sendMessage, &SZolTimerItem::printf, &CZolDateUtil::getTimeInSeconds,
         &CZolDateUtil::getLastMonthDay, &CZolDateUtil::fillTime, &CZolDateUtil::strToTime, &CZolDateUtil::timeToStr);
    const CZolPreciseClock oClock;
}

void keepLog()
{
    keep(&CZolRunLog::debug, &CZolRunLog::info, &CZolRunLog::warning, &CZolRunLog::error, &CZolRunLog::fatal,
         &CZolRunLog::startupLog, &CZolRunLog::isReady);
    keep<int (*)()>(&CZolRunLog::logLevel);
    keep<void (*)(int)>(&CZolRunLog::logLevel);
    keep(&CZolDebugInfo::debug, &CZolDebugInfo::info, &CZolDebugInfo::warning, &CZolDebugInfo::error,
         &CZolDebugInfo::fatal, &CZolLogTask::instance);
    keep<int (CZolLogTask::*)(unsigned short, unsigned short, const char *, const char *)>(&CZolLogTask::init);
    keep(&CZolLogTask::getLogPath, &CZolLogTask::output, &CZolLogTask::writeLog, &CZolLogTask::startupLog);
    CZolLogTask::MAX_FILE_SIZE = 1 << 20;
    CZolLogTask::MAX_FILE_NUMBER_LIMIT = 5;
    CZolLogTask::DEFAULT_FILE_NUMBER = 3;
    const CZolLogTask oLogTask(1024, 2, true);
}

} // namespace

int main()
{
    keepSettingsAndHelpers();
    keepEncodingAndSending();
    keepControl();
    keepMessages();
    keepAppMgr();
    keepTasks();
    keepTimers();
    keepLog();
    std::printf("%d operations\n", g_iKept);
    return 0;
}
