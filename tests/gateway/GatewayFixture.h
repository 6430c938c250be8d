#ifndef ZOL_TESTS_GATEWAY_GATEWAYFIXTURE_H
#define ZOL_TESTS_GATEWAY_GATEWAYFIXTURE_H

#include "gateway/loop/ZolVekGateway.h"
#include "support/RawPipe.h"
#include "support/WaitUntil.h"

#include <atomic>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace zoltest
{

/// A gateway on a thread of its own, with a clock that the test moves on.
class CGatewayThread
{
public:
    explicit CGatewayThread(const SZolVekSettings &oSettings);
    ~CGatewayThread(); ///< ends the loop; all memory for frames must be free again

    unsigned short port() const { return m_usPort; }

    /// Lets so much time pass at once.
    void pass(std::chrono::milliseconds oTime) { m_lExtraMs += oTime.count(); }

    /// Runs fnDo between two turns and waits for it.
    void run(const std::function<void(CZolVekGateway &)> &fnDo);

    SZolVekStatistics statistics();
    std::uint64_t memoryBytes();
    std::size_t pipes();
    std::size_t connections();

private:
    void loop();

    std::atomic<std::int64_t> m_lExtraMs{0};
    std::atomic<bool> m_bEnd{false};
    CZolVekGateway m_oGateway;
    unsigned short m_usPort = 0;
    std::mutex m_oLock; // guards m_oWork
    std::vector<std::packaged_task<void(CZolVekGateway &)>> m_oWork;
    std::thread m_oThread;
};

/// Tests of what a gateway does, seen from raw pipes.
class GatewayTest : public testing::Test
{
protected:
    GatewayTest() { m_oSettings.m_uiListenPort = 0; }

    /// Starts the gateway with m_oSettings, if it does not run yet.
    CGatewayThread &gateway();

    /// Ends the gateway, before what a test gave it goes.
    void endGateway() { m_poGateway.reset(); }

    /// A connection that has not registered.
    CRawPipe connection() { return CRawPipe::connectTo(gateway().port()); }

    /// A pipe that is up.
    CRawPipe pipe(unsigned short usProc, unsigned short usHandle, unsigned int uiBody = 0);

    static SFrame frame(std::uint8_t ucType, TZolVekKey uiFrom, TZolVekKey uiTo, const std::string &strBody,
                        std::uint32_t ulCmd = 7);

    /// The next frame but hellos. Fails the test if none comes.
    static SFrame next(CRawPipe &oPipe);

    /// Nothing is on its way to oPipe: the echo of a hello comes next.
    static void expectSilence(CRawPipe &oPipe);

    static void subscribe(CRawPipe &oPipe, std::uint32_t ulCmd, unsigned int uiModule, unsigned int uiTask,
                          std::uint8_t ucType = 11);

    SZolVekSettings m_oSettings;

private:
    std::unique_ptr<CGatewayThread> m_poGateway;
};

} // namespace zoltest

#endif
