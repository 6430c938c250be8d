#include "ZolMemMan.h"

#include "message/ZolHeapCache.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <new>
#include <pthread.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(addr, size) (static_cast<void>(addr), static_cast<void>(size))
#define ASAN_UNPOISON_MEMORY_REGION(addr, size) (static_cast<void>(addr), static_cast<void>(size))
#endif

namespace
{

// Size of a block of each class, and the largest request that the class serves.
const unsigned int BLOCK_SIZE[CZolMemMan::CLASS_COUNT] = {512, 2048, 131072};

// The class that serves a request; CLASS_COUNT for none.
unsigned int classOf(unsigned int uiSize)
{
    unsigned int uiClass = 0;
    while (uiClass < CZolMemMan::CLASS_COUNT && uiSize > BLOCK_SIZE[uiClass])
    {
        ++uiClass;
    }
    return uiClass;
}

// Sanitizers are to see each block that a message was in, and who freed it: no cache then.
#ifdef ZOL_SANITIZED
void *heapAlloc(unsigned int uiSize)
{
    return new (std::nothrow) char[uiSize];
}

void heapFree(void *pvMem)
{
    delete[] static_cast<char *>(pvMem);
}
#else
void *heapAlloc(unsigned int uiSize)
{
    return CZolHeapCache::allocMem(uiSize);
}

void heapFree(void *pvMem)
{
    CZolHeapCache::freeMem(pvMem);
}
#endif

// How a thread keeps out of the way of others at the pool. The time that it stays away doubles from one collision to
// the next, and starts small again after as many requests in a row that met nobody.
struct SPoolManners
{
    unsigned int m_uiAway = 0;                 // requests for which it leaves the pool alone from now on
    unsigned int m_uiNextAway = SHORTEST_AWAY; // after the next collision
    unsigned int m_uiCalm = 0;                 // requests since the last one

    static constexpr unsigned int SHORTEST_AWAY = 8;
    static constexpr unsigned int LONGEST_AWAY = 1024;
    static constexpr unsigned int CALM_REQUESTS = 64;

    void collided()
    {
        m_uiAway = m_uiNextAway;
        m_uiNextAway = std::min(2 * m_uiNextAway, LONGEST_AWAY);
        m_uiCalm = 0;
    }
    void metNobody()
    {
        if (m_uiNextAway > SHORTEST_AWAY && ++m_uiCalm == CALM_REQUESTS)
        {
            *this = SPoolManners();
        }
    }
};
thread_local SPoolManners t_oManners __attribute__((tls_model("initial-exec")));

// A lock that is held for one list operation is worth a short spin before a thread sleeps for it.
ACE_mutexattr_t *adaptive()
{
    static ACE_mutexattr_t oAttributes;
    static const int iResult = pthread_mutexattr_init(&oAttributes) == 0
                                   ? pthread_mutexattr_settype(&oAttributes, PTHREAD_MUTEX_ADAPTIVE_NP)
                                   : -1;
    return iResult == 0 ? &oAttributes : nullptr;
}

} // namespace

// ---- CZolMemBlock -------------------------------------------------------------------------------------------------

CZolMemBlock::CZolMemBlock() : m_poNext(nullptr), m_acData{} {}

CZolMemBlock *CZolMemBlock::allocMem(unsigned int uiSize)
{
    const auto uiTotal = static_cast<unsigned int>(uiSize + ZOL_BLOCK_HEADER);
    if (uiTotal < uiSize)
    {
        errno = ENOMEM;
        return nullptr;
    }
    return static_cast<CZolMemBlock *>(CZolMemMan::instance()->allocMem(uiTotal));
}

void CZolMemBlock::freeMem(CZolMemBlock *poBlock)
{
    CZolMemMan::instance()->freeMem(poBlock);
}

char *CZolMemBlock::getData(CZolMemBlock *poBlock)
{
    return poBlock == nullptr ? nullptr : reinterpret_cast<char *>(poBlock) + ZOL_BLOCK_HEADER;
}

// ---- CZolMemList --------------------------------------------------------------------------------------------------

void CZolMemList::insert(CZolMemBlock *poBlock)
{
    if (poBlock == nullptr)
    {
        return;
    }
    poBlock->m_poNext = nullptr;
    (m_poTail == nullptr ? m_poHead : m_poTail->m_poNext) = poBlock;
    m_poTail = poBlock;
    ++m_ulCount;
}

void CZolMemList::append(const CZolMemList &oOther)
{
    if (oOther.m_ulCount == 0)
    {
        return;
    }
    if (m_ulCount == 0)
    {
        *this = oOther;
        return;
    }
    m_poTail->m_poNext = oOther.m_poHead;
    m_poTail = oOther.m_poTail;
    m_ulCount += oOther.m_ulCount;
}

CZolMemBlock *CZolMemList::popHead()
{
    CZolMemBlock *const poBlock = m_poHead;
    if (poBlock == nullptr)
    {
        return nullptr;
    }
    m_poHead = poBlock->m_poNext;
    if (m_poHead == nullptr)
    {
        m_poTail = nullptr;
    }
    --m_ulCount;
    return poBlock;
}

void CZolMemList::deleteHead()
{
    CZolMemBlock::freeMem(popHead());
}

void CZolMemList::deleteAll()
{
    while (m_poHead != nullptr)
    {
        deleteHead();
    }
}

// ---- CZolMemMan ---------------------------------------------------------------------------------------------------

std::atomic<CZolMemMan *> CZolMemMan::sm_poInstance{nullptr};

CZolMemMan *CZolMemMan::create(unsigned int uiSmall, unsigned int uiMedium, unsigned int uiLarge)
{
    static std::once_flag oOnce;
    std::call_once(oOnce, [=] { sm_poInstance.store(new CZolMemMan(uiSmall, uiMedium, uiLarge)); });
    return sm_poInstance.load(std::memory_order_acquire);
}

CZolMemMan::CZolMemMan(unsigned int uiSmall, unsigned int uiMedium, unsigned int uiLarge)
    : m_oMutex(USYNC_THREAD, nullptr, adaptive())
{
    buildPool(0, uiSmall);
    buildPool(1, uiMedium);
    buildPool(2, uiLarge);
}

CZolMemMan::~CZolMemMan()
{
    for (SZolMemPool &oPool : m_arrPool)
    {
        ASAN_UNPOISON_MEMORY_REGION(oPool.m_pcBase, oPool.m_ulBytes);
        delete[] oPool.m_pcBase;
    }
}

void CZolMemMan::buildPool(unsigned int uiClass, unsigned int uiCount)
{
    if (uiCount == 0)
    {
        return;
    }
    SZolMemPool &oPool = m_arrPool[uiClass];
    const unsigned long long ulBytes = static_cast<unsigned long long>(uiCount) * BLOCK_SIZE[uiClass];
    if (ulBytes <= 0xFFFFFFFF)
    {
        oPool.m_pcBase = new (std::nothrow) char[ulBytes];
    }
    if (oPool.m_pcBase == nullptr)
    {
        errno = ENOMEM;
        return;
    }
    oPool.m_ulBytes = static_cast<ACE_UINT32>(ulBytes);
    for (unsigned int uiBlock = 0; uiBlock < uiCount; ++uiBlock)
    {
        giveToPool(uiClass, oPool.m_pcBase + static_cast<std::size_t>(uiBlock) * BLOCK_SIZE[uiClass]);
    }
}

void *CZolMemMan::allocMem(unsigned int uiSize)
{
    if (uiSize == 0)
    {
        return nullptr;
    }
    const unsigned int uiClass = classOf(uiSize);
    void *pvMem = uiClass < CLASS_COUNT ? takeFromPool(uiClass, uiSize) : nullptr;
    if (pvMem == nullptr)
    {
        pvMem = heapAlloc(uiSize);
    }
    if (pvMem == nullptr)
    {
        errno = ENOMEM;
    }
    return pvMem;
}

void CZolMemMan::freeMem(void *pvMem)
{
    if (pvMem == nullptr)
    {
        return;
    }
    // the regions never move: where the address belongs is known without the lock
    for (unsigned int uiClass = 0; uiClass < CLASS_COUNT; ++uiClass)
    {
        const SZolMemPool &oPool = m_arrPool[uiClass];
        if (reinterpret_cast<std::uintptr_t>(pvMem) - reinterpret_cast<std::uintptr_t>(oPool.m_pcBase) <
            oPool.m_ulBytes)
        {
            giveToPool(uiClass, pvMem);
            return;
        }
    }
    heapFree(pvMem);
}

// Two threads that meet at the lock, say one that sends and one that handles, would from then on hand its cache line to
// and fro with every message, which costs more than the rest of the message's way. So nobody waits here: who finds the
// lock taken goes to the heap, whose caches are the thread's own, and stays there for a while, the longer the more
// often it happens: a single meeting costs next to nothing.
void *CZolMemMan::takeFromPool(unsigned int uiClass, unsigned int uiSize)
{
    SZolMemPool &oPool = m_arrPool[uiClass];
    if (oPool.m_ulFree.load(std::memory_order_relaxed) == 0)
    {
        return nullptr;
    }
    SPoolManners &oManners = t_oManners;
    if (oManners.m_uiAway > 0)
    {
        --oManners.m_uiAway;
        return nullptr;
    }
    if (m_oMutex.tryacquire() != 0)
    {
        oManners.collided();
        return nullptr;
    }
    CZolMemBlock *const poBlock = oPool.m_oFreeList.popHead();
    oPool.m_ulFree.store(oPool.m_oFreeList.m_ulCount, std::memory_order_relaxed);
    m_oMutex.release();
    oManners.metNobody();
    if (poBlock != nullptr)
    {
        ASAN_UNPOISON_MEMORY_REGION(poBlock, uiSize);
    }
    return poBlock;
}

// A free block is out of bounds to everyone behind its link, so that a use after the release is seen.
void CZolMemMan::giveToPool(unsigned int uiClass, void *pvMem)
{
    SZolMemPool &oPool = m_arrPool[uiClass];
    ASAN_POISON_MEMORY_REGION(static_cast<char *>(pvMem) + ZOL_BLOCK_HEADER, BLOCK_SIZE[uiClass] - ZOL_BLOCK_HEADER);
    const CZolGuard oGuard(m_oMutex);
    oPool.m_oFreeList.insert(static_cast<CZolMemBlock *>(pvMem));
    oPool.m_ulFree.store(oPool.m_oFreeList.m_ulCount, std::memory_order_relaxed);
}

void CZolMemMan::getPoolUse(unsigned int uiClass, std::uint64_t &ulFree, std::uint64_t &ulTotal) const
{
    const SZolMemPool &oPool = m_arrPool[uiClass];
    ulFree = oPool.m_ulFree.load(std::memory_order_relaxed);
    ulTotal = oPool.m_ulBytes / BLOCK_SIZE[uiClass];
}
