#ifndef ZOL_MEM_MAN_H
#define ZOL_MEM_MAN_H

#include "ZolExport.h"
#include "ZolLock.h"
#include "ZolMsgPdu.h"

#include <ace/Mutex.h>
#include <atomic>
#include <cstddef>
#include <cstdint>

/// A piece of memory with a link word in front, so that a message moves from queue to queue without a copy. For a
/// message the payload of the block is the PDU:
///
///     m_poNext | m_acData = header of the PDU, payload of the PDU ...
class ZOL_EXPORT CZolMemBlock
{
public:
    CZolMemBlock();

    /// A block with room for uiSize bytes behind the link, or null with errno ENOMEM. The link is not set.
    static CZolMemBlock *allocMem(unsigned int uiSize);
    static void freeMem(CZolMemBlock *poBlock); ///< null is ignored

    /// Where the payload begins; null for null.
    static char *getData(CZolMemBlock *poBlock);

    CZolMemBlock *m_poNext;        ///< next block of the list that the block is on
    char m_acData[sizeof(void *)]; ///< first bytes of the payload, which runs on to the end of the allocation
};

/// Bytes of a block in front of its payload.
constexpr std::size_t ZOL_BLOCK_HEADER = sizeof(void *);
static_assert(offsetof(CZolMemBlock, m_acData) == ZOL_BLOCK_HEADER, "a PDU stands directly behind the link");

/// The two views of a message. Plain address arithmetic also for null: zolBlockOf(null) is no null pointer but the one
/// address that zolPduOf turns into null again. Done on integers, since a compiler may take a pointer that was computed
/// from another for non-null and drop the tests behind it.
inline CZolMemBlock *zolBlockOf(CZolMsgPdu *poPdu)
{
    return reinterpret_cast<CZolMemBlock *>(reinterpret_cast<std::uintptr_t>(poPdu) - ZOL_BLOCK_HEADER);
}

inline CZolMsgPdu *zolPduOf(CZolMemBlock *poBlock)
{
    return reinterpret_cast<CZolMsgPdu *>(reinterpret_cast<std::uintptr_t>(poBlock) + ZOL_BLOCK_HEADER);
}

/// Blocks, first in first out, threaded through their link words.
///
/// Threads:   none of its own; whoever owns the list guards it.
/// Ownership: a list that is copied or goes out of scope leaves the blocks alone. Who holds some calls deleteAll(). To
///            take all blocks of a list over, copy it and assign an empty one to it.
class ZOL_EXPORT CZolMemList
{
public:
    CZolMemList() = default;

    void insert(CZolMemBlock *poBlock);     ///< at the tail; null is ignored
    void append(const CZolMemList &oOther); ///< all blocks of the other list, which is to be emptied by its owner
    CZolMemBlock *popHead();                ///< null when empty; the link of the block keeps its old value
    void deleteHead();                      ///< gives the first block back to the pool
    void deleteAll();                       ///< gives every block back to the pool

    ACE_UINT32 m_ulCount = 0;
    CZolMemBlock *m_poHead = nullptr;
    CZolMemBlock *m_poTail = nullptr;
};

/// Free blocks of one size class and the region that they were cut from.
struct SZolMemPool
{
    char *m_pcBase = nullptr; ///< null: no region
    ACE_UINT32 m_ulBytes = 0; ///< size of the region
    CZolMemList m_oFreeList;  ///< guarded by the lock of the pool
    /// Length of m_oFreeList as last left by a holder of the lock: who reads 0 goes to the heap without the lock.
    std::atomic<ACE_UINT32> m_ulFree{0};
};

/// Memory of the messages: a pool of fixed blocks in three size classes, and the heap behind it.
///
///     small    up to    512 bytes    256 blocks
///     medium   up to   2048 bytes     64 blocks
///     large    up to 131072 bytes      0 blocks
///
/// The limits are inclusive and count the link word. A request is served by its own class, else by the heap, also while
/// another thread is at the pool; the caller cannot tell which. Blocks of the pool are reused oldest first. The address
/// alone says where a block belongs.
///
/// Threads:   allocMem() and freeMem() from any thread; a block may be freed by another thread than took it.
/// Memory:    the regions (256 KiB) live as long as the process. The heap keeps freed blocks for reuse, with the bounds
///            that message/ZolHeapCache.h tells.
/// Errors:    null with errno ENOMEM. Nothing is logged.
class ZOL_EXPORT CZolMemMan
{
public:
    /// Counts of blocks. A region that cannot be had leaves its class on the heap, with errno ENOMEM.
    explicit CZolMemMan(unsigned int uiSmall = 256, unsigned int uiMedium = 64, unsigned int uiLarge = 0);
    virtual ~CZolMemMan(); ///< releases the regions; blocks still in use dangle
    CZolMemMan(const CZolMemMan &) = delete;
    CZolMemMan &operator=(const CZolMemMan &) = delete;

    /// The pool of the process, made by the first call with its counts and never destroyed.
    static CZolMemMan *instance(unsigned int uiSmall = 256, unsigned int uiMedium = 64, unsigned int uiLarge = 0)
    {
        CZolMemMan *poInstance = sm_poInstance.load(std::memory_order_acquire); // pairs with the store of create()
        return poInstance != nullptr ? poInstance : create(uiSmall, uiMedium, uiLarge);
    }

    void *allocMem(unsigned int uiSize); ///< null for 0
    void freeMem(void *pvMem);           ///< null is ignored

    static const unsigned int CLASS_COUNT = 3;

    /// Blocks of a size class, 0 small to 2 large: those that are free at this moment, and all of them.
    void getPoolUse(unsigned int uiClass, std::uint64_t &ulFree, std::uint64_t &ulTotal) const;

private:
    static CZolMemMan *create(unsigned int uiSmall, unsigned int uiMedium, unsigned int uiLarge);
    void buildPool(unsigned int uiClass, unsigned int uiCount);
    void *takeFromPool(unsigned int uiClass, unsigned int uiSize);
    void giveToPool(unsigned int uiClass, void *pvMem);

    static std::atomic<CZolMemMan *> sm_poInstance;

    CZolLock<ACE_Mutex, ZOL_RANK_POOL> m_oMutex; // leaf, for the three free lists; held for one list operation
    SZolMemPool m_arrPool[CLASS_COUNT];
};

#endif
