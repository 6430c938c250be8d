#include "support/Application.h"
#include "support/Installation.h"
#include "zol.h"

#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>

using namespace zoltest;

namespace
{

const unsigned short PROCESS = 1;
const unsigned char MANAGER = 7;
const unsigned short SLOW = 1;

std::mutex g_oGate; // a handler of CSlow waits for it

class CSlow : public CZolTask
{
    void respMsgProcess(const CZolMsgPdu *) override { const std::lock_guard<std::mutex> oGuard(g_oGate); }
};

SZolStatistics statistics()
{
    SZolStatistics oStatistics;
    EXPECT_EQ(ZOL_OK, zol::getStatistics(&oStatistics, sizeof oStatistics));
    return oStatistics;
}

class StatisticsTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->initAppMgr(PROCESS, 0, true, "statistics", nullptr));
        auto *const poMgr = new CZolTaskMgr(MANAGER, 1);
        ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->addTaskMgr(poMgr));
        m_poSlow = new CSlow;
        ASSERT_EQ(ZOL_OK, poMgr->addStaticTask(m_poSlow, SLOW));
    }

    CInstallation m_oInstallation;
    CZolTask *m_poSlow = nullptr;
};

} // namespace

// An application that was built when the record was shorter must not be written over.
TEST(StatisticsStageTest, WritesNoByteBehindTheGivenLengthAndRefusesBeforeTheStart)
{
    const unsigned int uiShort = offsetof(SZolStatistics, m_ulSendBytes) + 3;
    auto oBuffer = std::make_unique<unsigned char[]>(uiShort); // the sanitizer watches its end
    auto *const poShort = reinterpret_cast<SZolStatistics *>(oBuffer.get());
    EXPECT_EQ(ZOL_ERR_STAGE, zol::getStatistics(poShort, uiShort));
    EXPECT_EQ(ZOL_ERR_FAILED, zol::getStatistics(nullptr, 8));
    zol::setHandlerLimit(100); // no timer thread yet: must do nothing
    const CInstallation oInstallation;
    ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->initAppMgr(PROCESS, 0, true, "statistics", nullptr));
    EXPECT_EQ(ZOL_OK, zol::getStatistics(poShort, uiShort));
}

TEST_F(StatisticsTest, CountsLossesByReason)
{
    runApplication(
        []
        {
            const SZolStatistics oBefore = statistics();
            EXPECT_EQ(ZOL_OK, zol::sendReqMsg(1, nullptr, 0, PROCESS, MANAGER, 32)); // no such task
            EXPECT_EQ(ZOL_OK, zol::sendReqMsg(1, nullptr, 0, PROCESS, MANAGER, 0));  // createTask gives none
            EXPECT_NE(ZOL_OK, zol::sendReqMsg(1, nullptr, 0, PROCESS, 99, 1));       // no such manager
            EXPECT_NE(ZOL_OK, zol::sendReqMsg(1, nullptr, 0, 999, 1, 1));            // no pipe
            EXPECT_TRUE(waitUntil([&] { return statistics().m_ulDroppedNoTask - oBefore.m_ulDroppedNoTask == 2; }));
            EXPECT_EQ(1U, statistics().m_ulDroppedNoManager - oBefore.m_ulDroppedNoManager);
            EXPECT_EQ(1U, statistics().m_ulDroppedNoConnection - oBefore.m_ulDroppedNoConnection);
        });
}

TEST_F(StatisticsTest, ShowsQueuesTimersAndThePool)
{
    ASSERT_NE(0U, m_poSlow->setTimer(3600));
    runApplication(
        []
        {
            std::unique_lock<std::mutex> oGate(g_oGate);
            const std::string strBody(72, 'x'); // with the header 100 bytes
            for (int iMsg = 0; iMsg < 11; ++iMsg)
            {
                EXPECT_EQ(ZOL_OK, zol::sendReqMsg(1, strBody.data(), 72, PROCESS, MANAGER, SLOW));
            }
            // The handler holds the first, the dispatcher may have moved others to the task's own list.
            const SZolStatistics oNow = statistics();
            ASSERT_EQ(2U, oNow.m_ulTaskMgrCount);
            EXPECT_EQ(254U, oNow.m_arrTaskMgr[0].m_ulTaskMgrID);
            EXPECT_EQ(MANAGER, oNow.m_arrTaskMgr[1].m_ulTaskMgrID);
            EXPECT_EQ(100U * oNow.m_arrTaskMgr[1].m_ulQueuedMessages, oNow.m_arrTaskMgr[1].m_ulQueuedBytes);
            EXPECT_LE(10U, oNow.m_arrTaskMgr[1].m_ulQueuedMessages) << "one thread, which is in a handler";
            EXPECT_EQ(1U, oNow.m_ulTimersAlive);
            EXPECT_EQ(256U, oNow.m_ulPoolSmallTotal);
            EXPECT_EQ(64U, oNow.m_ulPoolMediumTotal);
            EXPECT_EQ(0U, oNow.m_ulPipesUp);
            EXPECT_EQ(0U, oNow.m_ulSendBytes);
            oGate.unlock();
            EXPECT_TRUE(waitUntil([] { return statistics().m_arrTaskMgr[1].m_ulQueuedBytes == 0; }));
        });
}

TEST_F(StatisticsTest, NamesALongHandlerOnceForEachRun)
{
    runApplication(
        [this]
        {
            std::unique_lock<std::mutex> oGate(g_oGate);
            const auto fnLines = [this]
            { return countOf(m_oInstallation.logText(), "handler runs for more than 50 ms, cmd:4711\n"); };
            zol::setHandlerLimit(50);
            EXPECT_EQ(ZOL_OK, zol::sendReqMsg(4711, nullptr, 0, PROCESS, MANAGER, SLOW));
            EXPECT_TRUE(waitUntil([&] { return fnLines() == 1; }));
            CZolRunLog::error("a flush later"); // which is a hundred checks later
            EXPECT_TRUE(waitUntil([&] { return countOf(m_oInstallation.logText(), "a flush later") == 1; }));
            EXPECT_EQ(1U, fnLines()) << "one line for one run";
            oGate.unlock();
            EXPECT_TRUE(waitUntil([] { return statistics().m_arrTaskMgr[1].m_ulQueuedBytes == 0; }));
            zol::setHandlerLimit(0);
        });
}
