// How messages reach tasks: order, states, fates, and the end of tasks.

#include "task/TaskFixture.h"

#include <ace/Reactor.h>
#include <fcntl.h>
#include <malloc.h>
#include <map>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace zoltest;

namespace
{

class DispatchTest : public CTaskTest
{
protected:
    static SZolStatistics statistics()
    {
        SZolStatistics oStatistics{};
        EXPECT_EQ(ZOL_OK, zol::getStatistics(&oStatistics, sizeof oStatistics));
        return oStatistics;
    }
};

class StalledLogTest : public CTaskTest
{
protected:
    StalledLogTest() : CTaskTest("MaxLogSize = 1024\nMaxLogNumber = 2\n") {}

    /// Makes the next file of the ring a pipe that nobody reads, steps to it, and overfills it: oWriter stands.
    void stall(std::thread &oWriter)
    {
        ASSERT_EQ(0, mkfifo(m_strFifo.c_str(), 0600));
        m_iFifo = open(m_strFifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        const int iCapacity = fcntl(m_iFifo, F_SETPIPE_SZ, 4096);
        ASSERT_GT(iCapacity, 0);
        fill(2048);
        CZolLogTask::instance()->writeLog();
        fill(2 * static_cast<size_t>(iCapacity));
        oWriter = std::thread([] { CZolLogTask::instance()->writeLog(); });
        EXPECT_TRUE(waitUntil([&] { return waiting() == iCapacity; }));
    }

    /// Reads the pipe until oWriter goes on, and takes it out of the ring.
    void flow(std::thread &oWriter)
    {
        unlink(m_strFifo.c_str());
        std::atomic<bool> bDone{false};
        std::thread oReader(
            [&]
            {
                char acBytes[4096];
                while (!bDone)
                {
                    std::this_thread::yield();
                    (void)!read(m_iFifo, acBytes, sizeof acBytes);
                }
            });
        oWriter.join();
        bDone = true;
        oReader.join();
        close(m_iFifo);
    }

private:
    static void fill(size_t uiBytes)
    {
        const std::string strLine(99, '.');
        for (size_t uiDone = 0; uiDone < uiBytes; uiDone += strLine.size())
        {
            CZolRunLog::error(strLine.c_str());
        }
    }
    int waiting() const
    {
        int iBytes = 0;
        ioctl(m_iFifo, FIONREAD, &iBytes);
        return iBytes;
    }

    const std::string m_strFifo = m_oInstallation.logFolder() + "/task_1.log";
    int m_iFifo = -1;
};

} // namespace

// Many senders, many threads, many tasks: no task is ever run by two threads, and each sender's messages for a task
// arrive in its order.
TEST_F(DispatchTest, KeepsTheOrderOfEachTaskOnFourThreads)
{
    constexpr unsigned int TASKS = 8, SENDERS = 3, MESSAGES = 4000;
    struct STaskState
    {
        std::atomic<int> m_iInside{0};
        std::map<unsigned int, unsigned int> m_oNext; // sender -> number expected next
    };
    STaskState aStates[TASKS + 1];
    std::atomic<unsigned int> uiSeen{0}, uiFaults{0};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 4));
    for (unsigned short usTask = 1; usTask <= TASKS; ++usTask)
    {
        STaskState &oState = aStates[usTask];
        ASSERT_EQ(ZOL_OK, poMgr->addStaticTask(new CScriptedTask(
                                                   [&](CZolTask &, const CZolMsgPdu &oMsg)
                                                   {
                                                       if (++oState.m_iInside != 1)
                                                       {
                                                           ++uiFaults;
                                                       }
                                                       if (oState.m_oNext[oMsg.m_usSrcSubModuleId]++ != oMsg.m_ulCmdID)
                                                       {
                                                           ++uiFaults;
                                                       }
                                                       --oState.m_iInside;
                                                       ++uiSeen;
                                                   }),
                                               usTask));
    }
    start();
    std::vector<std::thread> oSenders;
    for (unsigned short usSender = 0; usSender < SENDERS; ++usSender)
    {
        oSenders.emplace_back(
            [usSender]
            {
                for (unsigned int uiNumber = 0; uiNumber < MESSAGES; ++uiNumber)
                {
                    for (unsigned short usTask = 1; usTask <= TASKS; ++usTask)
                    {
                        CZolMsgPdu *poMsg = makeRequest(MANAGER, usTask, uiNumber);
                        poMsg->m_usSrcSubModuleId = usSender;
                        sendLocal(poMsg);
                    }
                }
            });
    }
    for (auto &oSender : oSenders)
    {
        oSender.join();
    }
    EXPECT_TRUE(waitUntil([&] { return uiSeen == TASKS * SENDERS * MESSAGES; }));
    EXPECT_EQ(0U, uiFaults);
    EXPECT_EQ(0U, poMgr->getLengthOfBufferMsg());
    EXPECT_EQ(0U, poMgr->getBytesOfBufferMsg());
}

TEST_F(DispatchTest, GivesMessagesForABusyTaskToTheThreadThatRunsIt)
{
    CGate oGate;
    CTrace oTrace;
    std::atomic<bool> bSameThread{true};
    std::thread::id oFirst;
    auto *poMgr = add(new CScriptedMgr(MANAGER, 2));
    poMgr->addStaticTask(new CScriptedTask(
                             [&](CZolTask &, const CZolMsgPdu &oMsg)
                             {
                                 if (oMsg.m_ulCmdID == 0)
                                 {
                                     oFirst = std::this_thread::get_id();
                                     oGate.pass();
                                 }
                                 bSameThread = bSameThread && oFirst == std::this_thread::get_id();
                                 oTrace.add(std::to_string(oMsg.m_ulCmdID));
                             }),
                         1);
    poMgr->addStaticTask(new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { oTrace.add("other"); }), 2);
    start();
    sendLocal(makeRequest(MANAGER, 1, 0));
    ASSERT_TRUE(oGate.waitForGuests(1));
    sendLocal(makeRequest(MANAGER, 1, 1));
    sendLocal(makeMsg(CZolMsgPdu::MSG_SUBSCRIBE, MANAGER, 1, 99)); // buffered, and given up without being handled
    sendLocal(makeRequest(MANAGER, 1, 2));
    sendLocal(makeRequest(MANAGER, 2, 0));
    ASSERT_TRUE(oTrace.waitForCount(1)) << "another task must not wait for the busy one";
    oGate.open();
    ASSERT_TRUE(oTrace.waitForCount(4));
    EXPECT_EQ((std::vector<std::string>{"other", "0", "1", "2"}), oTrace.events());
    EXPECT_TRUE(bSameThread);
}

// One thread that is busy: what has not been taken stands in the queue, and counts there.
TEST_F(DispatchTest, CountsWhatStandsInTheQueue)
{
    CGate oGate;
    std::atomic<int> iSeen{0};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1));
    poMgr->addStaticTask(new CScriptedTask(
                             [&](CZolTask &, const CZolMsgPdu &oMsg)
                             {
                                 if (oMsg.m_ulCmdID == 0)
                                 {
                                     oGate.pass();
                                 }
                                 ++iSeen;
                             }),
                         1);
    for (unsigned int uiCmd = 0; uiCmd < 5; ++uiCmd) // all five before a thread looks
    {
        EXPECT_EQ(ZOL_OK,
                  poMgr->enqueueMsg(zolBlockOf(makeMsg(CZolMsgPdu::MSG_REQUEST, MANAGER, 1, uiCmd, "12345")), true));
    }
    EXPECT_EQ(5U, poMgr->getLengthOfBufferMsg());
    EXPECT_EQ(5U * 33, poMgr->getBytesOfBufferMsg());
    EXPECT_EQ(g_ulQueueSize, poMgr->getLengthOfMsgQueue());
    start();
    ASSERT_TRUE(oGate.waitForGuests(1));
    EXPECT_EQ(4U, poMgr->getLengthOfBufferMsg());
    EXPECT_EQ(4U * 33, poMgr->getBytesOfBufferMsg());
    sendLocal(makeRequest(MANAGER, 1, 5));
    EXPECT_EQ(5U, poMgr->getLengthOfBufferMsg());
    EXPECT_EQ(4U * 33 + 28, poMgr->getBytesOfBufferMsg());
    oGate.open();
    EXPECT_TRUE(waitUntil([&] { return iSeen == 6; }));
    EXPECT_EQ(0U, poMgr->getLengthOfBufferMsg());
    EXPECT_EQ(0U, poMgr->getBytesOfBufferMsg());
}

TEST_F(DispatchTest, RefusesNullInEitherView)
{
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1));
    EXPECT_EQ(ZOL_ERR_FAILED, poMgr->enqueueMsg(nullptr, true));
    EXPECT_EQ(ZOL_ERR_FAILED, poMgr->enqueueMsg(zolBlockOf(nullptr), true));
    EXPECT_EQ(0U, poMgr->getLengthOfBufferMsg());
}

// Messages that no task can take are given up with a line, and change nothing.
TEST_F(DispatchTest, DropsWhatNoTaskCanTake)
{
    std::atomic<int> iSeen{0};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 2));
    poMgr->addStaticTask(new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { ++iSeen; }), 1);
    start();
    sendLocal(makeRequest(MANAGER, 40, 501));
    sendLocal(makeRequest(MANAGER, 0, 502));
    sendLocal(makeMsg(CZolMsgPdu::MSG_SUBSCRIBE, MANAGER, 1, 503));
    sendLocal(makeMsg(CZolMsgPdu::MSG_TASK_EXIT, MANAGER, 1, 504)); // the task has not ended
    sendLocal(makeRequest(MANAGER, 1, 505));
    EXPECT_TRUE(waitUntil([&] { return iSeen == 1; }));
    EXPECT_TRUE(logged("CZolTaskMgr::existTaskMsg task id not found when process message, src: 9,0,77,5, dst:1,40, "
                       "cmd:501\n"));
    EXPECT_TRUE(logged("CZolTaskMgr::unknownTaskMsg createTask() return NULL when process message, src: 9,0,77,5, "
                       "dst:1,0, cmd:502\n"));
    EXPECT_TRUE(logged("CZolTaskMgr::existTaskMsg invalid message type, src: 9,0,77,5, dst:1,1, type: 11, cmd: 503\n"));
    EXPECT_TRUE(logged("type: 10, cmd: 504\n"));
    EXPECT_EQ(1, iSeen);
    EXPECT_EQ(TASK_IDLE, poMgr->findTask(1)->getTaskStatus());
}

// The dispatcher writes its line while the disk stalls: it holds up its own thread, and no other of the manager.
TEST_F(StalledLogTest, HoldsUpTheThreadThatLogsAndNoOther)
{
    constexpr unsigned int ROUNDS = 1000;
    std::atomic<unsigned int> uiSeen{0};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 2));
    for (unsigned short usTask = 1; usTask <= 2; ++usTask)
    {
        const auto fnPass = [&, usTask](CZolTask &, const CZolMsgPdu &)
        {
            if (++uiSeen < ROUNDS)
            {
                sendLocal(makeRequest(MANAGER, static_cast<unsigned short>(3 - usTask), 1));
            }
        };
        ASSERT_EQ(ZOL_OK, poMgr->addStaticTask(new CScriptedTask(fnPass), usTask));
    }
    start();
    CZolRunLog::logLevel(CZolRunLog::LEVEL_WARNING);
    std::thread oWriter;
    stall(oWriter);
    sendLocal(makeRequest(MANAGER, 9, 7)); // nobody's
    sendLocal(makeRequest(MANAGER, 1, 1));
    EXPECT_TRUE(waitUntil([&] { return uiSeen == ROUNDS; }));
    flow(oWriter);
    EXPECT_TRUE(
        logged("CZolTaskMgr::existTaskMsg task id not found when process message, src: 9,0,77,5, dst:1,9, cmd:7\n"));
}

TEST_F(DispatchTest, WritesTheLifeOfATaskToTheLog)
{
    std::atomic<int> iAlive{0};
    add(new CScriptedMgr(MANAGER, 1,
                         [&](CZolMsgPdu *)
                         {
                             return new CScriptedTask([](CZolTask &oTask, const CZolMsgPdu &oMsg)
                                                      { oMsg.m_ulCmdID == 2 ? oTask.exitTask() : void(); },
                                                      &iAlive);
                         }));
    start();
    sendLocal(makeRequest(MANAGER, 0, 1));
    sendLocal(makeRequest(MANAGER, 33, 2));
    EXPECT_TRUE(waitUntil([&] { return iAlive == 0; }));
    ASSERT_TRUE(logged("CZolTaskMgr::delTask taskmgr 1 task 33 has been deleted\n"));
    const std::string strLog = m_oInstallation.logText();
    size_t uiAt = 0;
    for (const char *pcLine : {
             "CZolTaskMgr::unknownTaskMsg taskmgr 1 create task 33, task 33 become TASK_EXEC\n",
             "CZolTaskMgr::unknownTaskMsg taskmgr 1 task 33 process msg begin, cmd:1\n",
             "CZolTaskMgr::unknownTaskMsg taskmgr 1 task 33 process msg end, cmd:1\n",
             "CZolTaskMgr::processTaskMsg taskmgr 1 task 33 become TASK_IDLE\n",
             "CZolTaskMgr::existTaskMsg taskmgr 1 task 33 become TASK_EXEC\n",
             "CZolTaskMgr::processTaskMsg taskmgr 1 task 33 process msg begin, cmd:2\n",
             "CZolTaskMgr::processTaskMsg taskmgr 1 task 33 process msg end, cmd:2\n",
         })
    {
        const size_t uiFound = strLog.find(pcLine, uiAt);
        EXPECT_NE(std::string::npos, uiFound) << pcLine;
        uiAt = uiFound == std::string::npos ? uiAt : uiFound;
    }
}

// A timer message carries the id at the place where the header says that the payload begins.
TEST_F(DispatchTest, ReadsTheTimerIdAndNothingBehindTheMessage)
{
    CTrace oTrace;
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1));
    auto *poTask = new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { oTrace.add("message"); });
    poTask->m_fnTimer = [&](unsigned long ulID) { oTrace.add(std::to_string(ulID)); };
    poMgr->addStaticTask(poTask, 1);
    start();
    const unsigned int uiID = 0xFFFFFFFEU;
    sendLocal(makeMsg(CZolMsgPdu::MSG_TIMER, MANAGER, 1, 0, std::string(reinterpret_cast<const char *>(&uiID), 4)));
    sendLocal(makeMsg(CZolMsgPdu::MSG_TIMER, MANAGER, 1, 0, "abc")); // too short: dropped
    sendLocal(makeMsg(CZolMsgPdu::MSG_TIMER, MANAGER, 1, 0));
    sendLocal(makeRequest(MANAGER, 1, 1));
    ASSERT_TRUE(oTrace.waitForCount(2));
    EXPECT_EQ((std::vector<std::string>{"4294967294", "message"}), oTrace.events());
}

// ---- Adding tasks ---------------------------------------------------------------------------------------------------

TEST_F(DispatchTest, AddsStaticTasksUnderFreeIdsOnly)
{
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1));
    const struct
    {
        unsigned short usID;
        int iResult;
    } aCases[] = {{0, ZOL_ERR_FAILED}, {33, ZOL_ERR_FAILED}, {65535, ZOL_ERR_FAILED}, {1, ZOL_OK},
                  {32, ZOL_OK},        {32, ZOL_ERR_FAILED}, {1, ZOL_ERR_FAILED}};
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.usID);
        auto *poTask = new CZolTask;
        EXPECT_EQ(oCase.iResult, poMgr->addStaticTask(poTask, oCase.usID));
        if (oCase.iResult != ZOL_OK)
        {
            EXPECT_EQ(0, poTask->getTaskID());
            delete poTask; // still the caller's
        }
    }
    EXPECT_EQ(ZOL_ERR_FAILED, poMgr->addAssistTask(poMgr->findTask(1), false)) << "added already";
    EXPECT_EQ(TASK_IDLE, poMgr->findTask(1)->getTaskStatus());
    EXPECT_EQ(TASK_STATIC, poMgr->findTask(1)->getTaskType());
    EXPECT_EQ(ZOL_ERR_FAILED, poMgr->addStaticTask(nullptr, 2));
    EXPECT_EQ(ZOL_ERR_FAILED, poMgr->addAssistTask(nullptr, true));
    EXPECT_TRUE(logged("CZolTaskMgr::addStaticTask invalid parameter, invalid task id\n"));
    EXPECT_TRUE(logged("CZolTaskMgr::addStaticTask acquire task id failed!\n"));
}

TEST_F(DispatchTest, ServesAnIdleAssistTaskAndLeavesTheOtherKindAlone)
{
    std::atomic<int> iServed{0}, iLeft{0};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1));
    auto *poIdle = new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { ++iServed; });
    auto *poDriven = new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { ++iLeft; });
    ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poIdle, true));
    ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poDriven, false));
    EXPECT_EQ(33, poIdle->getTaskID());
    EXPECT_EQ(34, poDriven->getTaskID());
    start();
    sendLocal(makeRequest(MANAGER, 34, 7));
    sendLocal(makeRequest(MANAGER, 33, 0));
    EXPECT_TRUE(waitUntil([&] { return iServed == 1; }));
    EXPECT_EQ(0, iLeft);
    CZolMsgPdu *poMsg = poDriven->popFrontZolMsg();
    ASSERT_NE(nullptr, poMsg);
    EXPECT_EQ(7U, poMsg->m_ulCmdID);
    delete poMsg;
    EXPECT_EQ(nullptr, poDriven->popFrontZolMsg());
    poDriven->exitTask();
    EXPECT_EQ(nullptr, poMgr->findTask(34));
}

TEST_F(DispatchTest, HandsIdsOutInARingAndRefusesWhenAllAreInUse)
{
    CZolRunLog::logLevel(CZolRunLog::LEVEL_ERROR);
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1, [](CZolMsgPdu *) { return new CScriptedTask; }));
    std::vector<CZolTask *> oTasks;
    for (unsigned int uiID = 33; uiID <= 60000; ++uiID)
    {
        oTasks.push_back(new CZolTask);
        ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(oTasks.back(), true));
        ASSERT_EQ(uiID, oTasks.back()->getTaskID());
    }
    auto *poOneMore = new CZolTask;
    EXPECT_EQ(ZOL_ERR_FAILED, poMgr->addAssistTask(poOneMore, true));
    start();
    sendLocal(makeRequest(MANAGER, 0, 600)); // createTask gives one, but there is no id for it
    EXPECT_TRUE(logged("CZolTaskMgr::unknownTaskMsg acquire task id failed when process message, src: 9,0,77,5, "
                       "dst:1,0, cmd:600\n"));
    EXPECT_TRUE(logged("CZolTaskMgr::acquireTaskID cannot find a free task id!\n"));

    for (const unsigned int uiFreed : {5000U, 60000U, 200U})
    {
        oTasks[uiFreed - 33]->exitTask();
        EXPECT_EQ(ZOL_OK, poMgr->addAssistTask(poOneMore, true));
        EXPECT_EQ(uiFreed, poOneMore->getTaskID());
        oTasks[uiFreed - 33] = poOneMore;
        poOneMore = new CZolTask;
    }
    delete poOneMore;
}

TEST_F(DispatchTest, TakesAFreedIdUpAgainOnlyAfterTheRingHasComeRound)
{
    CZolRunLog::logLevel(CZolRunLog::LEVEL_ERROR);
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1));
    auto *poStays = new CZolTask;
    ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poStays, true)); // holds 33
    for (unsigned int uiID = 34; uiID <= 60000; ++uiID)
    {
        auto *poTask = new CZolTask;
        ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poTask, true));
        ASSERT_EQ(uiID, poTask->getTaskID());
        poTask->exitTask();
    }
    auto *poTask = new CZolTask;
    ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poTask, true));
    EXPECT_EQ(34, poTask->getTaskID()) << "33 is in use";
}

#ifndef ZOL_SANITIZED
// A process keeps tens of thousands of idle tasks: each may cost 400 bytes with all that belongs to it.
TEST_F(DispatchTest, KeepsAnIdleTaskInFourHundredBytes)
{
    constexpr size_t TASKS = 20000;
    CZolRunLog::logLevel(CZolRunLog::LEVEL_ERROR);
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1));
    poMgr->addAssistTask(new CZolTask, true); // pages of the table that every manager has are not counted
    const size_t uiBefore = mallinfo2().uordblks;
    for (size_t uiTask = 0; uiTask < TASKS; ++uiTask)
    {
        ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(new CZolTask, true));
    }
    EXPECT_LE((mallinfo2().uordblks - uiBefore) / TASKS, 400U);
}
#endif

// ---- Ending tasks ---------------------------------------------------------------------------------------------------

TEST_F(DispatchTest, DeletesATaskThatEndsInItsHandlerWithWhatWaitsForIt)
{
    CGate oGate;
    std::atomic<int> iAlive{0}, iHandled{0};
    add(new CScriptedMgr(MANAGER, 2,
                         [&](CZolMsgPdu *)
                         {
                             return new CScriptedTask(
                                 [&](CZolTask &oTask, const CZolMsgPdu &)
                                 {
                                     ++iHandled;
                                     oGate.pass();
                                     EXPECT_EQ(&oTask, app().getCurrentTask());
                                     oTask.exitTask();
                                     EXPECT_EQ(TASK_EXIT, oTask.getTaskStatus());
                                 },
                                 &iAlive);
                         }));
    start();
    sendLocal(makeRequest(MANAGER, 0, 1));
    ASSERT_TRUE(oGate.waitForGuests(1));
    sendLocal(makeRequest(MANAGER, 33, 2)); // buffered
    EXPECT_TRUE(waitUntil([] { return app().findTaskMgr(MANAGER)->getLengthOfBufferMsg() == 0; }));
    oGate.open();
    EXPECT_TRUE(waitUntil([&] { return iAlive == 0; }));
    EXPECT_EQ(1, iHandled);
    EXPECT_EQ(1U, statistics().m_ulDroppedTaskEnded);
}

TEST_F(DispatchTest, RefusesOtherStatesAndStaticTasks)
{
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1));
    auto *poStatic = new CZolTask;
    auto *poAssist = new CZolTask;
    ASSERT_EQ(ZOL_OK, poMgr->addStaticTask(poStatic, 1));
    ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poAssist, true));
    for (const auto eState : {TASK_IDLE, TASK_EXEC, TASK_SYNWAIT, TASK_NONZOLWAIT})
    {
        EXPECT_EQ(ZOL_ERR_FAILED, poAssist->setTaskStatus(eState));
    }
    EXPECT_EQ(TASK_IDLE, poAssist->getTaskStatus());
    EXPECT_EQ(ZOL_ERR_FAILED, poStatic->setTaskStatus(TASK_EXIT));
    poStatic->exitTask();
    EXPECT_EQ(TASK_IDLE, poStatic->getTaskStatus());
    CZolTask oAdded;
    EXPECT_EQ(ZOL_ERR_FAILED, oAdded.setTaskStatus(TASK_EXIT));
    EXPECT_EQ(TASK_IDLE, oAdded.getTaskStatus());
}

// An assist task that somebody else ends while a thread runs it must outlive its handler.
TEST_F(DispatchTest, DeletesARunningAssistTaskOnlyAfterItsHandler)
{
    CGate oGate;
    std::atomic<int> iAlive{0};
    std::atomic<bool> bIntact{false};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 2));
    auto *poTask = new CScriptedTask(
        [&](CZolTask &oTask, const CZolMsgPdu &)
        {
            oGate.pass();
            bIntact = iAlive == 1 && oTask.getTaskStatus() == TASK_EXIT;
        },
        &iAlive);
    ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poTask, true));
    start();
    sendLocal(makeRequest(MANAGER, 33, 1));
    ASSERT_TRUE(oGate.waitForGuests(1));
    EXPECT_EQ(ZOL_OK, poTask->setTaskStatus(TASK_EXIT));
    EXPECT_EQ(1, iAlive);
    sendLocal(makeMsg(CZolMsgPdu::MSG_TASK_EXIT, MANAGER, 33, 0)); // the other thread must keep its hands off
    EXPECT_TRUE(waitUntil([&] { return poMgr->getLengthOfBufferMsg() == 0; }));
    oGate.open();
    EXPECT_TRUE(waitUntil([&] { return iAlive == 0; }));
    EXPECT_TRUE(bIntact);
}

TEST_F(DispatchTest, KeepsAnIdleDynamicTaskThatSomebodyEndsUntilTheMessageThatDeletesIt)
{
    std::atomic<int> iAlive{0}, iHandled{0};
    auto *poMgr = add(new CScriptedMgr(
        MANAGER, 1,
        [&](CZolMsgPdu *) { return new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { ++iHandled; }, &iAlive); }));
    poMgr->addStaticTask(new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { ++iHandled; }), 1);
    start();
    sendLocal(makeRequest(MANAGER, 0, 1));
    ASSERT_TRUE(
        waitUntil([&] { return poMgr->findTask(33) != nullptr && poMgr->findTask(33)->getTaskStatus() == TASK_IDLE; }));
    EXPECT_EQ(ZOL_OK, poMgr->findTask(33)->setTaskStatus(TASK_EXIT));
    sendLocal(makeRequest(MANAGER, 33, 2));
    sendLocal(makeRequest(MANAGER, 1, 3));
    EXPECT_TRUE(waitUntil([&] { return iHandled == 2; }));
    EXPECT_EQ(1, iAlive);
    sendLocal(makeMsg(CZolMsgPdu::MSG_TASK_EXIT, MANAGER, 33, 0));
    EXPECT_TRUE(waitUntil([&] { return iAlive == 0; }));
    EXPECT_EQ(2, iHandled);
    EXPECT_EQ(nullptr, poMgr->findTask(33));
}

// The same task is told to go by several messages at once, on several threads: it goes once.
TEST_F(DispatchTest, DeletesOnceWhenSeveralMessagesAskForIt)
{
    constexpr int TASKS = 300;
    std::atomic<int> iAlive{0};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 4, [&](CZolMsgPdu *) { return new CScriptedTask(nullptr, &iAlive); }));
    start();
    for (int iTask = 0; iTask < TASKS; ++iTask)
    {
        sendLocal(makeRequest(MANAGER, 0, 1));
    }
    ASSERT_TRUE(waitUntil(
        [&]
        {
            int iIdle = 0;
            for (unsigned short usID = 33; usID < 33 + TASKS; ++usID)
            {
                CZolTask *poTask = poMgr->findTask(usID);
                iIdle += poTask != nullptr && poTask->getTaskStatus() == TASK_IDLE ? 1 : 0;
            }
            return iIdle == TASKS;
        }));
    for (unsigned short usID = 33; usID < 33 + TASKS; ++usID)
    {
        poMgr->findTask(usID)->exitTask();
        for (int iCopy = 0; iCopy < 4; ++iCopy)
        {
            sendLocal(makeMsg(CZolMsgPdu::MSG_TASK_EXIT, MANAGER, usID, 0));
        }
    }
    EXPECT_TRUE(waitUntil([&] { return iAlive == 0 && poMgr->getLengthOfBufferMsg() == 0; }));
}

// Tasks are ended from outside just when a message comes: it is handled, or counted as lost.
TEST_F(DispatchTest, CountsWhatAForeignExitLeavesUnhandled)
{
    constexpr unsigned int ROUNDS = 2000;
    CZolRunLog::logLevel(CZolRunLog::LEVEL_OFF);
    std::atomic<int> iAlive{0};
    std::atomic<unsigned int> uiHandled{0};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 2));
    start();
    for (unsigned int uiRound = 0; uiRound < ROUNDS; ++uiRound)
    {
        const unsigned int uiBefore = uiHandled;
        auto *poTask = new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { ++uiHandled; }, &iAlive);
        ASSERT_EQ(ZOL_OK, poMgr->addAssistTask(poTask, true));
        sendLocal(makeRequest(MANAGER, poTask->getTaskID(), uiRound));
        sendLocal(makeRequest(MANAGER, poTask->getTaskID(), uiRound));
        while (poTask->getTaskStatus() == TASK_IDLE && uiHandled == uiBefore)
        {
        }
        poTask->exitTask();
    }
    const auto fnLost = [] { return statistics().m_ulDroppedNoTask + statistics().m_ulDroppedTaskEnded; };
    EXPECT_TRUE(waitUntil([&] { return iAlive == 0 && uiHandled + fnLost() == 2 * ROUNDS; }))
        << uiHandled << " handled, " << fnLost() << " lost";
}

// Tasks end while others end them from outside: whoever comes second must find them whole or gone.
TEST_F(DispatchTest, SurvivesForeignExitsOfTasksThatEndThemselves)
{
    constexpr unsigned int ROUNDS = 500;
    CZolRunLog::logLevel(CZolRunLog::LEVEL_ERROR);
    std::atomic<int> iAlive{0};
    std::atomic<CZolTask *> poOpen{nullptr}; // a task that waits for the test, inside its handler
    add(new CScriptedMgr(MANAGER, 2,
                         [&](CZolMsgPdu *)
                         {
                             return new CScriptedTask(
                                 [&](CZolTask &oTask, const CZolMsgPdu &)
                                 {
                                     poOpen = &oTask;
                                     while (oTask.getTaskStatus() != TASK_EXIT)
                                     {
                                         std::this_thread::yield();
                                     }
                                 },
                                 &iAlive);
                         }));
    start();
    for (unsigned int uiRound = 0; uiRound < ROUNDS; ++uiRound)
    {
        sendLocal(makeRequest(MANAGER, 0, uiRound));
        ASSERT_TRUE(waitUntil([&] { return poOpen != nullptr; }));
        poOpen.exchange(nullptr)->exitTask(); // the handler leaves, and the task is deleted, as soon as this shows
    }
    EXPECT_TRUE(waitUntil([&] { return iAlive == 0; }));
}

// ---- Handlers that throw --------------------------------------------------------------------------------------------

TEST_F(DispatchTest, StopsWhatHandlersThrow)
{
    std::atomic<int> iAlive{0}, iHandled{0};
    const auto fnThrow = [&](CZolTask &, const CZolMsgPdu &oMsg)
    {
        ++iHandled;
        if (oMsg.m_ulCmdID == 1)
        {
            throw std::runtime_error("the fuse has blown");
        }
        if (oMsg.m_ulCmdID == 2)
        {
            throw 42; // NOLINT: this is what is tested
        }
    };
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1,
                                       [&](CZolMsgPdu *poMsg) -> CZolTask *
                                       {
                                           if (poMsg->m_ulCmdID == 3)
                                           {
                                               throw std::logic_error("no such thing");
                                           }
                                           return new CScriptedTask(fnThrow, &iAlive);
                                       }));
    poMgr->addStaticTask(new CScriptedTask(fnThrow), 1);
    auto *poAssist = new CScriptedTask(fnThrow, &iAlive);
    poMgr->addAssistTask(poAssist, true);
    start();
    for (const unsigned int uiCmd : {1U, 2U, 9U, 1U, 9U}) // a static task goes on, and is idle at the end
    {
        sendLocal(makeRequest(MANAGER, 1, uiCmd));
    }
    EXPECT_TRUE(waitUntil([&] { return iHandled == 5; }));
    EXPECT_TRUE(waitUntil([&] { return poMgr->findTask(1)->getTaskStatus() == TASK_IDLE; }));
    sendLocal(makeRequest(MANAGER, 33, 2));
    EXPECT_TRUE(waitUntil([&] { return iAlive == 0; })) << "an assist task that throws ends";
    sendLocal(makeRequest(MANAGER, 0, 3));
    sendLocal(makeRequest(MANAGER, 0, 1));
    EXPECT_TRUE(waitUntil([&] { return iHandled == 7 && iAlive == 0; })) << "a dynamic task that throws ends";
    EXPECT_TRUE(logged("taskmgr 1 task 1 has thrown, cmd:1, what: the fuse has blown\n"));
    EXPECT_TRUE(logged("taskmgr 1 task 33 has thrown, cmd:2, what: not a std::exception\n"));
    EXPECT_TRUE(logged("taskmgr 1 task 0 has thrown, cmd:3, what: no such thing\n"));
    EXPECT_EQ(0U, countOf(m_oInstallation.logText(), "createTask() return NULL")) << "one failure, one line";
}

// ---- What a thread knows of itself ----------------------------------------------------------------------------------

TEST_F(DispatchTest, KnowsTheTaskOfAThread)
{
    CGate oGate;
    std::atomic<unsigned long> ulThread{0};
    std::atomic<const CZolTask *> poCurrent{nullptr};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 2));
    auto *poTask = new CScriptedTask(
        [&](CZolTask &, const CZolMsgPdu &)
        {
            poCurrent = app().getCurrentTask();
            ulThread = ACE_Thread::self();
            oGate.pass();
        });
    poMgr->addStaticTask(poTask, 1);
    EXPECT_EQ(nullptr, poMgr->findTaskOfThread(ACE_Thread::self())) << "no threads yet";
    std::thread oEnder(
        [&]
        {
            while (app().getStatus() == APPMGR_INITIAL) // an end looks at the threads, which are being started
            {
                auto *poAssist = new CZolTask;
                EXPECT_EQ(ZOL_OK, poMgr->addAssistTask(poAssist, true));
                poAssist->exitTask();
            }
        });
    start();
    oEnder.join();
    sendLocal(makeRequest(MANAGER, 1, 1));
    ASSERT_TRUE(oGate.waitForGuests(1));
    EXPECT_EQ(poTask, poCurrent);
    EXPECT_EQ(poTask, poMgr->findTaskOfThread(ulThread));
    EXPECT_EQ(nullptr, poMgr->findTaskOfThread(ACE_Thread::self()));
    EXPECT_EQ(nullptr, app().getCurrentTask());
    EXPECT_EQ(nullptr, app().findTaskMgr(254)->findTaskOfThread(ulThread));
    oGate.open();
    EXPECT_TRUE(waitUntil([&] { return poMgr->findTaskOfThread(ulThread) == nullptr; }));
}

TEST_F(DispatchTest, NamesAHandlerThatRunsTooLongOnce)
{
    CGate oGate;
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1));
    poMgr->addStaticTask(new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { oGate.pass(); }), 1);
    start();
    poMgr->warnOfLongHandlers(1000, 50);
    poMgr->warnOfLongHandlers(2000, 50); // nothing runs
    sendLocal(makeRequest(MANAGER, 1, 77));
    ASSERT_TRUE(oGate.waitForGuests(1));
    for (const unsigned int uiNow : {3000U, 3049U, 3050U, 3100U, 9000U})
    {
        poMgr->warnOfLongHandlers(uiNow, 50);
    }
    EXPECT_TRUE(logged("taskmgr 1 task 1 handler runs for more than 50 ms, cmd:77\n"));
    EXPECT_EQ(1U, countOf(m_oInstallation.logText(), "handler runs for more than"));
    oGate.open();
    EXPECT_TRUE(waitUntil([&] { return poMgr->findTask(1)->getTaskStatus() == TASK_IDLE; }));
}

TEST_F(DispatchTest, DumpsManagersAndTasks)
{
    auto *poMgr = add(new CScriptedMgr(0, 1));
    add(new CScriptedMgr(200, 1));
    poMgr->addStaticTask(new CZolTask, 1);
    poMgr->addAssistTask(new CZolTask, false);
    // the chain of id 33 comes before that of id 1
    EXPECT_EQ("CZolTaskMgr: 0\n    taskid = 33, status = 1, type = 2\n    taskid = 1, status = 0, type = 1\n",
              poMgr->dumpAllTask());
    EXPECT_EQ("=== Zolvane Memory Dump ===\n\nCZolTaskMgr: 254\n\n" + poMgr->dumpAllTask() + "\nCZolTaskMgr: 200\n",
              app().dumpAllTaskMgr());
}
