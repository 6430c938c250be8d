// Start and end of the process, its registry of task managers, and calls of the initial stage.

#include "support/RawGateway.h"
#include "task/TaskFixture.h"
#include "task/ZolSigHandler.h"

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>
#include <ace/Thread_Manager.h>
#include <csignal>
#include <fcntl.h>
#include <map>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zoltest;

namespace
{

using Pdu = std::unique_ptr<CZolMsgPdu>;

class AppMgrTest : public CTaskTest
{
};

/// What fnBody writes to standard output past the buffers of this process.
std::string outputOf(const std::function<void()> &fnBody)
{
    testing::internal::CaptureStdout();
    fnBody();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

} // namespace

// ---- Stages ---------------------------------------------------------------------------------------------------------

TEST(AppMgrStageTest, RefusesEverythingBeforeTheStart)
{
    CZolAppMgr &oApp = *CZolAppMgr::instance();
    EXPECT_EQ(APPMGR_UNINITIALIZED, oApp.getStatus());
    CScriptedMgr oMgr(1, 1);
    EXPECT_EQ("CZolAppMgr not initialized!", outputOf([&] { EXPECT_EQ(ZOL_ERR_STAGE, oApp.addTaskMgr(&oMgr)); }));
    EXPECT_EQ("handleEvents() can only be called at initial stage!\n", outputOf([&] { oApp.handleEvents(); }));

    CZolMsgPdu *poMsg = makeRequest(1, 1, 1);
    EXPECT_EQ("CZolAppMgr not initialized!",
              outputOf([&] { EXPECT_EQ(ZOL_ERR_STAGE, oApp.sendLocalAsynMsg(poMsg, 1)); }));
    EXPECT_EQ(nullptr, poMsg);
    for (CZolMsgPdu *poEither : {makeRequest(1, 1, 1), static_cast<CZolMsgPdu *>(nullptr)})
    {
        EXPECT_EQ("CZolAppMgr not initialized!\n",
                  outputOf([&] { EXPECT_EQ(ZOL_ERR_STAGE, oApp.sendAsynMsg(poEither)); }));
    }
    CZolMsgPdu *poRequest = makeRequest(1, 1, 1);
    CZolMsgPdu *poResponse = poRequest;
    EXPECT_EQ("CZolAppMgr not initialized!\n",
              outputOf([&] { EXPECT_EQ(ZOL_ERR_STAGE, oApp.sendSynMsg(poRequest, poResponse, 1)); }));
    EXPECT_EQ(nullptr, poRequest);
    EXPECT_EQ(nullptr, poResponse);

    oApp.exitThreads();
    CZolAppMgr::destroy();
    EXPECT_EQ(APPMGR_UNINITIALIZED, oApp.getStatus());
    EXPECT_EQ(nullptr, oApp.getCurrentTask());
    EXPECT_EQ(nullptr, oApp.findTaskMgr(254));
}

TEST_F(AppMgrTest, RefusesSendsThatNeedARunningProcessAtTheInitialStage)
{
    add(new CScriptedMgr(MANAGER, 1));
    EXPECT_EQ(APPMGR_INITIAL, app().getStatus());
    EXPECT_EQ("CZolAppMgr is already initialized!\n",
              outputOf([] { EXPECT_EQ(ZOL_ERR_FAILED, app().initAppMgr(5, 5, false, nullptr, nullptr)); }));
    EXPECT_EQ(PROCESS, app().getProcID());
    EXPECT_EQ(0, app().getProcHandle());
    EXPECT_EQ(CONN_STATUS_DOWN, app().statusOfConnToVek());

    CZolMsgPdu *poMsg = makeRequest(MANAGER, 1, 1);
    EXPECT_EQ(ZOL_ERR_STAGE, app().sendLocalAsynMsg(poMsg, MANAGER));
    poMsg = makeRequest(MANAGER, 1, 1);
    EXPECT_EQ(ZOL_ERR_STAGE, app().sendAsynMsg(poMsg));
    poMsg = nullptr;
    EXPECT_EQ(ZOL_ERR_STAGE, app().sendLocalAsynMsg(poMsg, MANAGER)) << "the stage is looked at first";
    CZolMsgPdu *poRequest = makeRequest(MANAGER, 1, 1);
    CZolMsgPdu *poResponse = nullptr;
    EXPECT_EQ(ZOL_ERR_INTERRUPTED, app().sendSynMsg(poRequest, poResponse, 1)) << "also to a task of this process";
    EXPECT_EQ(ZOL_ERR_FAILED, app().sendSynMsg(poRequest, poResponse, 1)) << "null";
    EXPECT_TRUE(logged("CZolAppMgr::sendLocalAsynMsg cannot call sendLocalAsynMsg() at initial stage!\n"));
    EXPECT_TRUE(logged("CZolAppMgr::sendSynMsg the connection to vEK is interrupted !\n"));

    app().exitThreads(); // is lost
    EXPECT_EQ(APPMGR_INITIAL, app().getStatus());
}

TEST_F(AppMgrTest, RefusesSendsThatHaveNoWayInTheRunningState)
{
    start();
    CZolMsgPdu *poMsg = makeRequest(99, 1, 1);
    EXPECT_EQ(ZOL_ERR_NO_DEST, app().sendLocalAsynMsg(poMsg, 99));
    EXPECT_EQ(nullptr, poMsg);
    EXPECT_EQ(ZOL_ERR_FAILED, app().sendLocalAsynMsg(poMsg, 99));
    EXPECT_EQ(ZOL_ERR_FAILED, app().sendAsynMsg(poMsg));
    poMsg = makeRequest(1, 1, 1);
    poMsg->m_usDestProcHandle = 3; // another process: id and handle must both be this one's
    EXPECT_EQ(ZOL_ERR_INTERRUPTED, app().sendAsynMsg(poMsg));
    EXPECT_EQ(nullptr, poMsg);
    std::thread([] { app().handleEvents(); }).join(); // comes back at once
    EXPECT_TRUE(logged("CZolAppMgr::handleEvents handleEvents() can be called only once!\n"));

    stop();
    poMsg = makeRequest(1, 1, 1);
    EXPECT_EQ("cannot send message at exit stage!",
              outputOf([&] { EXPECT_EQ(ZOL_ERR_FAILED, app().sendLocalAsynMsg(poMsg, 1)); }));
    poMsg = makeRequest(1, 1, 1);
    EXPECT_EQ("cannot send message at exit stage!\n",
              outputOf([&] { EXPECT_EQ(ZOL_ERR_FAILED, app().sendAsynMsg(poMsg)); }));
    EXPECT_EQ("handleEvents() can only be called at initial stage!\n", outputOf([] { app().handleEvents(); }));
}

TEST_F(AppMgrTest, RegistersManagersByTheirIds)
{
    const struct
    {
        CZolTaskMgr *poMgr;
        int iResult;
    } aCases[] = {{new CZolTaskMgr(0, 1), ZOL_OK},
                  {new CZolTaskMgr(200, 1), ZOL_OK},
                  {new CZolTaskMgr(201, 1), ZOL_ERR_FAILED},
                  {new CZolTaskMgr(254, 1), ZOL_ERR_FAILED},
                  {new CZolTaskMgr(255, 1), ZOL_ERR_FAILED},
                  {new CZolTaskMgr(200, 1), ZOL_ERR_FAILED},
                  {nullptr, ZOL_ERR_FAILED}};
    for (const auto &oCase : aCases)
    {
        EXPECT_EQ(oCase.iResult, app().addTaskMgr(oCase.poMgr));
        if (oCase.iResult != ZOL_OK)
        {
            delete oCase.poMgr; // still the caller's
        }
    }
    EXPECT_EQ(aCases[0].poMgr, app().findTaskMgr(0));
    EXPECT_EQ(aCases[1].poMgr, app().findTaskMgr(200));
    EXPECT_EQ(nullptr, app().findTaskMgr(1));
    EXPECT_EQ(3U, app().taskMgrs().size());
    EXPECT_EQ(254, app().taskMgrs()[0]->getTaskMgrID());
    EXPECT_EQ(3U, g_mapDispatchMutex.size());
}

TEST(AppMgrConfigTest, ClampsTheQueueLimit)
{
    const struct
    {
        const char *pcValue;
        unsigned int uiLimit;
    } aCases[] = {
        {"1000", 26214400}, {"30000000", 30000000}, {"999999999999", 104857600}, {"ten", 52428800}, {"", 52428800}};
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcValue);
        EXPECT_EXIT(
            {
                const CInstallation oInstallation(std::string("ZOLQueueSize=") + oCase.pcValue + "\n");
                CZolAppMgr::instance()->initAppMgr(PROCESS, 0, true, nullptr, nullptr);
                fprintf(stderr, "limit %u\n", g_ulQueueSize.load());
                _exit(0);
            },
            testing::ExitedWithCode(0), "limit " + std::to_string(oCase.uiLimit) + "\n");
    }
}

TEST(AppMgrConfigTest, FailsWithoutAConfiguration)
{
    setenv("ZOLROOT", "/nonexistent", 1);
    EXPECT_EQ(ZOL_ERR_FAILED, CZolAppMgr::instance()->initAppMgr(PROCESS, 0, true, nullptr, nullptr));
    EXPECT_EQ(APPMGR_UNINITIALIZED, CZolAppMgr::instance()->getStatus());
}

// ---- Start ----------------------------------------------------------------------------------------------------------

// Threads are woken by the running state and do not sleep their second out. A busy machine may hold up any one process
// for as long, but not each of so many.
TEST(AppMgrStageTest, ServesSoonAfterTheStart)
{
    const auto fnServe = []
    {
        const CInstallation oInstallation("");
        CZolAppMgr::instance()->initAppMgr(PROCESS, 0, true, nullptr, nullptr);
        static std::atomic<int> s_iSeen{0};
        auto *poMgr = new CScriptedMgr(MANAGER, 3);
        CZolAppMgr::instance()->addTaskMgr(poMgr);
        poMgr->addStaticTask(new CScriptedTask([](CZolTask &, const CZolMsgPdu &) { ++s_iSeen; }), 1);
        poMgr->enqueueMsg(zolBlockOf(makeRequest(MANAGER, 1, 1)), true);
        const auto oTimed = timed(
            []
            {
                std::thread([] { CZolAppMgr::instance()->handleEvents(); }).detach();
                return waitUntil([] { return s_iSeen == 1; }) ? 0 : 1;
            });
        return oTimed.first == 0 && oTimed.second < 0.9;
    };
    bool bSoon = false;
    for (int iTry = 0; iTry < 30 && !bSoon; ++iTry)
    {
        const pid_t iChild = fork();
        ASSERT_GE(iChild, 0);
        if (iChild == 0)
        {
            _exit(fnServe() ? 0 : 1);
        }
        int iStatus = -1;
        ASSERT_EQ(iChild, waitpid(iChild, &iStatus, 0));
        bSoon = iStatus == 0;
    }
    EXPECT_TRUE(bSoon);
}

TEST_F(AppMgrTest, OpensAManagerOnce)
{
    std::atomic<int> iSeen{0};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 3));
    poMgr->addStaticTask(new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { ++iSeen; }), 1);
    poMgr->enqueueMsg(zolBlockOf(makeRequest(MANAGER, 1, 1)), true);
    add(new CScriptedMgr(2, 0)); // no thread: serves nothing and holds nothing up
    start();
    EXPECT_TRUE(waitUntil([&] { return iSeen == 1; }));
    EXPECT_EQ(ZOL_OK, poMgr->open(nullptr)) << "the threads run already";
    EXPECT_EQ(3U, poMgr->thr_count());
}

TEST(AppMgrStageTest, LeavesNoDescriptorToChildren)
{
    const auto fnInherited = []
    {
        std::map<int, std::string> oFound; // descriptor that a child would get -> what it is
        for (int iDescriptor = 3; iDescriptor < 1024; ++iDescriptor)
        {
            const int iFlags = fcntl(iDescriptor, F_GETFD);
            if (iFlags != -1 && (iFlags & FD_CLOEXEC) == 0)
            {
                char acTarget[256] = "";
                const ssize_t iLength =
                    readlink(("/proc/self/fd/" + std::to_string(iDescriptor)).c_str(), acTarget, sizeof acTarget - 1);
                oFound[iDescriptor] = std::string(acTarget, iLength > 0 ? static_cast<size_t>(iLength) : 0);
            }
        }
        return oFound;
    };
    const auto oBefore = fnInherited(); // what the one who started the test has left open
    const CInstallation oInstallation;
    ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->initAppMgr(PROCESS, 0, true, nullptr, nullptr));
    std::thread oLoop([] { CZolAppMgr::instance()->handleEvents(); });
    EXPECT_TRUE(waitUntil([] { return CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING; }));
    EXPECT_EQ(oBefore, fnInherited());
    CZolAppMgr::instance()->exitThreads();
    oLoop.join();
}

// The reactor takes descriptors beyond those that select() can.
TEST_F(AppMgrTest, WatchesHighDescriptors)
{
    rlimit oLimit{};
    getrlimit(RLIMIT_NOFILE, &oLimit);
    if (oLimit.rlim_cur <= 3000)
    {
        GTEST_SKIP() << "the system allows only " << oLimit.rlim_cur << " descriptors";
    }
    class CReader : public ACE_Event_Handler
    {
    public:
        int handle_input(ACE_HANDLE oHandle) override
        {
            char acByte[8];
            m_iRead += static_cast<int>(read(oHandle, acByte, sizeof acByte));
            return 0;
        }
        std::atomic<int> m_iRead{0};
    };
    CReader oReader;
    int aPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, aPair));
    const int iHigh = fcntl(aPair[0], F_DUPFD_CLOEXEC, 2000);
    ASSERT_GE(iHigh, 2000);
    start();
    ASSERT_EQ(0, app().getReactor()->register_handler(iHigh, &oReader, ACE_Event_Handler::READ_MASK));
    ASSERT_EQ(1, write(aPair[1], "x", 1));
    EXPECT_TRUE(waitUntil([&] { return oReader.m_iRead == 1; }));
    app().getReactor()->remove_handler(iHigh, ACE_Event_Handler::READ_MASK | ACE_Event_Handler::DONT_CALL);
    close(iHigh);
    close(aPair[0]);
    close(aPair[1]);
}

// A start that gets only some of its threads leaves none behind, and may be tried again.
TEST_F(AppMgrTest, StartsAfterAStartThatDidNotGetAllThreads)
{
    class CShortOfThreads : public CScriptedMgr
    {
    public:
        using CScriptedMgr::CScriptedMgr;
        int activate(long lFlags, int iThreads, int iForce, long lPriority, int iGroup, ACE_Task_Base *poTask,
                     ACE_hthread_t *pHandles, void **ppStacks, size_t *puiStacks, ACE_thread_t *pulIDs,
                     const char **ppcNames) override
        {
            const int iGiven = m_bShort ? iThreads - 1 : iThreads;
            const int iResult = CScriptedMgr::activate(lFlags, iGiven, iForce, lPriority, iGroup, poTask, pHandles,
                                                       ppStacks, puiStacks, pulIDs, ppcNames);
            if (!m_bShort)
            {
                return iResult;
            }
            m_bShort = false;
            thr_count_ -= static_cast<size_t>(iGiven); // what ACE does; the threads take themselves off, too
            return -1;
        }

    private:
        bool m_bShort = true;
    };
    CGate oGate;
    auto *poMgr = add(new CShortOfThreads(MANAGER, 3));
    for (unsigned short usTask = 1; usTask <= 3; ++usTask)
    {
        poMgr->addStaticTask(new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { oGate.pass(); }), usTask);
    }
    app().handleEvents();
    EXPECT_EQ(APPMGR_INITIAL, app().getStatus());
    EXPECT_EQ(0, ACE_Thread_Manager::instance()->num_threads_in_task(poMgr));
    start();
    for (unsigned short usTask = 1; usTask <= 3; ++usTask)
    {
        sendLocal(makeRequest(MANAGER, usTask, 1));
    }
    EXPECT_TRUE(oGate.waitForGuests(3));
    oGate.open();
}

// ---- End ------------------------------------------------------------------------------------------------------------

TEST_F(AppMgrTest, TakesAllThreadsDownWithOneMessageForEachManager)
{
    add(new CScriptedMgr(MANAGER, 5));
    const std::string strOutput = outputOf(
        [&]
        {
            start();
            stop();
        });
    EXPECT_EQ(5U, countOf(strOutput, "CZolTaskMgr 1, thread "));
    EXPECT_EQ(1U, countOf(strOutput, "CZolTaskMgr 254, thread "));
    EXPECT_EQ(6U, countOf(strOutput, ", svc() exit.\n"));
    EXPECT_EQ(1U, countOf(strOutput, "handleEvents() exit.\n"));
    EXPECT_EQ(1U, app().findTaskMgr(MANAGER)->getLengthOfBufferMsg()) << "the one message goes from thread to thread";
}

TEST_F(AppMgrTest, EndsAtOnceAlsoFromAHandler)
{
    auto *poMgr = add(new CScriptedMgr(MANAGER, 1));
    poMgr->addStaticTask(new CScriptedTask([](CZolTask &, const CZolMsgPdu &) { app().exitThreads(); }), 1);
    start();
    sendLocal(makeRequest(MANAGER, 1, 1));
    m_oLoop.join();
    EXPECT_EQ(APPMGR_EXIT, app().getStatus());
}

// Somebody who ends the loop of the process's reactor does not end the process.
TEST_F(AppMgrTest, GoesOnWhenOnlyTheReactorsLoopIsEnded)
{
    class CCounter : public ACE_Event_Handler
    {
    public:
        int handle_exception(ACE_HANDLE) override
        {
            ++m_iSeen;
            return 0;
        }
        std::atomic<int> m_iSeen{0};
    };
    static CCounter s_oCounter; // some of the wake-ups are still under way when the test ends
    start();
    app().getReactor()->end_reactor_event_loop();
    EXPECT_TRUE(waitUntil(
        [&]
        {
            app().getReactor()->notify(&s_oCounter);
            return s_oCounter.m_iSeen > 0;
        }));
}

TEST(AppMgrSignalTest, EndsOnSignalsInTheRunningStateOnly)
{
    for (const int iSignal : {SIGTERM, SIGINT})
    {
        SCOPED_TRACE(iSignal);
        const CInstallation oInstallation;
        int aOut[2], aErr[2];
        ASSERT_EQ(0, pipe(aOut));
        ASSERT_EQ(0, pipe(aErr));
        const pid_t iChild = fork();
        ASSERT_GE(iChild, 0);
        if (iChild == 0)
        {
            alarm(50);
            dup2(aOut[1], 1);
            dup2(aErr[1], 2);
            CZolAppMgr &oApp = *CZolAppMgr::instance();
            oApp.initAppMgr(PROCESS, 0, true, nullptr, nullptr);
            oApp.addTaskMgr(new CZolTaskMgr(1, 3));
            ::raise(iSignal); // at the initial stage: the line comes, and the process goes on
            std::thread(
                [iSignal]
                {
                    waitUntil([] { return CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING; });
                    kill(getpid(), iSignal);
                })
                .detach();
            oApp.handleEvents();
            fflush(stdout);
            _exit(oApp.getStatus() == APPMGR_EXIT ? 7 : 8);
        }
        close(aOut[1]);
        close(aErr[1]);
        const auto fnRead = [](int iFile)
        {
            std::string strText;
            char acPart[512];
            ssize_t iRead = 0;
            while ((iRead = read(iFile, acPart, sizeof acPart)) > 0)
            {
                strText.append(acPart, static_cast<size_t>(iRead));
            }
            close(iFile);
            return strText;
        };
        const std::string strOutput = fnRead(aOut[0]);
        int iStatus = 0;
        ASSERT_EQ(iChild, waitpid(iChild, &iStatus, 0));
        EXPECT_TRUE(WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 7) << iStatus;
        const std::string strName = iSignal == SIGTERM ? "SIGTERM" : "SIGINT";
        EXPECT_EQ(2U, countOf(strOutput, "CZolSigHandler::handle_signal signal " + strName + "\n"));
        EXPECT_EQ(4U, countOf(strOutput, ", svc() exit.\n"));
        EXPECT_EQ("", fnRead(aErr[0])) << "nothing stray on standard error";
    }
}

TEST(AppMgrSignalTest, NamesSignalsThatItHasNoUseFor)
{
    const std::string strOutput = outputOf(
        []
        {
            for (const int iSignal : {SIGPIPE, SIGUSR1, 0, -2147483647 - 1})
            {
                CZolSigHandler::instance()->handle_signal(iSignal);
            }
        });
    EXPECT_EQ("CZolSigHandler::handle_signal signal SIGPIPE\n"
              "CZolSigHandler::handle_signal unknown signal 10\n"
              "CZolSigHandler::handle_signal unknown signal 0\n"
              "CZolSigHandler::handle_signal unknown signal -2147483648\n",
              strOutput);
}

// Signals in a storm, on whatever thread and whatever lock it holds: the process ends, and ends cleanly.
TEST_F(AppMgrTest, EndsUnderLoadByASignal)
{
    std::atomic<unsigned int> uiSeen{0};
    auto *poMgr = add(new CScriptedMgr(MANAGER, 2));
    for (unsigned short usTask = 1; usTask <= 4; ++usTask)
    {
        poMgr->addStaticTask(new CScriptedTask([&](CZolTask &, const CZolMsgPdu &) { ++uiSeen; }), usTask);
    }
    start();
    std::atomic<bool> bEnd{false};
    std::vector<std::thread> oSenders;
    for (int iSender = 0; iSender < 3; ++iSender)
    {
        oSenders.emplace_back(
            [&]
            {
                for (unsigned short usTask = 1; !bEnd && app().getStatus() == APPMGR_RUNNING; usTask = usTask % 4 + 1)
                {
                    if (poMgr->getLengthOfBufferMsg() < 10000)
                    {
                        sendLocal(makeRequest(MANAGER, usTask, 1));
                    }
                }
            });
    }
    ASSERT_TRUE(waitUntil([&] { return uiSeen > 20000; }));
    kill(getpid(), SIGTERM);
    m_oLoop.join();
    bEnd = true;
    for (auto &oSender : oSenders)
    {
        oSender.join();
    }
    EXPECT_EQ(APPMGR_EXIT, app().getStatus());
}

// ---- Calls of the initial stage -------------------------------------------------------------------------------------

namespace
{

class InitialCallTest : public testing::Test
{
protected:
    InitialCallTest() : m_oInstallation(m_oGateway.config()) {}

    void SetUp() override { ASSERT_EQ(ZOL_OK, app().initAppMgr(PROCESS, 0, true, nullptr, nullptr)); }
    static CZolAppMgr &app() { return *CZolAppMgr::instance(); }

    static int call(int iSeconds, Pdu &oResponse)
    {
        CZolMsgPdu *poRequest = makeRequest(3, 4, 5);
        poRequest->m_usDestProcID = 600;
        CZolMsgPdu *poResponse = nullptr;
        const int iResult = app().sendSynMsg(poRequest, poResponse, iSeconds);
        oResponse.reset(poResponse);
        return iResult;
    }

    /// Has the gateway answer the initial stage of this process.
    void answer(unsigned int uiCmd)
    {
        SFrame oFrame;
        oFrame.m_ucType = 2;
        oFrame.m_ulCmd = uiCmd;
        oFrame.m_usDestProc = PROCESS;
        oFrame.m_ucDestModule = 255;
        oFrame.m_usDestTask = 65535;
        m_oGateway.send(oFrame);
    }

    CRawGateway m_oGateway;
    CInstallation m_oInstallation;
};

} // namespace

TEST_F(InitialCallTest, TakesTheAnswerForTheProcess)
{
    std::thread oPeer(
        [&]
        {
            waitUntil([&] { return m_oGateway.countOfType(1) == 1; });
            answer(44);
        });
    Pdu oResponse;
    EXPECT_EQ(ZOL_OK, call(20, oResponse));
    oPeer.join();
    ASSERT_TRUE(oResponse);
    EXPECT_EQ(44U, oResponse->m_ulCmdID);
    for (const SFrame &oFrame : m_oGateway.frames())
    {
        if (oFrame.m_ucType == 1)
        {
            EXPECT_EQ(255, oFrame.m_ucSrcModule);
            EXPECT_EQ(65535, oFrame.m_usSrcTask);
        }
    }
}

TEST_F(InitialCallTest, EndsAtTheLimitAndTakesNoSecondFromTheNext)
{
    Pdu oResponse;
    const auto oTimed = timed([&] { return call(1, oResponse); });
    EXPECT_EQ(ZOL_ERR_TIMEOUT, oTimed.first);
    EXPECT_GE(oTimed.second, 0.95);
    EXPECT_FALSE(oResponse);
    const auto oNone = timed([&] { return call(0, oResponse); });
    EXPECT_EQ(ZOL_ERR_TIMEOUT, oNone.first) << "no lower bound at this stage";
    EXPECT_TRUE(oNone.second < 0.9 || everTakesLess(0.9, [&] { return call(0, oResponse); }));
    EXPECT_EQ(ZOL_ERR_TIMEOUT, call(-3, oResponse));
    answer(1); // late: whatever becomes of it, nothing leaks and the next calls work
    for (const unsigned int uiCmd : {46U, 47U})
    {
        answer(uiCmd);
        EXPECT_EQ(ZOL_OK, call(20, oResponse));
    }
}

TEST_F(InitialCallTest, EndsAtTheLimitAlsoWhenSignalsInterruptIt)
{
    struct sigaction oAction
    {
    };
    oAction.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &oAction, nullptr));
    std::atomic<bool> bEnd{false};
    const pthread_t oCaller = pthread_self();
    std::thread oSignals(
        [&]
        {
            while (!bEnd)
            {
                pthread_kill(oCaller, SIGUSR1);
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        });
    Pdu oResponse;
    const auto oTimed = timed([&] { return call(1, oResponse); }); // the signals go on until it returns
    bEnd = true;
    oSignals.join();
    EXPECT_EQ(ZOL_ERR_TIMEOUT, oTimed.first);
    EXPECT_GE(oTimed.second, 0.95);
}

TEST_F(InitialCallTest, IsForTheThreadThatStartedTheLibrary)
{
    std::thread(
        []
        {
            Pdu oResponse;
            EXPECT_EQ(ZOL_ERR_FAILED, call(1, oResponse));
        })
        .join();
    EXPECT_EQ(0U, m_oGateway.countOfType(1));
}

TEST_F(InitialCallTest, SubscribesAndLooksUp)
{
    EXPECT_EQ(CONN_STATUS_UP, app().statusOfConnToVek());
    EXPECT_EQ(ZOL_OK, app().registerSubscribe(0x01020304, 7, 0x1122));
    EXPECT_EQ(ZOL_OK, app().cancelSubscribe(0x01020304, 7, 0x1122));
    unsigned int uiFound = 0;
    for (const SFrame &oFrame : m_oGateway.frames())
    {
        if (oFrame.m_ucType == 11 || oFrame.m_ucType == 12)
        {
            ++uiFound;
            EXPECT_EQ(0x01020304U, oFrame.m_ulCmd);
            EXPECT_EQ(std::string("\0\0\0\x07\0\0\x11\x22\x01\x02\x03\x04", 12), oFrame.m_strBody);
            EXPECT_EQ(PROCESS, oFrame.m_usSrcProc);
            EXPECT_EQ(0, oFrame.m_usDestProc);
        }
    }
    EXPECT_EQ(2U, uiFound);
#ifdef NDEBUG
    EXPECT_EQ(ZOL_ERR_FAILED, app().subscribe(1, CZolMsgPdu::MSG_REQUEST, 1, 1));
#else
    EXPECT_DEATH(app().subscribe(1, CZolMsgPdu::MSG_REQUEST, 1, 1), "");
#endif
}

TEST_F(InitialCallTest, TellsAFailedSubscription)
{
    m_oGateway.dropAll();
    ASSERT_TRUE(waitUntil(
        []
        {
            ACE_Time_Value oNow = ACE_Time_Value::zero;
            app().getReactor()->owner(ACE_Thread::self());
            app().getReactor()->handle_events(oNow);
            return app().statusOfConnToVek() == CONN_STATUS_DOWN;
        }));
    EXPECT_EQ(ZOL_ERR_INTERRUPTED, app().registerSubscribe(77, 1, 2));
    unsigned int uiAddr = 5;
    unsigned short usPort = 6;
    EXPECT_EQ(ZOL_ERR_INTERRUPTED, app().getProcAddrByID(1, 1, uiAddr, usPort));
    EXPECT_EQ(5U, uiAddr);
    EXPECT_TRUE(waitUntil(
        [&]
        {
            return m_oInstallation.logText().find("CZolAppMgr::subscribe Fail to send subscribe message. commandID = "
                                                  "77, retCode = -5\n") != std::string::npos;
        }));
    EXPECT_NE(std::string::npos, m_oInstallation.logText().find("Fail to get proc ip, retCode = -5\n"));
}
