// Synchronous calls from many threads at once, from inside handlers, with answers that come late or never, and while
// the process ends.

#include "support/Application.h"
#include "support/Installation.h"
#include "support/RawPipe.h"
#include "zol.h"

#include <algorithm>
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
    CMD_NEVER = 5
};

using Clock = std::chrono::steady_clock;

std::mutex g_oLateLock;
std::vector<std::unique_ptr<CZolMsgPdu>> g_oLate; // guarded by g_oLateLock: requests to be answered late

std::size_t lateCount()
{
    const std::lock_guard<std::mutex> oGuard(g_oLateLock);
    return g_oLate.size();
}

/// Answers all that wait, and forgets them.
void answerLate()
{
    const std::lock_guard<std::mutex> oGuard(g_oLateLock);
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
        const std::lock_guard<std::mutex> oGuard(g_oLateLock);
        g_oLate.emplace_back(zol::messageCopy(oMsg));
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

void addManager(unsigned char ucID, int iThreads, unsigned short usTasks)
{
    auto *const poMgr = new CZolTaskMgr(ucID, iThreads);
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

// A call without an answer ends at its limit, neither before nor much later, however many are under way. The answers
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
                          uiWrong += iResult != ZOL_ERR_TIMEOUT || oTaken < std::chrono::seconds(uiLimit) ||
                                             oTaken > std::chrono::seconds(20)
                                         ? 1
                                         : 0;
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

// Answers over a pipe, from a peer that takes the requests of all threads and answers them in the reverse order.
TEST_F(CallsTest, ManyThreadsCallAPeerThatAnswersOutOfOrder)
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
                              const int iResult = call(CMD_ECHO, strBody, 60, strAnswer, 1, 1, PEER);
                              uiWrong += iResult != ZOL_OK || strAnswer != strBody ? 1 : 0;
                          }
                      });
            oPeer.join();
        });
    EXPECT_EQ(0U, uiWrong);
}

// A pipe that goes while calls wait on it takes nobody along: they end at their limit, and later ones at once.
TEST_F(CallsTest, ALostPipeEndsCallsAtTheirLimit)
{
    const unsigned short usPort = freePort();
    ASSERT_EQ(ZOL_OK, zol::bindPort(usPort));
    std::atomic<unsigned int> uiWrong{0};
    runApplication(
        [&]
        {
            CRawPipe oPipe = CRawPipe::connectTo(usPort);
            ASSERT_EQ(0, oPipe.registerAs(PEER, 0, 1));
            std::thread oPeer(
                [&]
                {
                    SFrame oRequest;
                    for (unsigned int uiRequest = 0; uiRequest < 8; ++uiRequest)
                    {
                        ASSERT_TRUE(oPipe.readFrame(oRequest));
                    }
                    oPipe.close();
                });
            onThreads(8,
                      [&](unsigned int)
                      {
                          std::string strAnswer;
                          uiWrong += call(CMD_ECHO, "x", 2, strAnswer, 1, 1, PEER) != ZOL_ERR_TIMEOUT ? 1 : 0;
                      });
            oPeer.join();
            std::string strAnswer;
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, call(CMD_ECHO, "x", 2, strAnswer, 1, 1, PEER));
        });
    EXPECT_EQ(0U, uiWrong);
}
