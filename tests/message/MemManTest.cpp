#include "ZolMemMan.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

std::uint64_t freeBlocks(const CZolMemMan &oMan, unsigned int uiClass)
{
    std::uint64_t ulFree = 0;
    std::uint64_t ulTotal = 0;
    oMan.getPoolUse(uiClass, ulFree, ulTotal);
    return ulFree;
}

void fill(void *pvMem, unsigned int uiSize)
{
    memset(pvMem, 0x5A, uiSize); // a sanitizer sees a block that is too small
}

} // namespace

// The limits are inclusive, and each class serves only its own requests.
TEST(MemManTest, ClassEdges)
{
    const struct
    {
        unsigned int uiSize, uiSmall, uiMedium, uiLarge; // what the request takes from each class
    } aCases[] = {{1, 1, 0, 0},    {512, 1, 0, 0},    {513, 0, 1, 0},   {2048, 0, 1, 0},
                  {2049, 0, 0, 1}, {131072, 0, 0, 1}, {131073, 0, 0, 0}};
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.uiSize);
        CZolMemMan oMan(2, 2, 2);
        void *const pvMem = oMan.allocMem(oCase.uiSize);
        ASSERT_NE(nullptr, pvMem);
        fill(pvMem, oCase.uiSize);
        EXPECT_EQ(2 - oCase.uiSmall, freeBlocks(oMan, 0));
        EXPECT_EQ(2 - oCase.uiMedium, freeBlocks(oMan, 1));
        EXPECT_EQ(2 - oCase.uiLarge, freeBlocks(oMan, 2));
        oMan.freeMem(pvMem);
        EXPECT_EQ(6u, freeBlocks(oMan, 0) + freeBlocks(oMan, 1) + freeBlocks(oMan, 2));
    }
}

// An empty class goes to the heap and not to its neighbour; what came from the heap never lands on a free list.
TEST(MemManTest, ExhaustedClassFallsBackToTheHeap)
{
    CZolMemMan oMan(2, 2, 0);
    void *const pvFirst = oMan.allocMem(10);
    void *const pvSecond = oMan.allocMem(10);
    void *const pvHeap = oMan.allocMem(10);
    ASSERT_NE(nullptr, pvHeap);
    EXPECT_EQ(2u, freeBlocks(oMan, 1)) << "borrowed from the medium class";
    oMan.freeMem(pvHeap);
    EXPECT_EQ(0u, freeBlocks(oMan, 0));

    oMan.freeMem(pvSecond);
    oMan.freeMem(pvFirst);
    EXPECT_EQ(pvSecond, oMan.allocMem(512)) << "reused oldest first";
    EXPECT_EQ(pvFirst, oMan.allocMem(512));
}

TEST(MemManTest, RefusesWhatCannotBeHad)
{
    EXPECT_EQ(nullptr, CZolMemBlock::getData(nullptr));
    CZolMemBlock::freeMem(nullptr);
    errno = 0;
    EXPECT_EQ(nullptr, CZolMemBlock::allocMem(0xFFFFFFFF)) << "with the link word in front it does not fit any more";
    EXPECT_EQ(ENOMEM, errno);

    errno = 0;
    CZolMemMan oMan(2, 2, 0xFFFFFFFF); // more than the size word of a region can tell
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(0u, freeBlocks(oMan, 2));
    EXPECT_EQ(nullptr, oMan.allocMem(0));
    void *const pvMem = oMan.allocMem(100000);
    ASSERT_NE(nullptr, pvMem) << "the heap serves the class without a region";
    fill(pvMem, 100000);
    oMan.freeMem(pvMem);
    oMan.freeMem(nullptr);
    EXPECT_EQ(2u, freeBlocks(oMan, 1));
}

// A thread that meets another one at the pool goes to the heap, and comes back soon when it is alone again.
TEST(MemManTest, OneMeetingAtThePoolIsSoonForgotten)
{
    CZolMemMan oMan(256, 0, 0);
    void *const pvFirst = oMan.allocMem(1);
    oMan.freeMem(pvFirst);
    const auto fnFromPool = [&]
    {
        void *const pvMem = oMan.allocMem(1);
        const bool bPool = reinterpret_cast<std::uintptr_t>(pvMem) - reinterpret_cast<std::uintptr_t>(pvFirst) < 131072;
        oMan.freeMem(pvMem);
        return bPool;
    };
    std::atomic<bool> bEnd{false};
    std::thread oOther(
        [&]
        {
            while (!bEnd)
            {
                oMan.freeMem(oMan.allocMem(1));
            }
        });
    const auto oLimit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    bool bMet = false;
    while (!bMet && std::chrono::steady_clock::now() < oLimit)
    {
        bMet = !fnFromPool();
    }
    bEnd = true;
    oOther.join();
    ASSERT_TRUE(bMet);
    unsigned int uiAway = 0;
    while (!fnFromPool())
    {
        ++uiAway;
    }
    EXPECT_LE(uiAway, 64U);
}

#ifndef ZOL_SANITIZED
// A sanitizer's own allocator does not live with such a limit.
TEST(MemManDeathTest, ExhaustedHeapIsNullWithErrno)
{
    const auto fnTry = []
    {
        const rlimit oLimit = {256 << 20, 256 << 20};
        setrlimit(RLIMIT_AS, &oLimit);
        errno = 0;
        CZolMsgPdu *const poPdu = new (1u << 30) CZolMsgPdu;
        const bool bRefused = poPdu == nullptr && errno == ENOMEM;
        unsigned int uiSmall = 0; // cached sizes end as well
        CZolMemBlock *poBlock = nullptr;
        CZolMemList oList;
        while ((poBlock = CZolMemBlock::allocMem(4000)) != nullptr)
        {
            oList.insert(poBlock);
            ++uiSmall;
        }
        const bool bEnded = errno == ENOMEM && uiSmall > 1000;
        oList.deleteAll();
        poBlock = CZolMemBlock::allocMem(4000);
        _exit(bRefused && bEnded && poBlock != nullptr ? 0 : 1);
    };
    EXPECT_EXIT(fnTry(), testing::ExitedWithCode(0), "");
}
#endif

TEST(MemManTest, ListKeepsOrderAndSurvivesItsEdges)
{
    CZolMemList oList;
    EXPECT_EQ(nullptr, oList.popHead());
    oList.deleteHead();
    oList.insert(nullptr);
    EXPECT_EQ(0u, oList.m_ulCount);

    CZolMemBlock *apoBlock[3];
    for (CZolMemBlock *&poBlock : apoBlock)
    {
        poBlock = CZolMemBlock::allocMem(40);
        poBlock->m_poNext = poBlock; // a stale link of an earlier list
        oList.insert(poBlock);
    }
    EXPECT_EQ(3u, oList.m_ulCount);
    EXPECT_EQ(apoBlock[0], oList.popHead());
    EXPECT_EQ(apoBlock[1], apoBlock[0]->m_poNext) << "the link of a popped block keeps its value";
    CZolMemBlock::freeMem(apoBlock[0]);
    EXPECT_EQ(apoBlock[1], oList.popHead());
    EXPECT_EQ(apoBlock[2], oList.popHead());
    EXPECT_EQ(nullptr, oList.m_poHead);
    EXPECT_EQ(nullptr, oList.m_poTail);
    EXPECT_EQ(0u, oList.m_ulCount);

    oList.insert(apoBlock[2]);
    oList.insert(apoBlock[1]);
    EXPECT_EQ(apoBlock[2], oList.m_poHead);
    oList.deleteAll();
    EXPECT_EQ(nullptr, oList.m_poTail);
    EXPECT_EQ(256u, freeBlocks(*CZolMemMan::instance(256, 64, 0), 0)) << "a block did not come back";
}

#if defined(__SANITIZE_ADDRESS__)
TEST(MemManDeathTest, UseAfterReleaseIsSeen)
{
    auto *poPdu = new (64) CZolMsgPdu;
    poPdu->init();
    volatile ACE_UINT32 *const puiWord = &poPdu->m_ulDataLength;
    CZolMemBlock::freeMem(zolBlockOf(poPdu)); // what delete does, unseen by the compiler, which would refuse the test
    EXPECT_DEATH(*puiWord = 1, "use-after-poison");
}
#endif

// Messages made by some threads and released by others, of every class, more than the pool holds: no block is handed
// out twice, and at the end every block of the pool is back.
TEST(MemManTest, ManyThreadsShareThePool)
{
    const unsigned int THREADS = 4;
    CZolMemMan &oMan = *CZolMemMan::instance(256, 64, 0);
    std::mutex oLock;
    CZolMemList oQueue;
    std::atomic<unsigned int> uiBroken{0};
    const auto fnRelease = [&](CZolMemBlock *poBlock)
    {
        CZolMsgPdu *const poPdu = zolPduOf(poBlock);
        const auto *const pcPayload = reinterpret_cast<const unsigned char *>(poPdu) + 28;
        for (unsigned int uiByte = 0; uiByte < poPdu->m_ulDataLength; uiByte += 61)
        {
            uiBroken += pcPayload[uiByte] != (poPdu->m_ulCmdID & 0xFF);
        }
        delete poPdu;
    };
    const auto fnWork = [&](unsigned int uiThread)
    {
        const unsigned int aSizes[] = {28, 504, 505, 2040, 2041, 9000};
        for (unsigned int uiMessage = 0; uiMessage < 6000; ++uiMessage)
        {
            const unsigned int uiTotal = aSizes[uiMessage % 6];
            auto *poPdu = new (uiTotal) CZolMsgPdu;
            poPdu->init();
            poPdu->m_ulCmdID = uiMessage * THREADS + uiThread;
            poPdu->m_ulDataLength = uiTotal - 28;
            memset(reinterpret_cast<char *>(poPdu) + 28, static_cast<int>(poPdu->m_ulCmdID & 0xFF), uiTotal - 28);
            CZolMemBlock *poOld = nullptr;
            {
                const std::lock_guard<std::mutex> oGuard(oLock);
                oQueue.insert(zolBlockOf(poPdu));
                poOld = oQueue.m_ulCount > 600 ? oQueue.popHead() : nullptr;
            }
            if (poOld != nullptr)
            {
                fnRelease(poOld);
            }
        }
    };
    std::vector<std::thread> oThreads;
    for (unsigned int uiThread = 0; uiThread < THREADS; ++uiThread)
    {
        oThreads.emplace_back(fnWork, uiThread);
    }
    for (std::thread &oThread : oThreads)
    {
        oThread.join();
    }
    EXPECT_EQ(600u, oQueue.m_ulCount);
    while (CZolMemBlock *const poBlock = oQueue.popHead())
    {
        fnRelease(poBlock);
    }
    EXPECT_EQ(0u, uiBroken);
    EXPECT_EQ(256u, freeBlocks(oMan, 0));
    EXPECT_EQ(64u, freeBlocks(oMan, 1));

    auto *const poEdge = new (505) CZolMsgPdu;
    EXPECT_EQ(63u, freeBlocks(oMan, 1)) << "with the link word in front this is no small message";
    delete poEdge;
}
