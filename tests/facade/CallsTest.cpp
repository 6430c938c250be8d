// The send helpers in all their forms, and synchronous calls from many threads at once, from inside handlers, with
// answers that come late or never, and while the process ends.

#include "support/Application.h"
#include "support/Installation.h"
#include "support/RawPipe.h"
#include "zol.h"

#include <algorithm>
#include <arpa/inet.h>
#include <asn-incl.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace zoltest;

namespace
{

const unsigned short PROCESS = 1;
const unsigned short PEER = 9;
const unsigned int THREADS = 64;

const unsigned char SERVERS = 1;      // 4 threads; tasks 1 to 8
const unsigned char CHAIN_FIRST = 10; // managers 10 to 13, 2 threads each, task 1: each calls the next
const unsigned char CHAIN_LAST = 13;

enum EnumCommand
{
    CMD_ECHO = 1,
    CMD_CHAIN_ZOL = 2,  // adds its manager's id to the answer of the next, called through namespace zol
    CMD_CHAIN_TASK = 3, // the same, called as the task itself
    CMD_LATE = 4,       // answered when the test says so
    CMD_NEVER = 5,
    CMD_ADD = 6,     // an ASN.1 integer comes back plus one
    CMD_FORWARD = 7, // sent on to task 2 as it is, which echoes it
    CMD_NOTE = 8     // no answer, noted with its source
};

using Clock = std::chrono::steady_clock;

std::mutex g_oLock;
std::vector<std::unique_ptr<CZolMsgPdu>> g_oLate; // guarded by g_oLock: requests to be answered late

std::string g_strNote; // guarded by g_oLock: the last message of CMD_NOTE and its source

std::string lastNote()
{
    const std::lock_guard<std::mutex> oGuard(g_oLock);
    return g_strNote;
}

std::size_t lateCount()
{
    const std::lock_guard<std::mutex> oGuard(g_oLock);
    return g_oLate.size();
}

/// Answers all that wait, and forgets them.
void answerLate()
{
    const std::lock_guard<std::mutex> oGuard(g_oLock);
    for (const auto &oRequest : g_oLate)
    {
        EXPECT_EQ(ZOL_OK, zol::sendRespMsg(*oRequest, "stale", 5));
    }
    g_oLate.clear();
}

void echo(const CZolMsgPdu &oMsg, const std::string &strBody)
{
    // refused when the process has been told to end in the meantime
    EXPECT_TRUE(zol::sendRespMsg(oMsg, strBody.data(), static_cast<std::uint32_t>(strBody.size())) == ZOL_OK ||
                CZolAppMgr::instance()->getStatus() != APPMGR_RUNNING);
}

std::string takeBody(CZolMsgPdu *poMsg)
{
    const std::unique_ptr<CZolMsgPdu> oMsg(poMsg);
    return bodyOf(*oMsg);
}

int call(EnumCommand eCommand, const std::string &strBody, int iSeconds, std::string &strAnswer, unsigned char ucMgr,
         unsigned short usTask, unsigned short usProcess = PROCESS)
{
    CZolMsgPdu *poResponse = nullptr;
    const int iResult = zol::sendSyncReq(eCommand, strBody.data(), static_cast<std::uint32_t>(strBody.size()), iSeconds,
                                         poResponse, usProcess, ucMgr, usTask);
    strAnswer = iResult == ZOL_OK ? takeBody(poResponse) : "";
    return iResult;
}

class CServer : public CZolTask
{
public:
    void reqMsgProcess(const CZolMsgPdu *poMsg) override // as a task that was created for it
    {
        serve(*poMsg);
        exitTask();
    }
    void timerCallBack(unsigned long ulTimerID) override
    {
        cancelTimer(ulTimerID);
        EXPECT_EQ(ZOL_OK, zol::sendReqMsg(CMD_NOTE, "hi", 2, PROCESS, SERVERS, 1));
    }
    void respMsgProcess(const CZolMsgPdu *poMsg) override { serve(*poMsg); }

private:
    void serve(const CZolMsgPdu &oMsg);
    void callNext(const CZolMsgPdu &oMsg);
};

void CServer::serve(const CZolMsgPdu &oMsg)
{
    switch (oMsg.m_ulCmdID)
    {
    case CMD_ECHO:
        echo(oMsg, bodyOf(oMsg));
        break;
    case CMD_CHAIN_ZOL:
    case CMD_CHAIN_TASK:
        callNext(oMsg);
        break;
    case CMD_LATE:
    {
        const std::lock_guard<std::mutex> oGuard(g_oLock);
        g_oLate.emplace_back(zol::messageCopy(oMsg));
        break;
    }
    case CMD_ADD:
    {
        SNACC::AsnInt oNumber;
        EXPECT_EQ(ZOL_OK, zol::decodeAsn(oMsg, oNumber));
        oNumber.Set(static_cast<int>(oNumber) + 1);
        EXPECT_EQ(ZOL_OK, zol::sendRespMsg(oMsg, &oNumber));
        break;
    }
    case CMD_FORWARD:
        if (getTaskID() == 2)
        {
            echo(oMsg, bodyOf(oMsg));
            break;
        }
        EXPECT_EQ(ZOL_OK, zol::resendMessage(oMsg, PROCESS, SERVERS, 2));
        break;
    case CMD_NOTE:
    {
        const std::lock_guard<std::mutex> oGuard(g_oLock);
        g_strNote = bodyOf(oMsg) + " from " + std::to_string(oMsg.m_ucSrcModule) + "/" +
                    std::to_string(oMsg.m_usSrcSubModuleId);
        break;
    }
    default:
        break;
    }
}

// A call from inside the handler, whose answer becomes part of this one's.
void CServer::callNext(const CZolMsgPdu &oMsg)
{
    const unsigned char ucMgr = getTaskMgr()->getTaskMgrID();
    std::string strAnswer = bodyOf(oMsg);
    if (ucMgr != CHAIN_LAST)
    {
        CZolMsgPdu *poRequest = zol::encodeReq(oMsg.m_ulCmdID, strAnswer.data(),
                                               static_cast<std::uint32_t>(strAnswer.size()), PROCESS, ucMgr + 1, 1);
        CZolMsgPdu *poResponse = nullptr;
        const int iResult = oMsg.m_ulCmdID == CMD_CHAIN_TASK
                                ? sendSynMsg(poRequest, poResponse, 60)
                                : CZolAppMgr::instance()->sendSynMsg(poRequest, poResponse, 60);
        ASSERT_EQ(ZOL_OK, iResult);
        strAnswer = takeBody(poResponse);
    }
    echo(oMsg, strAnswer + "." + std::to_string(ucMgr));
}

class CServerMgr : public CZolTaskMgr
{
public:
    using CZolTaskMgr::CZolTaskMgr;
    CZolTask *createTask(CZolMsgPdu *) override { return new CServer; }
};

void addManager(unsigned char ucID, int iThreads, unsigned short usTasks)
{
    auto *const poMgr = new CServerMgr(ucID, iThreads);
    ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->addTaskMgr(poMgr));
    for (unsigned short usTask = 1; usTask <= usTasks; ++usTask)
    {
        ASSERT_EQ(ZOL_OK, poMgr->addStaticTask(new CServer, usTask));
    }
}

/// Runs fnBody with the numbers 0 to uiThreads - 1, each on a thread of its own, all at once.
void onThreads(unsigned int uiThreads, const std::function<void(unsigned int)> &fnBody)
{
    std::vector<std::thread> oThreads;
    for (unsigned int uiThread = 0; uiThread < uiThreads; ++uiThread)
    {
        oThreads.emplace_back(fnBody, uiThread);
    }
    for (std::thread &oThread : oThreads)
    {
        oThread.join();
    }
}

class CallsTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->initAppMgr(PROCESS, 0, true, "calls", nullptr));
        CZolRunLog::logLevel(CZolRunLog::LEVEL_WARNING);
        addManager(SERVERS, 4, 8);
        for (unsigned char ucMgr = CHAIN_FIRST; ucMgr <= CHAIN_LAST; ++ucMgr)
        {
            addManager(ucMgr, 2, 1);
        }
    }

    CInstallation m_oInstallation;
};

} // namespace

// Each handler blocks in a call to the next manager, in both forms, while the same managers serve the other threads.
TEST_F(CallsTest, HandlersCallOnDownAChain)
{
    std::atomic<unsigned int> uiWrong{0};
    runApplication(
        [&]
        {
            onThreads(16,
                      [&](unsigned int uiThread)
                      {
                          for (unsigned int uiCall = 0; uiCall < 20; ++uiCall)
                          {
                              const std::string strBody = std::to_string(uiThread * 1000 + uiCall);
                              std::string strAnswer;
                              const int iResult = call(uiCall % 2 == 0 ? CMD_CHAIN_ZOL : CMD_CHAIN_TASK, strBody, 60,
                                                       strAnswer, CHAIN_FIRST, 1);
                              uiWrong += iResult != ZOL_OK || strAnswer != strBody + ".13.12.11.10" ? 1 : 0;
                          }
                      });
        });
    EXPECT_EQ(0U, uiWrong);
}

// A call without an answer ends at its limit and not before, however many are under way. The answers
// that come after it find their task gone; they must not end later calls.
TEST_F(CallsTest, LateAnswersReachNobodyElse)
{
    std::atomic<unsigned int> uiWrong{0};
    runApplication(
        [&]
        {
            onThreads(THREADS,
                      [&](unsigned int uiThread)
                      {
                          const unsigned int uiLimit = 1 + uiThread % 2;
                          const auto oStart = Clock::now();
                          std::string strAnswer;
                          const int iResult = call(CMD_LATE, "stale", static_cast<int>(uiLimit), strAnswer, SERVERS, 1);
                          const auto oTaken = Clock::now() - oStart;
                          uiWrong += iResult != ZOL_ERR_TIMEOUT || oTaken < std::chrono::seconds(uiLimit) ? 1 : 0;
                      });
            ASSERT_TRUE(waitUntil([] { return lateCount() == THREADS; }));
            SZolStatistics oBefore{};
            ASSERT_EQ(ZOL_OK, zol::getStatistics(&oBefore, sizeof oBefore));
            std::thread oAnswers(answerLate);
            onThreads(THREADS,
                      [&](unsigned int uiThread)
                      {
                          const std::string strBody = std::to_string(uiThread);
                          std::string strAnswer;
                          uiWrong +=
                              call(CMD_ECHO, strBody, 60, strAnswer, SERVERS, 2) != ZOL_OK || strAnswer != strBody ? 1
                                                                                                                   : 0;
                      });
            oAnswers.join();
            EXPECT_TRUE(waitUntil(
                [&]
                {
                    SZolStatistics oNow{};
                    return zol::getStatistics(&oNow, sizeof oNow) == ZOL_OK &&
                           oNow.m_ulLateResponses - oBefore.m_ulLateResponses == THREADS;
                }))
                << "each is counted";
        });
    EXPECT_EQ(0U, uiWrong);
}

// Calls by the dozen are under way, answered and unanswered ones, when the process is told to end: each of them ends by
// itself, and so does handleEvents.
TEST_F(CallsTest, EndWhileThreadsAreInCalls)
{
    std::vector<std::thread> oThreads;
    std::atomic<unsigned int> uiCalls{0};
    runApplication(
        [&]
        {
            for (unsigned int uiThread = 0; uiThread < THREADS; ++uiThread)
            {
                oThreads.emplace_back(
                    [&uiCalls, uiThread]
                    {
                        std::string strAnswer;
                        const EnumCommand eCommand = uiThread % 2 == 0 ? CMD_ECHO : CMD_NEVER;
                        while (CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING)
                        {
                            ++uiCalls;
                            call(eCommand, "x", 2, strAnswer, SERVERS, 1 + uiThread % 8);
                        }
                    });
            }
            EXPECT_TRUE(waitUntil([&] { return uiCalls > 10 * THREADS; }));
        });
    for (std::thread &oThread : oThreads)
    {
        oThread.join();
    }
}

// Answers over a pipe, from a peer that takes the requests of all threads and answers them in the reverse order. In the
// last round it goes instead, and takes nobody along: the calls end at their limit, and later ones at once.
TEST_F(CallsTest, ManyThreadsCallAPeerThatAnswersOutOfOrderAndGoes)
{
    const unsigned short usPort = freePort();
    ASSERT_EQ(ZOL_OK, zol::bindPort(usPort));
    std::atomic<unsigned int> uiWrong{0};
    const unsigned int uiRounds = 20;
    runApplication(
        [&]
        {
            CRawPipe oPipe = CRawPipe::connectTo(usPort);
            ASSERT_EQ(0, oPipe.registerAs(PEER, 0, 1));
            std::thread oPeer(
                [&]
                {
                    for (unsigned int uiRound = 0; uiRound < uiRounds; ++uiRound)
                    {
                        std::vector<SFrame> oRequests(THREADS);
                        for (SFrame &oRequest : oRequests)
                        {
                            ASSERT_TRUE(oPipe.readFrame(oRequest, std::chrono::seconds(60)));
                        }
                        if (uiRound == uiRounds - 1)
                        {
                            oPipe.close();
                            return;
                        }
                        std::string strAnswers;
                        for (auto oRequest = oRequests.rbegin(); oRequest != oRequests.rend(); ++oRequest)
                        {
                            std::swap(oRequest->m_usSrcProc, oRequest->m_usDestProc);
                            std::swap(oRequest->m_ucSrcModule, oRequest->m_ucDestModule);
                            std::swap(oRequest->m_usSrcTask, oRequest->m_usDestTask);
                            oRequest->m_ucType = CZolMsgPdu::MSG_RESPONSE;
                            strAnswers += oRequest->wire();
                        }
                        ASSERT_TRUE(oPipe.send(strAnswers));
                    }
                });
            onThreads(THREADS,
                      [&](unsigned int uiThread)
                      {
                          for (unsigned int uiRound = 0; uiRound < uiRounds; ++uiRound)
                          {
                              const std::string strBody = std::to_string(uiThread) + " " + std::to_string(uiRound);
                              std::string strAnswer;
                              const bool bLast = uiRound == uiRounds - 1;
                              const int iResult = call(CMD_ECHO, strBody, bLast ? 5 : 60, strAnswer, 1, 1, PEER);
                              uiWrong +=
                                  iResult != (bLast ? ZOL_ERR_TIMEOUT : ZOL_OK) || strAnswer != (bLast ? "" : strBody)
                                      ? 1
                                      : 0;
                          }
                      });
            oPeer.join();
            std::string strAnswer;
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, call(CMD_ECHO, "x", 2, strAnswer, 1, 1, PEER));
        });
    EXPECT_EQ(0U, uiWrong);
}

TEST_F(CallsTest, CallsInEveryForm)
{
    auto *const poTimed = new CServer;
    ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->findTaskMgr(CHAIN_LAST)->addStaticTask(poTimed, 17));
    ASSERT_NE(0U, poTimed->setTimer(1));
    runApplication(
        []
        {
            EXPECT_TRUE(waitUntil([] { return lastNote() == "hi from 13/17"; })) << "the current task is the source";
            CZolMsgPdu *poResponse = nullptr;
            const SNACC::AsnInt oForty(40);
            ASSERT_EQ(ZOL_OK, zol::sendSyncReq(CMD_ADD, &oForty, 5, poResponse, PROCESS, SERVERS, 1));
            SNACC::AsnInt oNumber;
            EXPECT_EQ(ZOL_OK, zol::decodeAsn(*poResponse, oNumber));
            EXPECT_EQ(41, static_cast<int>(oNumber));
            delete poResponse;
            ASSERT_EQ(ZOL_OK, zol::sendSyncReq(CMD_ADD, &oNumber, 5, oNumber, PROCESS, SERVERS, 1));
            EXPECT_EQ(42, static_cast<int>(oNumber));
            ASSERT_EQ(ZOL_OK, zol::sendSyncReq(CMD_ECHO, "\x02\x01\x07", 3, 5, oNumber, PROCESS, SERVERS, 0));
            EXPECT_EQ(7, static_cast<int>(oNumber)) << "task 0: a task was created for it";

            // the forwarder does not show: the answer goes from the server to the first sender
            ASSERT_EQ(ZOL_OK, zol::sendSyncReq(CMD_FORWARD, "around", 6, 5, poResponse, PROCESS, SERVERS, 1));
            EXPECT_EQ("around", bodyOf(*poResponse));
            EXPECT_EQ(2, poResponse->m_usSrcSubModuleId);
            delete poResponse;
        });
}

TEST_F(CallsTest, ReportsEachRefusalInItsOwnWords)
{
    runApplication(
        []
        {
            CZolRunLog::logLevel(CZolRunLog::LEVEL_INFO);
            SNACC::AsnInt oNumber(1);
            CZolMsgPdu *poResponse = nullptr;
            EXPECT_EQ(ZOL_ERR_DECODE, zol::sendSyncReq(CMD_ECHO, "junk", 4, 5, oNumber, PROCESS, SERVERS, 1));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendReqMsg(1, &oNumber, 999, 1, 1));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendReqMsg(1, "x", 1, 999, 1, 1));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendBroadCast(1, &oNumber));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendBroadCast(1, "x", 1));
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, zol::sendSyncReq(1, &oNumber, 1, poResponse, 999, 1, 1));
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, zol::sendSyncReq(1, &oNumber, 1, oNumber, 999, 1, 1));
            EXPECT_EQ(ZOL_ERR_NO_DEST, zol::sendSyncReq(1, "x", 1, 1, poResponse, PROCESS, 77, 1));
            EXPECT_EQ(ZOL_ERR_NO_DEST, zol::sendSyncReq(1, "x", 1, 1, oNumber, PROCESS, 77, 1));
            const std::unique_ptr<CZolMsgPdu> oRequest(zol::encodeReq(1, nullptr, 0, PROCESS, 1, 1));
            oRequest->m_usSrcSubModuleId = 5;
            EXPECT_EQ(ZOL_ERR_FAILED, zol::resendMessage(*oRequest, 999, 7, 33));
            oRequest->m_usSrcProcID = 999;
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendRespMsg(*oRequest, &oNumber));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendRespMsg(*oRequest, "x", 1));
            oRequest->m_usSrcProcID = PROCESS;
            oRequest->m_usSrcSubModuleId = 0;
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendRespMsg(*oRequest, &oNumber));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendRespMsg(*oRequest, "x", 1));
            CZolRunLog::error("last line");
        });
    ASSERT_TRUE(waitUntil([&] { return countOf(m_oInstallation.logText(), "last line") == 1; }));
    const std::string strLog = m_oInstallation.logText();
    for (const char *pcLine : {
             " zol::sendReqMsg failed to send message to remote.\n",
             " zol::sendReqMsg2 failed to send message to remote.\n",
             " zol::sendBroadCast failed to send broadcast message.\n",
             " zol::sendBroadCast2 failed to send broadcast message.\n",
             " zol::sendSyncReq failed to send message to remote.\n",
             " zol::sendSyncReq2 failed to send message to remote.\n",
             " zol::sendSyncReq3 failed to send message to remote.\n",
             " zol::sendSyncReq4 failed to send message to remote.\n",
             " zol::resendMessage failed to send message to remote, procid: 999, taskmgr: 7, task: 33\n",
             " zol::sendRespMsg failed to send message to remote.\n",
             " zol::sendRespMsg2 failed to send message to remote.\n",
             " zol::sendRespMsg failed to encode zol message.\n", " zol::sendRespMsg2 failed to encode zol message.\n",
             "  ilength1 3.\n", // the length of each ASN.1 body that was encoded, with a blank in front
         })
    {
        EXPECT_EQ(1U, countOf(strLog, pcLine)) << pcLine;
    }
}

TEST_F(CallsTest, AnswersDirectRequests)
{
    class CEcho : public CZolListener
    {
        int handleP2PMsg(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse) override
        {
            poResponse = zol::messageCopy(*poRequest);
            return 0;
        }
    };
    static CEcho oEcho;
    zol::setListener(oEcho);
    const unsigned short usPort = freePort();
    ASSERT_EQ(ZOL_OK, zol::bindPort(usPort));
    runApplication(
        [usPort]
        {
            CZolMsgPdu *poRequest = zol::encodeReq(1, "direct", 6, 0, 0, 0);
            CZolMsgPdu *poResponse = nullptr;
            ASSERT_EQ(ZOL_OK, zol::sendP2PMsg("127.0.0.1", usPort, poRequest, &poResponse, 5));
            EXPECT_EQ("direct", bodyOf(*poResponse));
            delete poResponse;

            poRequest = zol::encodeReq(1, nullptr, 0, 0, 0, 0);
            EXPECT_EQ(ZOL_OK, zol::sendP2PMsg(inet_addr("127.0.0.1"), usPort, poRequest, nullptr, 5)) << "one way";
            poRequest = zol::encodeReq(1, nullptr, 0, 0, 0, 0);
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendP2PMsg("127.0.0.1", freePort(), poRequest, &poResponse, 5))
                << "nobody there";
            poRequest = zol::encodeReq(1, nullptr, 0, 0, 0, 0);
            EXPECT_EQ(ZOL_OK, zol::sendP2PMsg(inet_addr("127.0.0.1"), usPort, poRequest, &poResponse,
                                              std::numeric_limits<int>::max()))
                << "a time-out that does not fit in milliseconds is a long one";
            delete poResponse;
        });
}
