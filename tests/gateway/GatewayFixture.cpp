#include "gateway/GatewayFixture.h"

#include <ctime>

namespace zoltest
{

CGatewayThread::CGatewayThread(const SZolVekSettings &oSettings)
    : m_oGateway(oSettings,
                 [this]
                 {
                     const auto oNow = std::chrono::steady_clock::now().time_since_epoch();
                     return static_cast<std::uint64_t>(
                         std::chrono::duration_cast<std::chrono::milliseconds>(oNow).count() + m_lExtraMs.load());
                 })
{
    std::string strError;
    if (!m_oGateway.open(strError))
    {
        throw std::runtime_error(strError);
    }
    m_usPort = m_oGateway.port();
    m_oThread = std::thread([this] { loop(); });
}

CGatewayThread::~CGatewayThread()
{
    m_bEnd = true;
    m_oThread.join();
}

void CGatewayThread::loop()
{
    while (!m_bEnd)
    {
        m_oGateway.runOnce(5);
        std::vector<std::packaged_task<void(CZolVekGateway &)>> oWork;
        {
            const std::lock_guard<std::mutex> oGuard(m_oLock);
            oWork.swap(m_oWork);
        }
        for (auto &oOne : oWork)
        {
            oOne(m_oGateway);
        }
    }
}

void CGatewayThread::run(const std::function<void(CZolVekGateway &)> &fnDo)
{
    std::packaged_task<void(CZolVekGateway &)> oTask(fnDo);
    std::future<void> oDone = oTask.get_future();
    {
        const std::lock_guard<std::mutex> oGuard(m_oLock);
        m_oWork.push_back(std::move(oTask));
    }
    oDone.get();
}

SZolVekStatistics CGatewayThread::statistics()
{
    SZolVekStatistics oStatistics;
    run([&](CZolVekGateway &oGateway) { oStatistics = oGateway.statistics(); });
    return oStatistics;
}

std::uint64_t CGatewayThread::memoryBytes()
{
    std::uint64_t ulBytes = 0;
    run([&](CZolVekGateway &oGateway) { ulBytes = oGateway.memoryBytes(); });
    return ulBytes;
}

std::size_t CGatewayThread::pipes()
{
    std::size_t ulPipes = 0;
    run([&](CZolVekGateway &oGateway) { ulPipes = oGateway.pipes(); });
    return ulPipes;
}

std::size_t CGatewayThread::connections()
{
    std::size_t ulConnections = 0;
    run([&](CZolVekGateway &oGateway) { ulConnections = oGateway.connections(); });
    return ulConnections;
}

CGatewayThread &GatewayTest::gateway()
{
    if (m_poGateway == nullptr)
    {
        m_poGateway = std::make_unique<CGatewayThread>(m_oSettings);
    }
    return *m_poGateway;
}

CRawPipe GatewayTest::pipe(unsigned short usProc, unsigned short usHandle, unsigned int uiBody)
{
    CRawPipe oPipe = connection();
    EXPECT_EQ(0, oPipe.registerAs(usProc, usHandle, uiBody)) << usProc << " " << usHandle;
    return oPipe;
}

SFrame GatewayTest::frame(std::uint8_t ucType, TZolVekKey uiFrom, TZolVekKey uiTo, const std::string &strBody,
                          std::uint32_t ulCmd)
{
    SFrame oFrame;
    oFrame.m_ucType = ucType;
    oFrame.m_ulCmd = ulCmd;
    oFrame.m_usSrcProc = zolVekProcOf(uiFrom);
    oFrame.m_usSrcHandle = zolVekHandleOf(uiFrom);
    oFrame.m_usDestProc = zolVekProcOf(uiTo);
    oFrame.m_usDestHandle = zolVekHandleOf(uiTo);
    return oFrame.body(strBody);
}

SFrame GatewayTest::next(CRawPipe &oPipe)
{
    SFrame oFrame;
    do
    {
        if (!oPipe.readFrame(oFrame))
        {
            ADD_FAILURE() << "no frame came";
            return SFrame();
        }
    } while (oFrame.m_ucType == 4);
    return oFrame;
}

void GatewayTest::expectSilence(CRawPipe &oPipe)
{
    SFrame oHello;
    oHello.m_ucType = 4;
    ASSERT_TRUE(oPipe.send(oHello.wire()));
    SFrame oFrame;
    ASSERT_TRUE(oPipe.readFrame(oFrame));
    EXPECT_EQ(4, oFrame.m_ucType) << "something had come: " << oFrame.m_strBody.substr(0, 100);
}

void GatewayTest::subscribe(CRawPipe &oPipe, std::uint32_t ulCmd, unsigned int uiModule, unsigned int uiTask,
                            std::uint8_t ucType)
{
    SFrame oFrame = frame(ucType, 0, 0, word32(uiModule) + word32(uiTask) + word32(ulCmd), ulCmd);
    oFrame.m_ucSrcModule = 255;
    oFrame.m_usSrcTask = 65535;
    ASSERT_TRUE(oPipe.send(oFrame.wire()));
    const SFrame oAnswer = next(oPipe);
    EXPECT_EQ(2, oAnswer.m_ucType);
    EXPECT_EQ(255, oAnswer.m_ucDestModule) << "where the caller waits";
    EXPECT_EQ(65535, oAnswer.m_usDestTask);
    EXPECT_EQ(0, oAnswer.status());
}

} // namespace zoltest
