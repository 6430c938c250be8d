// Two thousand clients that send garbage, half a header, nothing, or announce a gigabyte, while a hundred processes
// exchange messages: these lose none and keep their order.

#include "gateway/GatewayFixture.h"

#include <atomic>
#include <sys/resource.h>
#include <unistd.h>

using namespace zoltest;
using namespace std::chrono_literals;

namespace
{

const unsigned short GOOD = 100;
const unsigned int HOSTILE = 2000;
const unsigned int ROUNDS = 50;

class HostileTest : public GatewayTest
{
protected:
    HostileTest()
    {
        rlimit oLimit{};
        getrlimit(RLIMIT_NOFILE, &oLimit);
        oLimit.rlim_cur = oLimit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &oLimit);
    }

    static std::string poison(unsigned int uiNumber)
    {
        SFrame oRegister = registerFrame(static_cast<unsigned short>(uiNumber % 60000 + 1), 1);
        switch (uiNumber % 8)
        {
        case 0:
            return std::string();
        case 1:
            return std::string(1 + uiNumber % 27, '\1');
        case 2:
            return oRegister.wire().substr(0, 28 + uiNumber % 4);
        case 3:
            oRegister.m_ulData = 0x40000000;
            return oRegister.header();
        case 4:
            return std::string(5000, static_cast<char>(uiNumber));
        case 5: // registers, and is hostile only then
            return registerFrame(static_cast<unsigned short>(20000 + uiNumber), 1).wire() +
                   std::string(100, static_cast<char>(0xFF));
        case 6: // registers, announces much, and sends nothing of it
            oRegister = frame(1, zolVekKey(1, 1), zolVekKey(2, 1), "");
            oRegister.m_ulData = 15 << 20;
            return registerFrame(static_cast<unsigned short>(20000 + uiNumber), 1).wire() + oRegister.header();
        default: // registers and floods processes that are not there
            return registerFrame(static_cast<unsigned short>(20000 + uiNumber), 1).wire() +
                   frame(1, 7, zolVekKey(9, 9), std::string(300, 'x')).wire() + frame(77, 7, 8, "").wire();
        }
    }
};

TEST_F(HostileTest, HostileClientsCostTheGoodPipesNothing)
{
    std::vector<CRawPipe> oGood;
    for (unsigned short i = 1; i <= GOOD; ++i)
    {
        oGood.push_back(pipe(7, i));
    }
    std::vector<CRawPipe> oClients(256); // open until the end
    std::atomic<bool> bAllCame{false};
    std::thread oHostile(
        [&]
        {
            for (unsigned int i = 0; i < HOSTILE; ++i)
            {
                CRawPipe &oClient = oClients[i % oClients.size()];
                if (i % 3 == 0 && oClient.isOpen())
                {
                    oClient.resetOnClose();
                }
                oClient = CRawPipe::connectTo(gateway().port());
                oClient.send(poison(i), 1s);
            }
            bAllCame = true;
        });
    unsigned int uiRounds = 0;
    for (unsigned int uiRound = 0; uiRound < ROUNDS || !bAllCame; uiRounds = ++uiRound)
    {
        for (unsigned short i = 1; i <= GOOD; ++i)
        {
            const TZolVekKey uiFrom = zolVekKey(7, i);
            const TZolVekKey uiTo = zolVekKey(7, static_cast<std::uint16_t>(i % GOOD + 1));
            ASSERT_TRUE(oGood[i - 1u].send(frame(1, uiFrom, uiTo, word32(2 * uiRound)).wire() +
                                           frame(1, uiFrom, uiTo, word32(2 * uiRound + 1)).wire()));
        }
        for (unsigned short i = 1; i <= GOOD; ++i)
        {
            for (unsigned int j = 0; j < 2; ++j)
            {
                const SFrame oGot = next(oGood[i - 1u]);
                ASSERT_EQ((i + GOOD - 2) % GOOD + 1, oGot.m_usSrcHandle);
                ASSERT_EQ(2 * uiRound + j, readWord32(oGot.m_strBody, 0));
            }
        }
    }
    oHostile.join();
    EXPECT_EQ(std::uint64_t{GOOD} * uiRounds * 2, gateway().statistics().m_ulFramesOut);
    oClients.clear();
    EXPECT_TRUE(waitUntil([&] { return gateway().connections() == GOOD && gateway().memoryBytes() == 0; }))
        << gateway().connections() << " " << gateway().memoryBytes();
}

// A connection that cannot be taken, not even to be closed, must not wake the loop for ever.
TEST(ListenerTest, AsksForARestWhenItCannotTakeAConnection)
{
    SZolVekSettings oSettings;
    oSettings.m_uiListenPort = 0;
    CZolVekListener oListener;
    std::string strError;
    ASSERT_TRUE(oListener.open(oSettings, strError)) << strError;
    const CRawPipe oWaiting = CRawPipe::connectTo(oListener.port());
    std::uint32_t uiAddress = 0;
    std::uint16_t usPort = 0;
    rlimit oOld{};
    getrlimit(RLIMIT_NOFILE, &oOld);
    rlimit oNone = oOld;
    oNone.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &oNone);
    const int iNone = oListener.accept(uiAddress, usPort);
    const bool bExhausted = oListener.isExhausted();
    setrlimit(RLIMIT_NOFILE, &oOld);
    EXPECT_EQ(-1, iNone);
    EXPECT_TRUE(bExhausted);
    const int iTaken = oListener.accept(uiAddress, usPort);
    EXPECT_GE(iTaken, 0) << "it still waits, and the reserve is there again";
    EXPECT_EQ(-1, oListener.accept(uiAddress, usPort));
    EXPECT_FALSE(oListener.isExhausted()) << "nothing waits";
    close(iTaken);
}

} // namespace
