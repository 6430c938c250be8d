#ifndef ZOL_MESSAGE_ZOLHEAPCACHE_H
#define ZOL_MESSAGE_ZOLHEAPCACHE_H

#include <cstddef>

/// The heap behind the pool of the messages: new[] and delete[], with caches of freed blocks in front.
///
/// A message is as a rule taken by one thread and freed by another, which is what a general heap does worst: the freed
/// block has to travel back to where it came from, under a lock, one by one. Here each thread keeps, for each size
/// class, two magazines: arrays of up to 128 pointers to free blocks. A full one goes to the depot of the class as a
/// whole, where a thread with empty ones finds it: one lock for some hundred messages, and taking a block touches no
/// memory of the block itself, which is still in the cache of the other processor.
///
///     consumer:  free -> its magazine, full -> depot of the class -> empty magazine of the producer -> alloc
///
/// Large blocks are cached too: the heap gives them back to the system at once, and the pages of the next one would be
/// handed out and cleared again, which takes longer than copying a message into them.
///
/// Memory:  a block carries a word in front that names its class. A magazine holds about 16 KiB of blocks (4 to 128 of
///          them, or one above 32 KiB), a thread two magazines of each class that it uses, all depots together at most
///          MAX_DEPOT_BYTES: the room of a full queue of messages, so that a second burst finds the blocks of the
///          first. What does not fit goes back to the heap, and from there now and then to the system. A thread that
///          ends leaves what it holds to the depots. A request above LARGEST is passed straight on.
/// Threads: any. A block may be freed by another thread than took it, also by one whose cache is gone already.
/// Errors:  null when the heap gives nothing. errno is left to the caller.
class CZolHeapCache
{
public:
    static void *allocMem(std::size_t uiSize); ///< aligned as new[] aligns
    static void freeMem(void *pvMem);          ///< pvMem came from allocMem and is not null

    static std::size_t depotBytes(); ///< held by all depots at this moment

    static constexpr std::size_t LARGEST = 2097152;                   ///< bytes of the largest cached request, about
    static constexpr std::size_t MAX_DEPOT_BYTES = 128 * 1024 * 1024; ///< of all depots together
};

#endif
