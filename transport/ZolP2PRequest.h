#ifndef ZOL_TRANSPORT_ZOLP2PREQUEST_H
#define ZOL_TRANSPORT_ZOLP2PREQUEST_H

#include "ZolMsgPdu.h"
#include "transport/ZolConnection.h"

#include <ace/Thread_Mutex.h>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>
#include <unordered_set>

/// A direct request in hand, from before its payload is read until its connection is closed. The destructor closes the
/// connection, frees the request and lets the next one be read that waits for its room.
struct SZolP2PRequest
{
    /// For a request that CZolP2PDesk has admitted. No memory left: m_poPdu is null.
    SZolP2PRequest(const CZolConnRef &oConn, const CZolMsgPdu &oHeader);
    ~SZolP2PRequest();
    SZolP2PRequest(const SZolP2PRequest &) = delete;
    SZolP2PRequest &operator=(const SZolP2PRequest &) = delete;

    CZolConnection *m_poConn; ///< accepted, in no table; one reference of it is owned
    CZolMsgPdu *m_poPdu;      ///< owned; host order, the payload not yet read
    const std::uint32_t m_ulData;
};

/// What the process holds of direct requests, and the bounds of it. The built-in task serves one after the other, so
/// all the others wait, and what a peer sends must not pile up meanwhile:
///
///   - Those in hand have 64 MiB together besides the largest of them: a request of any size is taken beside small
///     ones, a second large one is not. It stays with its sender, unread, until there is room.
///   - 4,096 requests in all, the unread ones included. Another one is refused.
///
/// Threads: any; the reactor's thread admits, the built-in task's ends.
class CZolP2PDesk
{
public:
    static constexpr std::uint64_t BYTES_BESIDES_LARGEST = 64U << 20;
    static constexpr std::size_t MAX_REQUESTS = 4096;

    enum EnumAdmission
    {
        ADMITTED, ///< counted; to be read now
        WAITING,  ///< kept here until next() hands it out
        REFUSED   ///< nothing was kept
    };

    static CZolP2PDesk &instance();

    /// For a request of which the header, in host order, has come.
    EnumAdmission admit(const CZolConnRef &oConn, const CZolMsgPdu &oHeader);

    /// The request that has waited longest, if there is room for it now, counted as admitted.
    bool next(CZolConnRef &oConn, CZolMsgPdu &oHeader);

    /// An admitted request of so much payload is gone.
    void end(std::uint32_t ulData);

    /// True, once for each call of next(), if next() would hand one out.
    bool hasToWake();
    void wakeFailed(); ///< the next end of a request tries again

    /// Another bound, for less memory or for a test; holds from the next admission.
    void setBytesBesidesLargest(std::uint64_t ulBytes);

    std::size_t countWaiting();
    std::size_t countInHand();

    /// The address of a request travels in a message, and messages can be forged: take() takes it out of the set of
    /// those that are under way, and tells whether it was there. Whoever gets true owns the request.
    void hand(const SZolP2PRequest *poRequest);
    bool take(const SZolP2PRequest *poRequest);

private:
    struct SUnread
    {
        CZolConnRef m_oConn;
        CZolMsgPdu m_oHeader;
    };

    bool hasRoom(std::uint32_t ulData) const; // caller: m_oLock
    void count(std::uint32_t ulData);         // caller: m_oLock

    ACE_Thread_Mutex m_oLock;              // leaf; guards what follows
    std::multiset<std::uint32_t> m_oSizes; // payloads in hand
    std::uint64_t m_ulBytes = 0;           // their sum
    std::uint64_t m_ulBesides = BYTES_BESIDES_LARGEST;
    std::deque<SUnread> m_oUnread;                          // longest waiting first
    bool m_bWoken = false;                                  // next() is on its way
    std::unordered_set<const SZolP2PRequest *> m_oUnderWay; // between the reactor and the built-in task
};

#endif
