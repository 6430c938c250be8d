#ifndef ZOL_TRANSPORT_ZOLBLOCKJOINER_H
#define ZOL_TRANSPORT_ZOLBLOCKJOINER_H

#include "ZolMemMan.h"
#include "ZolMsgPdu.h"

#include <cstdint>
#include <list>
#include <unordered_map>

/// A big message being joined: its blocks so far, oldest first, each a whole PDU in a block of its own.
struct SZolBigMsgItem
{
    CZolMemList *m_poBlockList;   ///< owned
    unsigned short m_usSrcProcID; ///< with the handle: the source, of which one message is joined at a time
    unsigned short m_usSrcProcHandle;
    unsigned short m_usLastSegment; ///< number of the block at the tail
    std::uint64_t m_ulDataBytes;    ///< sum of the data lengths; 64 bits, since a peer chooses the summands
};

/// Joins the blocks of big messages: numbered 1, 2, 3 and so on, and 0 for the last, one message of a source (process
/// id and handle) at a time. Blocks of other sources may come in between.
///
/// Threads:   one at a time; no lock.
/// Owner:     the receive side of one connection.
/// Ownership: blocks that were kept, until they are joined, out of order, or reset.
/// Errors:    -1, with the line that says what is wrong with the block.
class CZolBlockJoiner
{
public:
    CZolBlockJoiner() = default;
    ~CZolBlockJoiner() { reset(); }
    CZolBlockJoiner(const CZolBlockJoiner &) = delete;
    CZolBlockJoiner &operator=(const CZolBlockJoiner &) = delete;

    /// Takes a block over. 0: kept, and poWhole is null; or it was the last one, and poWhole is the message, the
    /// caller's.
    int add(CZolMsgPdu *poPdu, CZolMsgPdu *&poWhole);

    /// Keeps a block that is not the last one: 0, or -1 and it is still the caller's.
    int saveBigMsgBlock(CZolMsgPdu *poPdu);

    void reset(); ///< drops what is not complete

private:
    using BigMsgList = std::list<SZolBigMsgItem *>;

    static CZolMsgPdu *join(SZolBigMsgItem *poItem, CZolMsgPdu *poLast);
    static void freeBlocks(SZolBigMsgItem *poItem);

    BigMsgList m_oBigMsgList;                                               // owned; in the order of first blocks
    std::unordered_map<std::uint32_t, BigMsgList::iterator> m_oBigMsgIndex; // by source process id and handle
};

#endif
