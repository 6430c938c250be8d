// Blocking calls inside one process, and waiting for events of one's own.

#include "support/RawPipe.h"
#include "task/TaskFixture.h"

#include <ace/Dev_Poll_Reactor.h>
#include <ace/Reactor.h>
#include <memory>
#include <stdexcept>

using namespace zoltest;

namespace
{

constexpr unsigned char CALLER = 1, SERVER = 2;
constexpr unsigned short ECHO = 1, MUTE = 2;

class SynCallTest : public CTaskTest
{
protected:
    /// A manager with a task that answers every request, with its command plus one, and one that never answers.
    void addServer(int iThreads = 1)
    {
        auto *poMgr = add(new CScriptedMgr(SERVER, iThreads));
        poMgr->addStaticTask(new CScriptedTask([](CZolTask &, const CZolMsgPdu &oMsg)
                                               { sendLocal(makeAnswer(oMsg, oMsg.m_ulCmdID + 1)); }),
                             ECHO);
        poMgr->addStaticTask(new CScriptedTask, MUTE);
    }
};

using Pdu = std::unique_ptr<CZolMsgPdu>;

/// A call by oTask: its result; oResponse is set to what came.
int call(CZolTask &oTask, CZolMsgPdu *poRequest, Pdu &oResponse, int iSeconds)
{
    CZolMsgPdu *poResponse = nullptr;
    const int iResult = oTask.sendSynMsg(poRequest, poResponse, iSeconds);
    EXPECT_EQ(nullptr, poRequest);
    oResponse.reset(poResponse);
    return iResult;
}

} // namespace

TEST_F(SynCallTest, AnswersATaskAndLeavesItInItsState)
{
    addServer();
    CTrace oTrace;
    auto *poMgr = add(new CScriptedMgr(CALLER, 1));
    poMgr->addStaticTask(new CScriptedTask(
                             [&](CZolTask &oTask, const CZolMsgPdu &)
                             {
                                 Pdu oResponse;
                                 oTrace.add(std::to_string(call(oTask, makeRequest(SERVER, ECHO, 10), oResponse, 10)));
                                 oTrace.add(oResponse ? std::to_string(oResponse->m_ulCmdID) : "none");
                                 oTrace.add(std::to_string(oTask.getTaskStatus()));
                             }),
                         1);
    start();
    sendLocal(makeRequest(CALLER, 1, 0));
    ASSERT_TRUE(oTrace.waitForCount(3));
    // the command of the response does not matter
    EXPECT_EQ((std::vector<std::string>{"0", "11", std::to_string(TASK_EXEC)}), oTrace.events());
    EXPECT_TRUE(logged("taskmgr 1 task 1 has been awoken, cmd:11\n"));
    EXPECT_TRUE(logged("CZolTask::setStatusWithLog taskmgr 1 task 1 become TASK_SYNWAIT\n"));
}

// A manager with one thread cannot serve the request of its own task; one with two can.
TEST_F(SynCallTest, NeedsAThreadToBeServedBy)
{
    std::atomic<int> aResults[2] = {{100}, {100}};
    for (const int iThreads : {1, 2})
    {
        auto *poMgr = add(new CScriptedMgr(static_cast<unsigned char>(10 + iThreads), iThreads));
        const unsigned char ucMgr = poMgr->getTaskMgrID();
        poMgr->addStaticTask(new CScriptedTask(
                                 [&, iThreads, ucMgr](CZolTask &oTask, const CZolMsgPdu &oMsg)
                                 {
                                     if (oMsg.m_ucMsgType == CZolMsgPdu::MSG_RESPONSE)
                                     {
                                         return; // the one that came too late for the first manager
                                     }
                                     Pdu oResponse;
                                     aResults[iThreads - 1] = call(oTask, makeRequest(ucMgr, 2, 0), oResponse, 1);
                                 }),
                             1);
        poMgr->addStaticTask(
            new CScriptedTask([](CZolTask &, const CZolMsgPdu &oMsg) { sendLocal(makeAnswer(oMsg, 0)); }), 2);
    }
    start();
    sendLocal(makeRequest(11, 1, 0));
    sendLocal(makeRequest(12, 1, 0));
    EXPECT_TRUE(waitUntil([&] { return aResults[0] != 100 && aResults[1] != 100; }));
    EXPECT_EQ(ZOL_ERR_TIMEOUT, aResults[0]);
    EXPECT_EQ(ZOL_OK, aResults[1]);
}

TEST_F(SynCallTest, RefusesWhatItCannotSend)
{
    addServer();
    auto *poMgr = add(new CScriptedMgr(CALLER, 1));
    auto *poTask = new CZolTask;
    ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poTask, false));
    CZolTask oNotAdded;
    start();
    const Pdu oMark(makeRequest(0, 0, 0)); // stands for "as it was"
    const auto fnRemote = []
    {
        CZolMsgPdu *poMsg = makeRequest(SERVER, ECHO, 0);
        poMsg->m_usDestProcID = 500;
        return poMsg;
    };
    const auto fnType = [](CZolMsgPdu::EnumZolPduType eType) { return makeMsg(eType, SERVER, ECHO, 0); };
    const struct
    {
        const char *pcName;
        CZolTask *poTask;
        CZolMsgPdu *poRequest;
        int iResult;
        bool bAsItWas;
    } aCases[] = {
        {"null", poTask, nullptr, ZOL_ERR_FAILED, true},
        {"not added", &oNotAdded, makeRequest(SERVER, ECHO, 0), ZOL_ERR_FAILED, true},
        {"response", poTask, fnType(CZolMsgPdu::MSG_RESPONSE), ZOL_ERR_MSG_TYPE, true},
        {"timer", poTask, fnType(CZolMsgPdu::MSG_TIMER), ZOL_ERR_MSG_TYPE, true},
        {"multicast", poTask, fnType(CZolMsgPdu::MSG_MULTICAST), ZOL_ERR_MSG_TYPE, true},
        {"no such manager", poTask, makeRequest(99, ECHO, 0), ZOL_ERR_NO_DEST, true},
        {"no way to the process", poTask, fnRemote(), ZOL_ERR_INTERRUPTED, false},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        CZolMsgPdu *poRequest = oCase.poRequest;
        CZolMsgPdu *poResponse = oMark.get();
        EXPECT_EQ(oCase.iResult, oCase.poTask->sendSynMsg(poRequest, poResponse, 1));
        EXPECT_EQ(nullptr, poRequest);
        EXPECT_EQ(oCase.bAsItWas ? oMark.get() : nullptr, poResponse);
        EXPECT_NE(TASK_SYNWAIT, oCase.poTask->getTaskStatus());
    }
    for (const auto eType : {CZolMsgPdu::MSG_SUBSCRIBE, CZolMsgPdu::MSG_SUBSCRIBE_CANCEL, CZolMsgPdu::MSG_GET_ADDRESS})
    {
        Pdu oResponse;
        EXPECT_EQ(ZOL_ERR_TIMEOUT, call(*poTask, fnType(eType), oResponse, 1)) << "passes the test, and is not served";
    }
    poTask->exitTask();
}

TEST_F(SynCallTest, WaitsAtLeastASecond)
{
    addServer();
    start();
    for (const int iLimit : {0, -5, 1})
    {
        SCOPED_TRACE(iLimit);
        CZolMsgPdu *poRequest = makeRequest(SERVER, MUTE, 0);
        CZolMsgPdu *poResponse = nullptr;
        const auto oTimed = timed([&] { return app().sendSynMsg(poRequest, poResponse, iLimit); });
        EXPECT_EQ(ZOL_ERR_TIMEOUT, oTimed.first);
        EXPECT_GE(oTimed.second, 0.99);
        EXPECT_EQ(nullptr, poResponse);
    }
}

// What else comes for a task during its call waits, in order; the response is taken from behind it.
TEST_F(SynCallTest, TakesTheResponseFromBehindOtherMessages)
{
    addServer();
    CTrace oTrace;
    CGate oGate;
    auto *poMgr = add(new CScriptedMgr(CALLER, 2));
    auto *poTask = new CScriptedTask(
        [&](CZolTask &oTask, const CZolMsgPdu &oMsg)
        {
            oTrace.add(std::to_string(oMsg.m_ulCmdID));
            if (oMsg.m_ulCmdID == 0)
            {
                Pdu oResponse;
                oTrace.add("result " + std::to_string(call(oTask, makeRequest(SERVER, MUTE, 0), oResponse, 20)));
                oTrace.add("response " + std::to_string(oResponse ? oResponse->m_ulCmdID : 0));
                oGate.pass();
            }
        });
    poMgr->addStaticTask(poTask, 1);
    start();
    sendLocal(makeRequest(CALLER, 1, 0));
    ASSERT_TRUE(waitUntil([&] { return poTask->getTaskStatus() == TASK_SYNWAIT; }));
    sendLocal(makeRequest(CALLER, 1, 1));
    sendLocal(makeRequest(CALLER, 1, 2));
    ASSERT_TRUE(waitUntil([&] { return poMgr->getLengthOfBufferMsg() == 0; }));
    sendLocal(makeMsg(CZolMsgPdu::MSG_RESPONSE, CALLER, 1, 50)); // the last of the list
    ASSERT_TRUE(oGate.waitForGuests(1));
    sendLocal(makeRequest(CALLER, 1, 3)); // is appended behind the second one
    ASSERT_TRUE(waitUntil([&] { return poMgr->getLengthOfBufferMsg() == 0; }));
    oGate.open();
    ASSERT_TRUE(oTrace.waitForCount(6));
    EXPECT_EQ((std::vector<std::string>{"0", "result 0", "response 50", "1", "2", "3"}), oTrace.events());
}

TEST_F(SynCallTest, LeavesOtherMessagesToTheHandlerWhenTheTimeIsOver)
{
    addServer();
    CTrace oTrace;
    auto *poMgr = add(new CScriptedMgr(CALLER, 2));
    auto *poTask = new CScriptedTask(
        [&](CZolTask &oTask, const CZolMsgPdu &oMsg)
        {
            oTrace.add(std::to_string(oMsg.m_ulCmdID));
            if (oMsg.m_ulCmdID == 0)
            {
                Pdu oResponse;
                oTrace.add("result " + std::to_string(call(oTask, makeRequest(SERVER, MUTE, 0), oResponse, 1)));
            }
        });
    poMgr->addStaticTask(poTask, 1);
    start();
    sendLocal(makeRequest(CALLER, 1, 0));
    ASSERT_TRUE(waitUntil([&] { return poTask->getTaskStatus() == TASK_SYNWAIT; }));
    sendLocal(makeRequest(CALLER, 1, 1));
    ASSERT_TRUE(oTrace.waitForCount(3));
    EXPECT_EQ((std::vector<std::string>{"0", "result -1", "1"}), oTrace.events());
}

// A response that was queued before the call began does not wake it; it is found when the time is over.
TEST_F(SynCallTest, FindsAnEarlierResponseOnlyAtTheLimit)
{
    addServer();
    auto *poMgr = add(new CScriptedMgr(CALLER, 1));
    auto *poTask = new CZolTask;
    ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poTask, false)); // in TASK_EXEC: messages for it are buffered
    start();
    sendLocal(makeMsg(CZolMsgPdu::MSG_RESPONSE, CALLER, 33, 70));
    sendLocal(makeRequest(CALLER, 33, 71));
    ASSERT_TRUE(waitUntil([&] { return poMgr->getLengthOfBufferMsg() == 0; }));
    Pdu oResponse;
    const auto oTimed = timed([&] { return call(*poTask, makeRequest(SERVER, MUTE, 0), oResponse, 1); });
    EXPECT_EQ(ZOL_OK, oTimed.first);
    EXPECT_GE(oTimed.second, 0.99);
    ASSERT_TRUE(oResponse);
    EXPECT_EQ(70U, oResponse->m_ulCmdID);
    const Pdu oLeft(poTask->popFrontZolMsg());
    ASSERT_TRUE(oLeft);
    EXPECT_EQ(71U, oLeft->m_ulCmdID);
    poTask->exitTask();
}

TEST_F(SynCallTest, DropsAResponseThatComesTooLate)
{
    CGate oGate;
    auto *poMgr = add(new CScriptedMgr(SERVER, 1));
    poMgr->addStaticTask(new CScriptedTask(
                             [&](CZolTask &, const CZolMsgPdu &oMsg)
                             {
                                 oGate.pass();
                                 sendLocal(makeAnswer(oMsg, 88));
                             }),
                         ECHO);
    start();
    CZolMsgPdu *poRequest = makeRequest(SERVER, ECHO, 0);
    CZolMsgPdu *poResponse = nullptr;
    EXPECT_EQ(ZOL_ERR_TIMEOUT, app().sendSynMsg(poRequest, poResponse, 1));
    oGate.open();
    EXPECT_TRUE(logged("task id not found when process message, src: 9,0,77,5, dst:254,33, cmd:88\n"));
    SZolStatistics oStatistics{};
    zol::getStatistics(&oStatistics, sizeof oStatistics);
    EXPECT_EQ(1U, oStatistics.m_ulLateResponses);
    EXPECT_EQ(0U, oStatistics.m_ulDroppedNoTask);
}

TEST_F(SynCallTest, ServesManyThreadsAtOnceEachWithItsOwnAnswer)
{
    constexpr int THREADS = 64, CALLS = 30;
    addServer(2);
    start();
    std::atomic<int> iFaults{0};
    std::vector<std::thread> oThreads;
    for (int iThread = 0; iThread < THREADS; ++iThread)
    {
        oThreads.emplace_back(
            [&, iThread]
            {
                for (int iCall = 0; iCall < CALLS; ++iCall)
                {
                    const unsigned int uiCmd = static_cast<unsigned int>(iThread * 1000 + iCall);
                    CZolMsgPdu *poRequest = makeRequest(SERVER, ECHO, uiCmd);
                    CZolMsgPdu *poResponse = nullptr;
                    const int iResult = app().sendSynMsg(poRequest, poResponse, 30);
                    const Pdu oResponse(poResponse);
                    if (iResult != ZOL_OK || !oResponse || oResponse->m_ulCmdID != uiCmd + 1)
                    {
                        ++iFaults;
                    }
                }
            });
    }
    for (auto &oThread : oThreads)
    {
        oThread.join();
    }
    EXPECT_EQ(0, iFaults);
    EXPECT_EQ("CZolTaskMgr: 254\n", app().findTaskMgr(254)->dumpAllTask()) << "no task is left of any call";
}

// The call of a handler through the application manager takes a task of its own; the handler's task has no part in it.
TEST_F(SynCallTest, KeepsTheHandlersTaskOutOfACallThroughTheManager)
{
    addServer();
    CTrace oTrace;
    auto *poMgr = add(new CScriptedMgr(CALLER, 1));
    poMgr->addStaticTask(new CScriptedTask(
                             [&](CZolTask &oTask, const CZolMsgPdu &)
                             {
                                 CZolMsgPdu *poRequest = makeRequest(SERVER, ECHO, 1);
                                 CZolMsgPdu *poResponse = nullptr;
                                 const int iResult = app().sendSynMsg(poRequest, poResponse, 10);
                                 const Pdu oResponse(poResponse);
                                 oTrace.add(std::to_string(iResult));
                                 oTrace.add(oResponse ? std::to_string(oResponse->m_ucDestModule) : "none");
                                 oTrace.add(std::to_string(oTask.getTaskStatus()));
                                 oTrace.add(app().getCurrentTask() == &oTask ? "same" : "other");
                             }),
                         1);
    start();
    sendLocal(makeRequest(CALLER, 1, 0));
    ASSERT_TRUE(oTrace.waitForCount(4));
    EXPECT_EQ((std::vector<std::string>{"0", "254", std::to_string(TASK_EXEC), "same"}), oTrace.events());
}

// Somebody ends an assist task that another thread drives through a call: the call goes on, its driver deletes it.
TEST_F(SynCallTest, LetsTheDriverDeleteATaskThatIsEndedInItsCall)
{
    addServer();
    std::atomic<int> iAlive{0};
    auto *poMgr = add(new CScriptedMgr(CALLER, 1));
    auto *poTask = new CScriptedTask(nullptr, &iAlive);
    ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poTask, false));
    start();
    std::atomic<int> iResult{100};
    std::thread oDriver(
        [&]
        {
            Pdu oResponse;
            iResult = call(*poTask, makeRequest(SERVER, MUTE, 0), oResponse, 30);
            EXPECT_EQ(TASK_EXIT, poTask->getTaskStatus());
            poTask->exitTask();
        });
    ASSERT_TRUE(waitUntil([&] { return poTask->getTaskStatus() == TASK_SYNWAIT; }));
    EXPECT_EQ(ZOL_OK, poTask->setTaskStatus(TASK_EXIT));
    sendLocal(makeMsg(CZolMsgPdu::MSG_TASK_EXIT, CALLER, 33, 0));
    ASSERT_TRUE(waitUntil([&] { return poMgr->getLengthOfBufferMsg() == 0; }));
    EXPECT_EQ(1, iAlive);
    sendLocal(makeMsg(CZolMsgPdu::MSG_RESPONSE, CALLER, 33, 5));
    oDriver.join();
    EXPECT_EQ(ZOL_OK, iResult);
    EXPECT_EQ(0, iAlive);
}

// A clock's callback adds a task, calls and ends the task, on the thread that fires the timers, while tasks with timers
// end on other threads: neither side may wait for the other.
TEST_F(SynCallTest, LetsClocksCallWhileTasksWithTimersEnd)
{
    static std::atomic<int> s_iCalls;
    CZolRunLog::logLevel(CZolRunLog::LEVEL_ERROR);
    addServer(2);
    std::atomic<int> iAlive{0}, iMade{0};
    add(new CScriptedMgr(CALLER, 2,
                         [&](CZolMsgPdu *)
                         {
                             return new CScriptedTask(
                                 [&](CZolTask &oTask, const CZolMsgPdu &)
                                 {
                                     EXPECT_NE(0U, oTask.setTimer(1000));
                                     EXPECT_NE(0U, oTask.setTimer(1));
                                     ++iMade;
                                     oTask.exitTask();
                                 },
                                 &iAlive);
                         }));
    start();
    const unsigned long ulClock =
        CZolTimer::instance()->registerPreciseClock(1,
                                                    [](unsigned long)
                                                    {
                                                        CZolMsgPdu *poRequest = makeRequest(SERVER, ECHO, 1);
                                                        CZolMsgPdu *poResponse = nullptr;
                                                        EXPECT_EQ(ZOL_OK, app().sendSynMsg(poRequest, poResponse, 20));
                                                        delete poResponse;
                                                        ++s_iCalls;
                                                    });
    ASSERT_NE(0U, ulClock);
    EXPECT_TRUE(waitUntil(
        [&]
        {
            sendLocal(makeRequest(CALLER, 0, 1));
            return iMade >= 50 && s_iCalls >= 50;
        }));
    CZolTimer::instance()->cancelPreciseClock(ulClock);
    EXPECT_TRUE(waitUntil([&] { return iAlive == 0; }));
    EXPECT_EQ(0U, CZolTimer::instance()->getTimerCount()) << "timers end with their tasks";
}

namespace
{

/// A gateway that registers the process and then reads nothing.
class StalledGatewayTest : public testing::Test
{
protected:
    StalledGatewayTest() : m_oInstallation("VEKAddress=127.0.0.1\nVEKPort=" + std::to_string(m_oListener.port()) + "\n")
    {
    }
    void SetUp() override
    {
        std::thread oGateway(
            [this]
            {
                SFrame oRequest;
                m_oPipe = m_oListener.acceptPipe(oRequest);
            });
        const int iResult = CZolAppMgr::instance()->initAppMgr(PROCESS, 0, true, nullptr, nullptr);
        oGateway.join();
        ASSERT_EQ(ZOL_OK, iResult);
    }

    CRawListener m_oListener;
    CRawPipe m_oPipe;
    CInstallation m_oInstallation;
};

} // namespace

// A call whose request cannot leave, since the list of the send thread is full, holds nobody else up: not the senders
// to its task, not the other tasks of the manager, and not the end of the process.
TEST_F(StalledGatewayTest, HoldsUpOnlyTheCaller)
{
    CZolAppMgr &oApp = *CZolAppMgr::instance();
    g_ulQueueSize = 1000000;
    CTrace oTrace;
    std::atomic<int> iResult{100};
    auto *poMgr = new CScriptedMgr(CALLER, 2);
    auto *poCaller = new CScriptedTask(
        [&](CZolTask &oTask, const CZolMsgPdu &oMsg)
        {
            if (oMsg.m_ulCmdID == 0)
            {
                CZolMsgPdu *poRequest = makeRequest(SERVER, ECHO, 1);
                poRequest->m_usDestProcID = 500;
                CZolMsgPdu *poResponse = nullptr;
                iResult = oTask.sendSynMsg(poRequest, poResponse, 1);
            }
        });
    poMgr->addStaticTask(poCaller, 1);
    poMgr->addStaticTask(new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { oTrace.add("served"); }), 2);
    ASSERT_EQ(ZOL_OK, oApp.addTaskMgr(poMgr));
    std::thread oLoop([&] { oApp.handleEvents(); });
    EXPECT_TRUE(waitUntil([&] { return oApp.getStatus() == APPMGR_RUNNING; }));

    std::thread oFiller(
        [&]
        {
            while (oApp.getStatus() == APPMGR_RUNNING)
            {
                CZolMsgPdu *poMsg = makeMsg(CZolMsgPdu::MSG_REQUEST, 1, 1, 1, std::string(8000, 'x'));
                poMsg->m_usDestProcID = 500;
                oApp.sendAsynMsg(poMsg);
            }
        });
    EXPECT_TRUE(waitUntil(
        []
        {
            static SZolStatistics s_oStatistics; // both halves of the limit are used up: what is sent, what waits
            zol::getStatistics(&s_oStatistics, sizeof s_oStatistics);
            return s_oStatistics.m_ulSendBytes >= g_ulQueueSize;
        }));
    EXPECT_EQ(ZOL_OK, sendLocal(makeRequest(CALLER, 1, 0)));
    EXPECT_TRUE(waitUntil([&] { return poCaller->getTaskStatus() == TASK_SYNWAIT; }));
    sendLocal(makeMsg(CZolMsgPdu::MSG_REQUEST, CALLER, 1, 9)); // for the blocked caller
    sendLocal(makeMsg(CZolMsgPdu::MSG_RESPONSE, CALLER, 1, 9));
    for (int iTurn = 0; iTurn < 20; ++iTurn)
    {
        sendLocal(makeRequest(CALLER, 2, 0));
    }
    EXPECT_TRUE(oTrace.waitForCount(20));
    oApp.exitThreads();
    oLoop.join();
    oFiller.join();
    EXPECT_NE(100, iResult);
}

TEST_F(SynCallTest, EndsTheProcessAfterTheCallsThatRun)
{
    addServer();
    std::atomic<int> iResult{100};
    auto *poMgr = add(new CScriptedMgr(CALLER, 1));
    auto *poTask = new CScriptedTask(
        [&](CZolTask &oTask, const CZolMsgPdu &)
        {
            Pdu oResponse;
            iResult = call(oTask, makeRequest(SERVER, MUTE, 0), oResponse, 2);
        });
    poMgr->addStaticTask(poTask, 1);
    start();
    sendLocal(makeRequest(CALLER, 1, 0));
    ASSERT_TRUE(waitUntil([&] { return poTask->getTaskStatus() == TASK_SYNWAIT; }));
    stop();
    EXPECT_EQ(ZOL_ERR_TIMEOUT, iResult);
}

// ---- Waiting for events of one's own --------------------------------------------------------------------------------

namespace
{

class OwnEventsTest : public SynCallTest
{
protected:
    OwnEventsTest() : m_oReactor(new ACE_Dev_Poll_Reactor(64, true), true) {}

    /// A task on two threads that calls recvNonZolMsg for command 0 and notes everything else.
    CScriptedTask *addWaiter()
    {
        auto *poMgr = add(new CScriptedMgr(CALLER, 2));
        auto *poTask = new CScriptedTask(
            [this](CZolTask &oTask, const CZolMsgPdu &oMsg)
            {
                m_oTrace.add(std::to_string(oMsg.m_ulCmdID));
                if (oMsg.m_ulCmdID == 0)
                {
                    const int iResult = oTask.recvNonZolMsg();
                    const Pdu oFirst(oTask.popFrontZolMsg());
                    m_oTrace.add("result " + std::to_string(iResult));
                    m_oTrace.add("popped " + (oFirst ? std::to_string(oFirst->m_ulCmdID) : "none"));
                    m_oTrace.add("state " + std::to_string(oTask.getTaskStatus()));
                }
            });
        poTask->m_poReactor = &m_oReactor;
        poTask->m_fnEventLoop = [this] { runReactor(); };
        poMgr->addStaticTask(poTask, 1);
        return poTask;
    }

    void runReactor()
    {
        m_oReactor.owner(ACE_Thread::self());
        m_oReactor.run_reactor_event_loop();
    }

    ACE_Reactor m_oReactor;
    CTrace m_oTrace;
};

} // namespace

TEST_F(OwnEventsTest, ReturnsAtOnceFromATaskWithoutALoop)
{
    CScriptedTask *poTask = addWaiter();
    poTask->m_poReactor = nullptr;
    poTask->m_fnEventLoop = nullptr;
    start();
    sendLocal(makeRequest(CALLER, 1, 0));
    ASSERT_TRUE(m_oTrace.waitForCount(4));
    EXPECT_EQ("popped none", m_oTrace.events()[2]);
    EXPECT_EQ(ZOL_ERR_FAILED, CZolTask().recvNonZolMsg());
}

TEST_F(OwnEventsTest, LeavesTheStateWhenTheLoopThrows)
{
    CScriptedTask *poTask = addWaiter();
    poTask->m_fnEventLoop = [] { throw std::runtime_error("out of the loop"); };
    start();
    sendLocal(makeRequest(CALLER, 1, 0));
    sendLocal(makeRequest(CALLER, 1, 1));
    ASSERT_TRUE(m_oTrace.waitForCount(2));
    EXPECT_TRUE(waitUntil([&] { return poTask->getTaskStatus() == TASK_IDLE; }));
}

TEST_F(OwnEventsTest, MayCallFromInsideTheLoop)
{
    addServer();
    CScriptedTask *poTask = addWaiter();
    poTask->m_fnEventLoop = [&]
    {
        Pdu oResponse;
        m_oTrace.add("call " + std::to_string(call(*poTask, makeRequest(SERVER, ECHO, 1), oResponse, 10)));
        m_oTrace.add("state " + std::to_string(poTask->getTaskStatus()));
    };
    start();
    sendLocal(makeRequest(CALLER, 1, 0));
    ASSERT_TRUE(m_oTrace.waitForCount(6));
    EXPECT_EQ("call 0", m_oTrace.events()[1]);
    EXPECT_EQ("state " + std::to_string(TASK_NONZOLWAIT), m_oTrace.events()[2]);
    EXPECT_TRUE(logged("taskmgr 1 task 1 become TASK_NONZOLWAIT\n"));
}

// ---- What ends the loop, also while the loop has the task in a call -------------------------------------------------

namespace
{

/// The parameter: whether the task is in a call from inside its loop when the loop is told to end.
class OwnLoopTest : public OwnEventsTest, public testing::WithParamInterface<bool>
{
protected:
    void SetUp() override
    {
        OwnEventsTest::SetUp();
        m_poTask = addWaiter();
        m_poTask->m_fnEventLoop = [this] { callAndRun(*m_poTask); };
        addServer(); // after the caller, which the end of the process reaches first, then
        start();
    }

    void callAndRun(CZolTask &oTask)
    {
        Pdu oResponse;
        if (GetParam())
        {
            EXPECT_EQ(ZOL_OK, call(oTask, makeRequest(SERVER, MUTE, 0), oResponse, 60));
        }
        runReactor();
    }

    bool waitUntilInside(const CZolTask &oTask) const
    {
        return waitUntil([&] { return oTask.getTaskStatus() == (GetParam() ? TASK_SYNWAIT : TASK_NONZOLWAIT); });
    }

    void endTheCall(unsigned short usTask)
    {
        if (GetParam())
        {
            CZolMsgPdu *const poResponse = makeMsg(CZolMsgPdu::MSG_RESPONSE, CALLER, usTask, 5);
            app().findTaskMgr(CALLER)->enqueueMsg(zolBlockOf(poResponse), true);
        }
    }

    CScriptedTask *m_poTask = nullptr;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(InTheLoopOrInACall, OwnLoopTest, testing::Bool());

TEST_P(OwnLoopTest, EndsWhenAMessageComes)
{
    EXPECT_EQ(ZOL_ERR_FAILED, m_poTask->recvNonZolMsg()) << "this thread does not run the task";
    std::atomic<bool> bNext{false};
    app().findTaskMgr(CALLER)->addStaticTask(new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { bNext = true; }),
                                             2);
    sendLocal(makeRequest(CALLER, 1, 0));
    ASSERT_TRUE(waitUntilInside(*m_poTask));
    sendLocal(makeRequest(CALLER, 1, 1));
    sendLocal(makeRequest(CALLER, 2, 0));
    ASSERT_TRUE(waitUntil([&] { return bNext.load(); })); // then the message before it is on the task's list
    endTheCall(1);
    ASSERT_TRUE(m_oTrace.waitForCount(4));
    EXPECT_EQ((std::vector<std::string>{"0", "result 0", "popped 1", "state " + std::to_string(TASK_EXEC)}),
              m_oTrace.events());
}

// No message will end the loop of a task that has ended, before it began or while it runs.
TEST_P(OwnLoopTest, EndsWithTheTask)
{
    for (const bool bBefore : {false, true})
    {
        SCOPED_TRACE(bBefore ? "before the loop" : "inside");
        m_oReactor.reset_reactor_event_loop();
        std::atomic<int> iAlive{0};
        auto *poTask = new CScriptedTask(
            [bBefore](CZolTask &oTask, const CZolMsgPdu &)
            {
                if (bBefore)
                {
                    oTask.exitTask();
                }
                oTask.recvNonZolMsg();
            },
            &iAlive);
        poTask->m_poReactor = &m_oReactor;
        poTask->m_fnEventLoop = [this, poTask] { callAndRun(*poTask); };
        ASSERT_EQ(ZOL_OK, app().findTaskMgr(CALLER)->addAssistTask(poTask, true));
        const unsigned short usTask = poTask->getTaskID();
        sendLocal(makeRequest(CALLER, usTask, 0));
        if (!bBefore || GetParam())
        {
            ASSERT_TRUE(waitUntilInside(*poTask));
        }
        if (!bBefore)
        {
            poTask->exitTask();
        }
        endTheCall(usTask);
        EXPECT_TRUE(waitUntil([&] { return iAlive == 0; }));
    }
}

// The end of the process waits for every handler.
TEST_P(OwnLoopTest, EndsWithTheProcess)
{
    sendLocal(makeRequest(CALLER, 1, 0));
    ASSERT_TRUE(waitUntilInside(*m_poTask));
    app().exitThreads();
    ASSERT_TRUE(waitUntil([] { return app().findTaskMgr(SERVER)->thr_count() == 0; }));
    endTheCall(1);
    stop();
    EXPECT_EQ("result 0", m_oTrace.events().at(1));
}
