#ifndef ZOL_TESTS_TASK_TASKFIXTURE_H
#define ZOL_TESTS_TASK_TASKFIXTURE_H

#include "support/Installation.h"
#include "support/WaitUntil.h"
#include "zol.h"

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zoltest
{

constexpr unsigned short PROCESS = 9;
constexpr unsigned char MANAGER = 1;

/// A message from task 5 of manager 77 of this process.
inline CZolMsgPdu *makeMsg(CZolMsgPdu::EnumZolPduType eType, unsigned char ucManager, unsigned short usTask,
                           unsigned int uiCmd, const std::string &strBody = "")
{
    CZolMsgPdu *poMsg = new (static_cast<unsigned int>(28 + strBody.size())) CZolMsgPdu;
    poMsg->init();
    poMsg->m_ucMsgType = static_cast<ACE_Byte>(eType);
    poMsg->m_ulCmdID = uiCmd;
    poMsg->m_usSrcProcID = PROCESS;
    poMsg->m_usDestProcID = PROCESS;
    poMsg->m_ucSrcModule = 77;
    poMsg->m_usSrcSubModuleId = 5;
    poMsg->m_ucDestModule = ucManager;
    poMsg->m_usDestSubModuleId = usTask;
    poMsg->m_ulDataLength = static_cast<ACE_UINT32>(strBody.size());
    memcpy(zolPayload(poMsg), strBody.data(), strBody.size());
    return poMsg;
}

inline CZolMsgPdu *makeRequest(unsigned char ucManager, unsigned short usTask, unsigned int uiCmd)
{
    return makeMsg(CZolMsgPdu::MSG_REQUEST, ucManager, usTask, uiCmd);
}

/// The answer to a request as the library's address fields ask for it.
inline CZolMsgPdu *makeAnswer(const CZolMsgPdu &oRequest, unsigned int uiCmd)
{
    CZolMsgPdu *poMsg = makeMsg(CZolMsgPdu::MSG_RESPONSE, oRequest.m_ucSrcModule, oRequest.m_usSrcSubModuleId, uiCmd);
    return poMsg;
}

inline int sendLocal(CZolMsgPdu *poMsg)
{
    const unsigned char ucManager = poMsg->m_ucDestModule;
    return CZolAppMgr::instance()->sendLocalAsynMsg(poMsg, ucManager);
}

/// A door that handlers wait at. Opened by the test, and in any case by the destructor, which lets everybody out first.
class CGate
{
public:
    ~CGate()
    {
        open();
        std::unique_lock<std::mutex> oGuard(m_oMutex);
        m_oChanged.wait(oGuard, [this] { return m_uiWaiting == 0; });
    }
    void open()
    {
        const std::lock_guard<std::mutex> oGuard(m_oMutex);
        m_bOpen = true;
        m_oChanged.notify_all();
    }
    void pass()
    {
        std::unique_lock<std::mutex> oGuard(m_oMutex);
        ++m_uiWaiting;
        m_oChanged.wait(oGuard, [this] { return m_bOpen; });
        --m_uiWaiting;
        m_oChanged.notify_all();
    }
    bool waitForGuests(unsigned int uiCount)
    {
        return waitUntil(
            [&]
            {
                const std::lock_guard<std::mutex> oGuard(m_oMutex);
                return m_uiWaiting >= uiCount;
            });
    }

private:
    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    bool m_bOpen = false;
    unsigned int m_uiWaiting = 0;
};

/// What has happened, in order; from any thread.
class CTrace
{
public:
    void add(const std::string &strEvent)
    {
        const std::lock_guard<std::mutex> oGuard(m_oMutex);
        m_oEvents.push_back(strEvent);
    }
    std::vector<std::string> events() const
    {
        const std::lock_guard<std::mutex> oGuard(m_oMutex);
        return m_oEvents;
    }
    bool waitForCount(size_t uiCount) const
    {
        return waitUntil([&] { return events().size() >= uiCount; });
    }

private:
    mutable std::mutex m_oMutex;
    std::vector<std::string> m_oEvents;
};

/// A task whose handlers are the test's functions.
class CScriptedTask : public CZolTask
{
public:
    using Handler = std::function<void(CZolTask &, const CZolMsgPdu &)>;

    explicit CScriptedTask(Handler fnMsg = nullptr, std::atomic<int> *piAlive = nullptr)
        : m_fnMsg(std::move(fnMsg)), m_piAlive(piAlive)
    {
        if (m_piAlive != nullptr)
        {
            ++*m_piAlive;
        }
    }
    ~CScriptedTask() override
    {
        if (m_piAlive != nullptr)
        {
            --*m_piAlive;
        }
    }
    void reqMsgProcess(const CZolMsgPdu *poMsg) override
    {
        if (m_fnMsg)
        {
            m_fnMsg(*this, *poMsg);
        }
    }
    void respMsgProcess(const CZolMsgPdu *poMsg) override { reqMsgProcess(poMsg); }
    void timerCallBack(unsigned long ulTimerID) override
    {
        if (m_fnTimer)
        {
            m_fnTimer(ulTimerID);
        }
    }
    ACE_Reactor *getReactor() override { return m_poReactor; }
    void eventLoop() override
    {
        if (m_fnEventLoop)
        {
            m_fnEventLoop();
        }
    }

    std::function<void(unsigned long)> m_fnTimer;
    std::function<void()> m_fnEventLoop;
    ACE_Reactor *m_poReactor = nullptr;

private:
    Handler m_fnMsg;
    std::atomic<int> *m_piAlive;
};

class CScriptedMgr : public CZolTaskMgr
{
public:
    using Creator = std::function<CZolTask *(CZolMsgPdu *)>;

    CScriptedMgr(unsigned char ucID, int iThreads, Creator fnCreate = nullptr)
        : CZolTaskMgr(ucID, iThreads), m_fnCreate(std::move(fnCreate))
    {
    }
    CZolTask *createTask(CZolMsgPdu *poMsg) override { return m_fnCreate ? m_fnCreate(poMsg) : nullptr; }

private:
    Creator m_fnCreate;
};

/// A started library without a gateway; the loop of the process runs on a thread of its own between start() and stop().
class CTaskTest : public testing::Test
{
protected:
    explicit CTaskTest(const std::string &strConfig = "") : m_oInstallation(strConfig) {}

    void SetUp() override { ASSERT_EQ(ZOL_OK, app().initAppMgr(PROCESS, 0, true, "task", nullptr)); }
    void TearDown() override { stop(); }

    static CZolAppMgr &app() { return *CZolAppMgr::instance(); }

    template <typename Manager>
    Manager *add(Manager *poMgr)
    {
        EXPECT_EQ(ZOL_OK, app().addTaskMgr(poMgr));
        return poMgr;
    }

    void start()
    {
        m_oLoop = std::thread([] { app().handleEvents(); });
        ASSERT_TRUE(waitUntil([] { return app().getStatus() == APPMGR_RUNNING; }));
    }
    void stop()
    {
        app().exitThreads();
        if (m_oLoop.joinable())
        {
            m_oLoop.join();
        }
    }

    /// Waits until the line stands in the run log.
    bool logged(const std::string &strLine)
    {
        return waitUntil([&] { return m_oInstallation.logText().find(strLine) != std::string::npos; });
    }

    CInstallation m_oInstallation;
    std::thread m_oLoop;
};

/// The result of a call and how many seconds it took.
template <typename Call>
std::pair<int, double> timed(Call fnCall)
{
    const auto oBegin = std::chrono::steady_clock::now();
    const int iResult = fnCall();
    return {iResult, std::chrono::duration<double>(std::chrono::steady_clock::now() - oBegin).count()};
}

/// Whether a call ever takes less than dSeconds: a busy machine may hold up any single one, but not all of so many.
template <typename Call>
bool everTakesLess(double dSeconds, Call fnCall)
{
    for (int iTry = 0; iTry < 30; ++iTry)
    {
        if (timed(fnCall).second < dSeconds)
        {
            return true;
        }
    }
    return false;
}

} // namespace zoltest

#endif
