#include "message/ZolHeapCache.h"

#include "ZolLock.h"

#include <ace/Thread_Mutex.h>
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <malloc.h>
#include <new>
#include <pthread.h>

namespace
{

// ---- Size classes -------------------------------------------------------------------------------------------------
// A chunk is what the heap is asked for: a prefix, then the block that the caller sees. Steps of 32 bytes up to 1 KiB,
// then four steps to each doubling. All are 8 less than a round number, since the heap adds a word of its own.

struct alignas(16) SPrefix
{
    std::uint32_t m_uiClass; // index, or NO_CLASS
};

constexpr std::uint32_t NO_CLASS = 0xFFFFFFFF;
constexpr unsigned int FINE_CLASSES = 32;
constexpr std::size_t FINE_STEP = 32;
constexpr std::size_t FINE_LIMIT = FINE_CLASSES * FINE_STEP;
constexpr unsigned int CLASSES = FINE_CLASSES + 44;
constexpr std::size_t OVERHEAD = sizeof(SPrefix) + 8;

static_assert(FINE_LIMIT << ((CLASSES - FINE_CLASSES) / 4) == CZolHeapCache::LARGEST, "four classes to a doubling");

unsigned int classOf(std::size_t uiSize)
{
    const std::size_t uiChunk = uiSize + OVERHEAD;
    if (uiChunk <= FINE_LIMIT)
    {
        return static_cast<unsigned int>((uiChunk - 1) / FINE_STEP);
    }
    // the two bits behind the highest one of uiChunk - 1 are the quarter
    const unsigned int uiHigh = 63 - static_cast<unsigned int>(__builtin_clzll(uiChunk - 1));
    const unsigned int uiQuarter = static_cast<unsigned int>((uiChunk - 1) >> (uiHigh - 2)) & 3;
    return FINE_CLASSES + (uiHigh - 10) * 4 + uiQuarter;
}

constexpr std::size_t chunkBytes(unsigned int uiClass)
{
    if (uiClass < FINE_CLASSES)
    {
        return (uiClass + 1) * FINE_STEP - 8;
    }
    const unsigned int uiCoarse = uiClass - FINE_CLASSES;
    return (std::size_t{5 + uiCoarse % 4} << (8 + uiCoarse / 4)) - 8;
}

void *newChunk(std::uint32_t uiClass, std::size_t uiBytes)
{
    auto *const poPrefix = reinterpret_cast<SPrefix *>(new (std::nothrow) char[uiBytes]);
    if (poPrefix == nullptr)
    {
        return nullptr;
    }
    poPrefix->m_uiClass = uiClass;
    return poPrefix + 1;
}

SPrefix *prefixOf(void *pvBlock)
{
    return static_cast<SPrefix *>(pvBlock) - 1;
}

void deleteChunk(void *pvBlock)
{
    delete[] reinterpret_cast<char *>(prefixOf(pvBlock));
}

// ---- Magazines and their depots -----------------------------------------------------------------------------------

struct SMagazine
{
    static constexpr unsigned int CAPACITY = 128;

    SMagazine *m_poNext = nullptr; // on a list of the depot
    unsigned int m_uiCount = 0;
    void *m_arrBlock[CAPACITY];
};

// How many blocks of a class fill a magazine.
unsigned int roundsOf(unsigned int uiClass)
{
    const std::size_t uiBytes = chunkBytes(uiClass);
    const std::size_t uiLeast = uiBytes <= 32768 ? 4 : 1;
    return static_cast<unsigned int>(std::clamp<std::size_t>(16384 / uiBytes, uiLeast, SMagazine::CAPACITY));
}

// A list of magazines, last in first out: the last one is the most likely to be in a cache of the processor.
class CMagazineStack
{
public:
    void push(SMagazine *poMagazine)
    {
        const CZolGuard oGuard(m_oLock);
        poMagazine->m_poNext = m_poTop;
        m_poTop = poMagazine;
        m_uiCount.fetch_add(1, std::memory_order_relaxed);
    }

    // Null if there is none; a growing process takes no lock to learn that.
    SMagazine *pop()
    {
        if (m_uiCount.load(std::memory_order_relaxed) == 0)
        {
            return nullptr;
        }
        const CZolGuard oGuard(m_oLock);
        SMagazine *const poMagazine = m_poTop;
        if (poMagazine != nullptr)
        {
            m_poTop = poMagazine->m_poNext;
            m_uiCount.fetch_sub(1, std::memory_order_relaxed);
        }
        return poMagazine;
    }

private:
    CZolLock<ACE_Thread_Mutex, ZOL_RANK_POOL> m_oLock; // leaf: held for one push or pop
    SMagazine *m_poTop ZOL_GUARDED_BY(m_oLock) = nullptr;
    std::atomic<unsigned int> m_uiCount{0}; // changed under m_oLock; a hint without it
};

struct SDepots
{
    CMagazineStack m_arrFull[CLASSES];       // with blocks of one class
    CMagazineStack m_oEmpty;                 // of all classes
    std::atomic<std::size_t> m_uiBytes{0};   // of the blocks in m_arrFull
    std::atomic<std::size_t> m_uiDropped{0}; // bytes of all blocks that found no room, since the start
};

SDepots &depots()
{
    static SDepots *const poDepots = new SDepots; // never destroyed: threads outlive main
    return *poDepots;
}

// Empty magazines are cut from slabs and never given back: at most some MiB in all, and they do not lie between the
// messages.
SMagazine *takeEmpty()
{
    SMagazine *const poMagazine = depots().m_oEmpty.pop();
    if (poMagazine != nullptr)
    {
        return poMagazine;
    }
    const unsigned int uiSlab = 128;
    char *const pcSlab = new (std::nothrow) char[uiSlab * sizeof(SMagazine)];
    if (pcSlab == nullptr)
    {
        return nullptr;
    }
    for (unsigned int uiIndex = 1; uiIndex < uiSlab; ++uiIndex)
    {
        depots().m_oEmpty.push(new (pcSlab + uiIndex * sizeof(SMagazine)) SMagazine);
    }
    return new (pcSlab) SMagazine;
}

void putEmpty(SMagazine *poMagazine)
{
    depots().m_oEmpty.push(poMagazine);
}

// Gives the blocks of a magazine back to the heap. The heap by itself returns memory to the system only from its upper
// end, where some block of the burst is always alive: it is asked to once for so many bytes.
void drop(SMagazine *poMagazine, std::size_t uiBytes)
{
    const std::size_t uiTrimEvery = CZolHeapCache::MAX_DEPOT_BYTES / 2;
    while (poMagazine->m_uiCount > 0)
    {
        deleteChunk(poMagazine->m_arrBlock[--poMagazine->m_uiCount]);
    }
    putEmpty(poMagazine);
    const std::size_t uiBefore = depots().m_uiDropped.fetch_add(uiBytes, std::memory_order_relaxed);
    if (uiBefore / uiTrimEvery != (uiBefore + uiBytes) / uiTrimEvery)
    {
        malloc_trim(0);
    }
}

// Takes over a magazine with blocks of a class. Their bytes are counted before the bound is tested, so that threads
// that come at the same time do not pass it together.
void putFull(unsigned int uiClass, SMagazine *poMagazine)
{
    SDepots &oDepots = depots();
    const std::size_t uiBytes = poMagazine->m_uiCount * chunkBytes(uiClass);
    if (oDepots.m_uiBytes.fetch_add(uiBytes, std::memory_order_relaxed) + uiBytes <= CZolHeapCache::MAX_DEPOT_BYTES)
    {
        oDepots.m_arrFull[uiClass].push(poMagazine);
        return;
    }
    oDepots.m_uiBytes.fetch_sub(uiBytes, std::memory_order_relaxed);
    drop(poMagazine, uiBytes);
}

SMagazine *takeFull(unsigned int uiClass)
{
    SMagazine *const poMagazine = depots().m_arrFull[uiClass].pop();
    if (poMagazine != nullptr)
    {
        depots().m_uiBytes.fetch_sub(poMagazine->m_uiCount * chunkBytes(uiClass), std::memory_order_relaxed);
    }
    return poMagazine;
}

// ---- The cache of a thread ----------------------------------------------------------------------------------------

// Two magazines for each class. Allocations empty the first and frees fill it; the second is what keeps a thread that
// does both from running to the depot each time that the first is at its end.
class CThreadCache
{
public:
    ~CThreadCache()
    {
        for (unsigned int uiClass = 0; uiClass < CLASSES; ++uiClass)
        {
            giveBack(uiClass, m_arrSlot[uiClass].m_poFirst);
            giveBack(uiClass, m_arrSlot[uiClass].m_poSecond);
        }
    }

    void *take(unsigned int uiClass)
    {
        SSlot &oSlot = m_arrSlot[uiClass];
        if ((oSlot.m_poFirst == nullptr || oSlot.m_poFirst->m_uiCount == 0) && !refill(uiClass, oSlot))
        {
            return nullptr;
        }
        return oSlot.m_poFirst->m_arrBlock[--oSlot.m_poFirst->m_uiCount];
    }

    // False if there is no memory for a magazine.
    bool give(unsigned int uiClass, void *pvBlock)
    {
        SSlot &oSlot = m_arrSlot[uiClass];
        if ((oSlot.m_poFirst == nullptr || oSlot.m_poFirst->m_uiCount == oSlot.m_uiRounds) && !makeRoom(uiClass, oSlot))
        {
            return false;
        }
        oSlot.m_poFirst->m_arrBlock[oSlot.m_poFirst->m_uiCount++] = pvBlock;
        return true;
    }

private:
    struct SSlot
    {
        SMagazine *m_poFirst = nullptr;
        SMagazine *m_poSecond = nullptr;
        unsigned int m_uiRounds = 0; // blocks that fill a magazine; set with the first magazine
    };

    // Makes the first magazine one with blocks in it. False if neither this thread nor the depot has any.
    static bool refill(unsigned int uiClass, SSlot &oSlot)
    {
        if (oSlot.m_poSecond != nullptr && oSlot.m_poSecond->m_uiCount > 0)
        {
            std::swap(oSlot.m_poFirst, oSlot.m_poSecond);
            return true;
        }
        SMagazine *const poFull = takeFull(uiClass);
        if (poFull == nullptr)
        {
            return false;
        }
        if (oSlot.m_poSecond != nullptr)
        {
            putEmpty(oSlot.m_poSecond);
        }
        oSlot.m_poSecond = oSlot.m_poFirst;
        oSlot.m_poFirst = poFull;
        oSlot.m_uiRounds = roundsOf(uiClass);
        return true;
    }

    // Makes the first magazine one that is not full.
    static bool makeRoom(unsigned int uiClass, SSlot &oSlot)
    {
        if (oSlot.m_poSecond != nullptr && oSlot.m_poSecond->m_uiCount < oSlot.m_uiRounds)
        {
            std::swap(oSlot.m_poFirst, oSlot.m_poSecond);
            return true;
        }
        SMagazine *const poEmpty = takeEmpty();
        if (poEmpty == nullptr)
        {
            return false;
        }
        if (oSlot.m_poSecond != nullptr)
        {
            putFull(uiClass, oSlot.m_poSecond);
        }
        oSlot.m_poSecond = oSlot.m_poFirst;
        oSlot.m_poFirst = poEmpty;
        oSlot.m_uiRounds = roundsOf(uiClass);
        return true;
    }

    static void giveBack(unsigned int uiClass, SMagazine *poMagazine)
    {
        if (poMagazine == nullptr)
        {
            return;
        }
        if (poMagazine->m_uiCount > 0)
        {
            putFull(uiClass, poMagazine);
        }
        else
        {
            putEmpty(poMagazine);
        }
    }

    SSlot m_arrSlot[CLASSES];
};

// The cache of the calling thread is found through a bare pointer, which no destructor of the thread's objects can take
// away: a message that is freed later than the cache goes straight to the heap. The key only brings the end of the
// thread to our notice.
enum class EnumCacheState : unsigned char
{
    UNUSED,
    ALIVE,
    GONE
};

thread_local CThreadCache *t_poCache __attribute__((tls_model("initial-exec"))) = nullptr;
thread_local EnumCacheState t_eState __attribute__((tls_model("initial-exec"))) = EnumCacheState::UNUSED;

void endOfThread(void *pvCache)
{
    t_poCache = nullptr;
    t_eState = EnumCacheState::GONE;
    delete static_cast<CThreadCache *>(pvCache);
}

pthread_key_t threadKey()
{
    static const pthread_key_t uiKey = []
    {
        pthread_key_t uiNew = 0;
        return pthread_key_create(&uiNew, endOfThread) == 0 ? uiNew : PTHREAD_KEYS_MAX;
    }();
    return uiKey;
}

// Makes the cache of a thread at its first use. Null at the end of a thread, or if there is no memory or no key.
CThreadCache *makeCache()
{
    if (t_eState != EnumCacheState::UNUSED)
    {
        return nullptr;
    }
    auto *const poCache = new (std::nothrow) CThreadCache;
    if (poCache != nullptr && pthread_setspecific(threadKey(), poCache) != 0)
    {
        delete poCache;
        t_eState = EnumCacheState::GONE;
        return nullptr;
    }
    t_poCache = poCache;
    t_eState = poCache != nullptr ? EnumCacheState::ALIVE : EnumCacheState::UNUSED;
    return poCache;
}

inline CThreadCache *threadCache()
{
    return t_poCache != nullptr ? t_poCache : makeCache();
}

} // namespace

void *CZolHeapCache::allocMem(std::size_t uiSize)
{
    if (uiSize > LARGEST - OVERHEAD)
    {
        return newChunk(NO_CLASS, uiSize + sizeof(SPrefix));
    }
    const unsigned int uiClass = classOf(uiSize);
    CThreadCache *const poCache = threadCache();
    void *const pvBlock = poCache != nullptr ? poCache->take(uiClass) : nullptr;
    return pvBlock != nullptr ? pvBlock : newChunk(uiClass, chunkBytes(uiClass));
}

void CZolHeapCache::freeMem(void *pvMem)
{
    const std::uint32_t uiClass = prefixOf(pvMem)->m_uiClass;
    CThreadCache *const poCache = uiClass != NO_CLASS ? threadCache() : nullptr;
    if (poCache == nullptr || !poCache->give(uiClass, pvMem))
    {
        deleteChunk(pvMem);
    }
}

std::size_t CZolHeapCache::depotBytes()
{
    return depots().m_uiBytes.load(std::memory_order_relaxed);
}
