#include "message/ZolHeapCache.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <pthread.h>
#include <random>
#include <set>
#include <thread>
#include <vector>

// A burst that one thread takes and another frees comes back to the first: the second burst needs no new memory.
TEST(HeapCacheTest, BurstTravelsBackToItsProducer)
{
    const size_t BURST = 20000;
    std::set<void *> oFirst;
    std::vector<void *> oBlocks;
    size_t uiAgain = 0;
    for (int iRound = 0; iRound < 2; ++iRound)
    {
        for (size_t uiBlock = 0; uiBlock < BURST; ++uiBlock)
        {
            oBlocks.push_back(CZolHeapCache::allocMem(144));
            uiAgain += oFirst.count(oBlocks.back());
        }
        std::thread(
            [&]
            {
                for (void *const pvBlock : oBlocks)
                {
                    CZolHeapCache::freeMem(pvBlock);
                }
            })
            .join(); // and the thread's end gives back what it still held
        oFirst.insert(oBlocks.begin(), oBlocks.end());
        oBlocks.clear();
    }
    EXPECT_EQ(BURST, uiAgain);
}

TEST(HeapCacheTest, DepotsAreBounded)
{
    std::vector<void *> oBlocks;
    const size_t uiBlocks = CZolHeapCache::MAX_DEPOT_BYTES / 32000 * 3 / 2;
    for (size_t uiBlock = 0; uiBlock < uiBlocks; ++uiBlock)
    {
        oBlocks.push_back(CZolHeapCache::allocMem(32000)); // hardly written: most pages cost nothing
    }
    for (void *const pvBlock : oBlocks)
    {
        CZolHeapCache::freeMem(pvBlock);
        ASSERT_LE(CZolHeapCache::depotBytes(), CZolHeapCache::MAX_DEPOT_BYTES);
    }
    EXPECT_GT(CZolHeapCache::depotBytes(), CZolHeapCache::MAX_DEPOT_BYTES / 10 * 9) << "the room is not used";
}

namespace
{

void freeAtTheEnd(void *pvBlock)
{
    CZolHeapCache::freeMem(pvBlock);
    CZolHeapCache::freeMem(CZolHeapCache::allocMem(200));
}

} // namespace

// Thread-specific data of the application may hold messages, and its destructors run in an order of their own: some
// after the cache of the thread is gone.
TEST(HeapCacheTest, FreeAfterTheThreadsCacheIsGone)
{
    pthread_key_t aKeys[4];
    for (pthread_key_t &uiKey : aKeys)
    {
        ASSERT_EQ(0, pthread_key_create(&uiKey, freeAtTheEnd));
    }
    std::thread(
        [&]
        {
            for (const pthread_key_t uiKey : aKeys)
            {
                pthread_setspecific(uiKey, CZolHeapCache::allocMem(200));
            }
        })
        .join();
    for (const pthread_key_t uiKey : aKeys)
    {
        pthread_key_delete(uiKey);
    }
}

// Threads that come and go swap blocks of random sizes through a shared table: each block is aligned as the heap aligns
// and still holds its owner's mark when it is freed elsewhere. Under the thread sanitizer this also shows each
// hand-over to be ordered.
TEST(HeapCacheTest, RandomTrafficBetweenThreads)
{
    struct SSlot
    {
        std::mutex m_oLock;
        unsigned char *m_pcBlock = nullptr;
        size_t m_uiSize = 0;
    };
    std::vector<SSlot> oSlots(512);
    std::atomic<unsigned int> uiBroken{0};
    const auto fnSwap = [&](unsigned int uiSeed)
    {
        std::mt19937 oRandom(uiSeed);
        for (int iStep = 0; iStep < 20000; ++iStep)
        {
            const size_t uiSize = 1 + oRandom() % (oRandom() % 8 == 0 ? 40000 : 1500);
            auto *pcBlock = static_cast<unsigned char *>(CZolHeapCache::allocMem(uiSize));
            uiBroken += reinterpret_cast<std::uintptr_t>(pcBlock) % 16 != 0;
            memset(pcBlock, static_cast<int>(uiSize & 0xFF), uiSize);
            SSlot &oSlot = oSlots[oRandom() % oSlots.size()];
            size_t uiOld = uiSize;
            {
                const std::lock_guard<std::mutex> oGuard(oSlot.m_oLock);
                std::swap(pcBlock, oSlot.m_pcBlock);
                std::swap(uiOld, oSlot.m_uiSize);
            }
            if (pcBlock != nullptr)
            {
                const unsigned char ucMark = uiOld & 0xFF;
                uiBroken += pcBlock[0] != ucMark || pcBlock[uiOld / 2] != ucMark || pcBlock[uiOld - 1] != ucMark;
                CZolHeapCache::freeMem(pcBlock);
            }
        }
    };
    for (unsigned int uiWave = 0; uiWave < 3; ++uiWave)
    {
        std::vector<std::thread> oThreads;
        for (unsigned int uiThread = 0; uiThread < 4; ++uiThread)
        {
            oThreads.emplace_back(fnSwap, uiWave * 16 + uiThread);
        }
        for (std::thread &oThread : oThreads)
        {
            oThread.join();
        }
    }
    for (SSlot &oSlot : oSlots)
    {
        if (oSlot.m_pcBlock != nullptr)
        {
            CZolHeapCache::freeMem(oSlot.m_pcBlock);
        }
    }
    EXPECT_EQ(0u, uiBroken);
}
