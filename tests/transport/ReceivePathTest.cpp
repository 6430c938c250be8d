// The way in: what a peer writes on a pipe, made by hand, and what reaches a task.

#include "transport/TransportTest.h"

#include <gtest/gtest.h>

using namespace zoltest;

namespace
{

class ReceivePathTest : public TransportTest
{
protected:
    // Sends one more message behind whatever was sent and waits for it alone: what came before it is settled by then.
    void settle(CRawPipe &oPeer)
    {
        const std::size_t uiBefore = m_oInbox.count();
        ASSERT_TRUE(oPeer.send(toSink(999999).wire()));
        ASSERT_TRUE(waitUntil([&] { return !m_oInbox.all().empty() && m_oInbox.all().back().m_ulCmd == 999999; }))
            << "nothing came after " << uiBefore << " messages";
    }
};

} // namespace

TEST_F(ReceivePathTest, AnswersAHelloOnceOnAPassivePipe)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            SFrame oHello;
            oHello.m_ucType = 4;
            ASSERT_TRUE(oPeer.send(oHello.wire()));
            SFrame oEcho;
            ASSERT_TRUE(oPeer.readFrame(oEcho));
            SFrame oExpected;
            oExpected.m_ucType = 4;
            oExpected.m_usSrcProc = OWN_PROC;
            oExpected.m_usSrcHandle = OWN_HANDLE;
            oExpected.m_usDestProc = 9;
            oExpected.m_usDestHandle = 1;
            EXPECT_EQ(oExpected.wire(), oEcho.wire());
            settle(oPeer);
            EXPECT_EQ("", oPeer.read(1, Milliseconds(0)));
        });
}

// A full queue stops the reading, and with it the sender; nothing is lost and nothing overtakes.
TEST_F(ReceivePathTest, StopsReadingWhileAQueueIsFull)
{
    serve(
        [&]
        {
            CRawPipe oPeer = peer();
            std::unique_lock<std::mutex> oClosed(m_oGate);
            const std::string strBody = pattern(1 << 20);
            std::thread oSender(
                [&]
                {
                    for (unsigned int i = 0; i < 60; ++i)
                    {
                        EXPECT_TRUE(oPeer.send(toSink(i, strBody).wire()));
                    }
                });
            CZolTaskMgr *poManager = CZolAppMgr::instance()->findTaskMgr(COLLECTOR);
            EXPECT_TRUE(waitUntil([&] { return poManager->getBytesOfBufferMsg() >= 26214400; }));
            EXPECT_LT(poManager->getBytesOfBufferMsg(), 26214400U + 2 * (1 << 20));
            oClosed.unlock();
            oSender.join();
            ASSERT_TRUE(m_oInbox.waitFor(60));
            const auto oAll = m_oInbox.all();
            for (unsigned int i = 0; i < 60; ++i)
            {
                EXPECT_EQ(i, oAll[i].m_ulCmd);
                EXPECT_TRUE(oAll[i].m_strBody == strBody);
            }
        },
        "ZOLQueueSize = 1\n"); // raised to the least, 26214400
}
