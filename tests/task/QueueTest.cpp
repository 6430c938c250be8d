// The limit of a task manager's queue, and the end of the process while it is full.

#include "task/TaskFixture.h"

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>

using namespace zoltest;

namespace
{

constexpr unsigned int LIMIT_BYTES = 1000;
const std::string BODY(72, 'x'); // 100 bytes in all

class QueueTest : public CTaskTest
{
public:
    void SetUp() override
    {
        CTaskTest::SetUp();
        g_ulQueueSize = LIMIT_BYTES;
        m_poMgr = add(new CScriptedMgr(MANAGER, 1));
        m_poMgr->addStaticTask(new CScriptedTask(
                                   [this](CZolTask &, const CZolMsgPdu &oMsg)
                                   {
                                       if (oMsg.m_ulCmdID == 0)
                                       {
                                           m_oGate.pass();
                                       }
                                       ++m_iSeen;
                                   }),
                               1);
    }
    void TearDown() override
    {
        m_oGate.open();
        CTaskTest::TearDown();
    }

    int enqueue(unsigned int uiCmd, bool bPriority, const std::string &strBody = BODY)
    {
        CZolMsgPdu *poMsg = makeMsg(CZolMsgPdu::MSG_REQUEST, MANAGER, 1, uiCmd, strBody);
        return m_poMgr->enqueueMsg(zolBlockOf(poMsg), bPriority);
    }

    /// Starts, and has the one thread of the manager wait in a handler with an empty queue behind it.
    void startBusy()
    {
        start();
        enqueue(0, true);
        ASSERT_TRUE(m_oGate.waitForGuests(1));
    }

    CGate m_oGate;
    std::atomic<int> m_iSeen{0};
    CZolTaskMgr *m_poMgr = nullptr;
};

} // namespace

TEST_F(QueueTest, HoldsBackOnlyWhoWaitsForRoom)
{
    startBusy();
    for (unsigned int uiCmd = 1; uiCmd <= 9; ++uiCmd)
    {
        enqueue(uiCmd, false);
    }
    enqueue(10, false, std::string(5000, 'x')); // 900 bytes are below the limit: one message of any size fits
    EXPECT_EQ(10U, m_poMgr->getLengthOfBufferMsg());
    enqueue(11, true);
    EXPECT_EQ(11U, m_poMgr->getLengthOfBufferMsg());

    std::atomic<bool> bThrough{false};
    std::thread oSender(
        [&]
        {
            enqueue(12, false);
            bThrough = true;
        });
    enqueue(13, true);
    EXPECT_FALSE(waitUntil([&] { return bThrough.load(); }, std::chrono::milliseconds(350)))
        << "longer than a slice of the wait";
    EXPECT_EQ(12U, m_poMgr->getLengthOfBufferMsg());
    m_oGate.open();
    oSender.join();
    EXPECT_TRUE(waitUntil([&] { return m_iSeen == 14; }));
}

// A sender that is held back again and again gets through: no wake-up is lost between the reader and the sender.
TEST_F(QueueTest, KeepsAHeldBackSenderMoving)
{
    constexpr int MESSAGES = 20000;
    start();
    int iLate = 0;
    for (int iMsg = 1; iMsg <= MESSAGES; ++iMsg)
    {
        iLate += timed([&] { return enqueue(static_cast<unsigned int>(iMsg), false); }).second > 0.09 ? 1 : 0;
        ASSERT_LE(m_poMgr->getBytesOfBufferMsg(), LIMIT_BYTES + 100);
    }
    EXPECT_TRUE(waitUntil([&] { return m_iSeen == MESSAGES; }));
    EXPECT_LT(iLate, MESSAGES / 50) << "a lost wake-up costs a slice of 100 ms, and thousands of waits took place";
}

TEST_F(QueueTest, HoldsNobodyBackBeforeTheStart)
{
    for (unsigned int uiCmd = 1; uiCmd <= 30; ++uiCmd)
    {
        EXPECT_EQ(ZOL_OK, enqueue(uiCmd, false));
    }
    EXPECT_EQ(30U, m_poMgr->getLengthOfBufferMsg());
    start();
    EXPECT_TRUE(waitUntil([&] { return m_iSeen == 30; }));
}

// The thread that runs the process's reactor waits for room when the process is told to end: it must leave.
TEST_F(QueueTest, EndsWhileTheReactorWaitsForRoom)
{
    class CFiller : public ACE_Event_Handler
    {
    public:
        explicit CFiller(QueueTest &oTest) : m_oTest(oTest) {}
        int handle_exception(ACE_HANDLE) override
        {
            for (unsigned int uiCmd = 1; uiCmd <= 20; ++uiCmd)
            {
                m_oTest.enqueue(uiCmd, false);
                ++m_iDone;
            }
            return 0;
        }
        QueueTest &m_oTest;
        std::atomic<int> m_iDone{0};
    };
    CFiller oFiller(*this);
    startBusy();
    app().getReactor()->notify(&oFiller);
    ASSERT_TRUE(waitUntil([&] { return m_poMgr->getLengthOfBufferMsg() == 10; }));
    EXPECT_EQ(10, oFiller.m_iDone);
    app().exitThreads();
    EXPECT_TRUE(waitUntil([&] { return oFiller.m_iDone == 20; }));
    m_oGate.open();
    m_oLoop.join();
    EXPECT_EQ(1, m_iSeen) << "what is queued at the end is not served";
}
