#include "gateway/GatewayFixture.h"

#include <atomic>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

using namespace zoltest;
using namespace std::chrono_literals;

namespace
{

const TZolVekKey A = zolVekKey(7, 1);
const TZolVekKey B = zolVekKey(8, 1);

class BackPressureTest : public GatewayTest
{
protected:
    BackPressureTest() { m_oSettings.m_ulPipeQueueBytes = 1 << 20; }

    /// A pipe of which the kernel takes little; a window below the loopback's segments would make it crawl.
    CRawPipe slowPipe(unsigned short usProc, unsigned short usHandle)
    {
        CRawPipe oPipe = pipe(usProc, usHandle);
        const int iSmall = 256 * 1024;
        setsockopt(oPipe.socket(), SOL_SOCKET, SO_RCVBUF, &iSmall, sizeof iSmall);
        return oPipe;
    }

    /// A pipe of which the kernel takes next to nothing.
    CRawPipe narrowPipe(unsigned short usProc, unsigned short usHandle)
    {
        int aiSockets[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, aiSockets));
        const int iSmall = 16384;
        setsockopt(aiSockets[0], SOL_SOCKET, SO_SNDBUF, &iSmall, sizeof iSmall);
        gateway().run([&](CZolVekGateway &oGateway) { oGateway.adopt(aiSockets[0], 0x7F000001, 1); });
        CRawPipe oPipe(aiSockets[1]);
        EXPECT_EQ(0, oPipe.registerAs(usProc, usHandle));
        return oPipe;
    }

    /// Frames of 1,000 bytes that the kernel does not take for two connections, with a queue of 1 MiB in between.
    static unsigned int moreThanFits() { return static_cast<unsigned int>((2 * kernelBuffers() + (4 << 20)) / 1000); }

    /// Sends numbered frames from another thread until the limit; counts those that the socket took.
    struct SFlood
    {
        SFlood(CRawPipe &oPipe, TZolVekKey uiFrom, TZolVekKey uiTo, unsigned int uiCount, std::size_t ulBody)
            : m_oThread(
                  [=, &oPipe]
                  {
                      for (unsigned int i = 0; i < uiCount; ++i)
                      {
                          if (!oPipe.send(frame(1, uiFrom, uiTo, word32(i) + std::string(ulBody, 'f')).wire()))
                          {
                              return;
                          }
                          ++m_uiSent;
                      }
                  })
        {
        }
        ~SFlood() { m_oThread.join(); }
        std::atomic<unsigned int> m_uiSent{0};
        std::thread m_oThread;
    };
};

// The end comes when the kernels of the receivers have everything: the publications of the grace too. What comes after
// it has begun, and what nobody is there for, is counted.
TEST_F(BackPressureTest, DrainsIntoTheKernelsOfTheReceivers)
{
    m_oSettings.m_uiGraceSeconds = 600;
    CRawPipe oTo = narrowPipe(8, 1);
    CRawPipe oA = pipe(7, 1);
    subscribe(oTo, 5, 1, 40);
    ASSERT_TRUE(oA.send(frame(13, A, 0, "held", 5).wire() + frame(13, A, 0, "to nobody", 6).wire() +
                        frame(1, A, B, std::string(1000, 'd')).wire() + frame(1, A, A, "done").wire()));
    EXPECT_EQ("done", next(oA).m_strBody);
    bool bDone = false;
    gateway().run([](CZolVekGateway &oGateway) { oGateway.drain(); });
    ASSERT_TRUE(oTo.send(frame(1, B, A, "too late").wire()));
    for (int i = 0; i < 20; ++i)
    {
        gateway().pass(30ms);
        gateway().run([&](CZolVekGateway &oGateway) { bDone = oGateway.isDone(); });
    }
    EXPECT_FALSE(bDone) << "nothing has been read yet";
    EXPECT_EQ(1000u, next(oTo).m_strBody.size());
    EXPECT_EQ("held", next(oTo).m_strBody);
    EXPECT_TRUE(oTo.waitClosed());
    EXPECT_TRUE(oA.waitClosed());
    EXPECT_TRUE(waitUntil(
        [&]
        {
            gateway().run([&](CZolVekGateway &oGateway) { bDone = oGateway.isDone(); });
            return bDone;
        }));
    EXPECT_EQ(2u, gateway().statistics().m_ulDropDraining);
}

// A source that is reset while it waits for a slow receiver: what it has sent comes first, at most to twice the bound
// of the queue, then its key is free, at once or within seconds.
TEST_F(BackPressureTest, RoutesWhatAResetPipeHasLeftBehind)
{
    const struct
    {
        const char *pcName;
        std::uint64_t ulQueueBytes;
        bool bNewcomer; // asks for the key at once
    } aCases[] = {
        {"there is room", 1 << 20, false},
        {"another process asks for its key", 1 << 20, true},
        {"there is no room for all", 16 << 10, false},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        endGateway();
        m_oSettings.m_ulPipeQueueBytes = oCase.ulQueueBytes;
        CRawPipe oSlow = narrowPipe(8, 1);
        CRawPipe oA = pipe(7, 1);
        unsigned int uiSent = 0;
        const auto fnSend = [&]
        {
            std::string strFrames;
            for (unsigned int i = 0; i < 50; ++i)
            {
                strFrames += frame(1, A, B, word32(uiSent++) + std::string(1000, 'r')).wire();
            }
            ASSERT_TRUE(oA.send(strFrames));
        };
        while (gateway().statistics().m_ulStalls == 0)
        {
            fnSend();
        }
        fnSend();
        int iUnacknowledged = 0;
        ASSERT_TRUE(
            waitUntil([&] { return ioctl(oA.socket(), SIOCOUTQ, &iUnacknowledged) == 0 && iUnacknowledged == 0; }));
        oA.resetOnClose();
        oA.close();
        if (oCase.bNewcomer)
        {
            oA = pipe(7, 1);
        }
        if (oCase.ulQueueBytes < 1 << 20)
        {
            ASSERT_TRUE(waitUntil([&] { return gateway().statistics().m_ulStalls > 1; }));
            gateway().pass(4s);
        }
        EXPECT_TRUE(waitUntil([&] { return gateway().pipes() == (oCase.bNewcomer ? 2 : 1); }));
        const auto uiDropped = static_cast<unsigned int>(gateway().statistics().m_ulDropSlow);
        EXPECT_EQ(oCase.ulQueueBytes<1 << 20, uiDropped> 0);
        for (unsigned int i = 0; i < uiSent - uiDropped; ++i)
        {
            ASSERT_EQ(i, readWord32(next(oSlow).m_strBody, 0));
        }
        expectSilence(oSlow);
    }
}

// A receiver that reads nothing: its sources stand still, memory stays within the bound, others do not notice; when it
// reads again everything is there and in order.
TEST_F(BackPressureTest, StopsTheSourcesOfASlowReceiverAndNobodyElse)
{
    CRawPipe oSlow = slowPipe(8, 1);
    CRawPipe oA = pipe(7, 1);
    CRawPipe oOther = pipe(7, 2);
    CRawPipe oHealthy = pipe(8, 2);
    const unsigned int uiCount = moreThanFits();
    {
        SFlood oFlood(oA, A, B, uiCount, 1000);
        ASSERT_TRUE(waitUntil([&] { return gateway().statistics().m_ulStalls > 0; }));
        for (unsigned int i = 0; i < 1000; ++i)
        {
            ASSERT_TRUE(oOther.send(frame(1, zolVekKey(7, 2), zolVekKey(8, 2), word32(i)).wire()));
            ASSERT_EQ(i, readWord32(next(oHealthy).m_strBody, 0));
        }
        EXPECT_LT(gateway().memoryBytes(), m_oSettings.m_ulPipeQueueBytes + (256 << 10));
        EXPECT_LT(oFlood.m_uiSent, uiCount) << "the pressure reaches the source";
        for (unsigned int i = 0; i < uiCount; ++i)
        {
            ASSERT_EQ(i, readWord32(next(oSlow).m_strBody, 0));
        }
    }
    EXPECT_TRUE(waitUntil([&] { return gateway().memoryBytes() == 0; }));
}

// Many receivers that read nothing fill the total; what flows between others goes on.
TEST_F(BackPressureTest, HoldsTheTotalBoundAndLetsHealthyPipesGoOn)
{
    m_oSettings.m_ulTotalQueueBytes = 4 << 20;
    std::vector<CRawPipe> oSlow;
    std::vector<CRawPipe> oSources;
    std::vector<std::unique_ptr<SFlood>> oFloods;
    for (unsigned short i = 1; i <= 10; ++i)
    {
        oSlow.push_back(slowPipe(8, i));
        oSources.push_back(pipe(7, i));
    }
    CRawPipe oA = pipe(5, 1);
    CRawPipe oB = pipe(6, 1);
    for (unsigned short i = 1; i <= 10; ++i)
    {
        oFloods.push_back(std::make_unique<SFlood>(oSources[i - 1u], zolVekKey(7, i), zolVekKey(8, i), 1 << 30, 20000));
    }
    ASSERT_TRUE(waitUntil([&] { return gateway().memoryBytes() > (3 << 20); }));
    SFlood oFlow(oA, zolVekKey(5, 1), zolVekKey(6, 1), 2000, 20000);
    for (unsigned int i = 0; i < 2000; ++i)
    {
        ASSERT_EQ(i, readWord32(next(oB).m_strBody, 0));
    }
    EXPECT_LT(gateway().memoryBytes(), (4u << 20) + 10 * (128u << 10));
    for (CRawPipe &oPipe : oSources)
    {
        shutdown(oPipe.socket(), SHUT_RDWR);
    }
}

// A big message of which a block was dropped is dropped to its end, and the receiver is told to free its part.
TEST_F(BackPressureTest, DropsBigMessagesWhole)
{
    m_oSettings.m_eSlowConsumer = VEK_SLOW_DROP;
    CRawPipe oSlow = slowPipe(8, 1);
    CRawPipe oA = pipe(7, 1);
    std::string strBlocks;
    const auto usBlocks = static_cast<std::uint16_t>(std::min(65000U, moreThanFits() / 8));
    for (std::uint16_t i = 1; i <= usBlocks; ++i)
    {
        SFrame oBlock = frame(6, A, B, std::string(8160, 'b'));
        oBlock.m_usSegment = i == usBlocks ? std::uint16_t{0} : i;
        strBlocks += oBlock.wire();
    }
    ASSERT_TRUE(oA.send(strBlocks));
    ASSERT_TRUE(oA.send(frame(1, A, A, "done").wire()));
    EXPECT_EQ("done", next(oA).m_strBody);
    SFrame oFrame;
    std::uint16_t usExpected = 1;
    while ((oFrame = next(oSlow)).m_ulData != 0)
    {
        ASSERT_EQ(usExpected++, oFrame.m_usSegment);
    }
    EXPECT_LT(usExpected, usBlocks);
    EXPECT_EQ(65535, oFrame.m_usSegment) << "does not follow: frees the part";
    SFrame oWhole = frame(6, A, B, "next");
    oWhole.m_usSegment = 1;
    ASSERT_TRUE(oA.send(oWhole.wire()));
    EXPECT_EQ("next", next(oSlow).m_strBody) << "the next message is a message again";
}

TEST_F(BackPressureTest, ClosesASlowReceiverIfToldTo)
{
    m_oSettings.m_eSlowConsumer = VEK_SLOW_CLOSE;
    CRawPipe oSlow = slowPipe(8, 1);
    CRawPipe oA = pipe(7, 1);
    const SFlood oFlood(oA, A, B, moreThanFits(), 1000);
    EXPECT_TRUE(waitUntil([&] { return gateway().pipes() == 1; }));
}

TEST_F(BackPressureTest, ClosesAReceiverThatTakesNoByteForTooLong)
{
    CRawPipe oSlow = slowPipe(8, 1);
    CRawPipe oA = pipe(7, 1);
    const unsigned int uiCount = moreThanFits();
    const SFlood oFlood(oA, A, B, uiCount, 1000);
    ASSERT_TRUE(waitUntil([&] { return gateway().statistics().m_ulStalls > 0; }));
    gateway().pass(60s);
    EXPECT_EQ(2u, gateway().pipes());
    gateway().pass(61s);
    EXPECT_TRUE(waitUntil([&] { return gateway().pipes() == 1; }));
    EXPECT_TRUE(waitUntil([&] { return oFlood.m_uiSent == uiCount; })) << "its source goes on";
}

// Nobody gains memory in the gateway by asking and not reading.
TEST_F(BackPressureTest, BoundsTheAnswersOfOneThatDoesNotRead)
{
    CRawPipe oA = slowPipe(7, 1);
    const std::string strAsk = frame(11, A, 0, word32(1) + word32(1) + word32(1), 1).wire() +
                               frame(15, A, 0, word32(1)).wire() + frame(4, A, 0, "").wire();
    std::string strMany;
    for (int i = 0; i < 1000; ++i)
    {
        strMany += strAsk;
    }
    for (int i = 0; i < 300 && oA.send(strMany, 200ms); ++i)
    {
    }
    EXPECT_LT(gateway().memoryBytes(), m_oSettings.m_ulPipeQueueBytes + (512 << 10));
}

// Of large frames what has arrived counts, not what they announce. At the bound the one that began first goes on and
// others wait; one that gets no byte loses its pipe.
TEST_F(BackPressureTest, HoldsLargeFramesAgainstTheTotalBound)
{
    m_oSettings.m_ulTotalQueueBytes = 4 << 20;
    CRawPipe oIdle = pipe(7, 1);
    CRawPipe oFirst = pipe(7, 2);
    CRawPipe oSecond = pipe(7, 3);
    CRawPipe oB = pipe(8, 1);
    SFrame oAnnounced = frame(1, A, B, "");
    oAnnounced.m_ulData = 3 << 20;
    ASSERT_TRUE(oIdle.send(oAnnounced.header() + "begun"));
    const std::string strFirst = frame(1, zolVekKey(7, 2), B, std::string(3 << 20, '1')).wire();
    const std::string strSecond = frame(1, zolVekKey(7, 3), B, std::string(3 << 20, '2')).wire();
    std::size_t ulSent = strFirst.size() - 100000;
    ASSERT_TRUE(oFirst.send(strFirst.substr(0, ulSent)));
    const auto goOn = [&] { return oFirst.send(strFirst.substr(ulSent++, 1)); }; // slowly
    ASSERT_TRUE(waitUntil([&] { return goOn() && gateway().memoryBytes() > (2 << 20); }));
    std::thread oSender([&] { EXPECT_TRUE(oSecond.send(strSecond)); });
    EXPECT_TRUE(waitUntil([&] { return goOn() && gateway().memoryBytes() > (4 << 20) - (512 << 10); }));
    for (unsigned int i = 0; i < 100; ++i)
    {
        EXPECT_TRUE(goOn());
        EXPECT_TRUE(oB.send(frame(1, B, B, word32(i)).wire()));
        EXPECT_EQ(i, readWord32(next(oB).m_strBody, 0));
    }
    EXPECT_LE(gateway().memoryBytes(), 4u << 20);
    EXPECT_TRUE(oFirst.send(strFirst.substr(ulSent)));
    EXPECT_EQ(strFirst, next(oB).wire());
    EXPECT_EQ(strSecond, next(oB).wire());
    oSender.join();
    gateway().pass(6s);
    EXPECT_TRUE(oIdle.waitClosed());
    EXPECT_EQ(3u, gateway().pipes());
}

} // namespace
