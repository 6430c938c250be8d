#ifndef ZOL_TRANSPORT_ZOLPIPETABLE_H
#define ZOL_TRANSPORT_ZOLPIPETABLE_H

#include "transport/ZolConnection.h"
#include "transport/ZolWriterFirstLock.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_set>
#include <vector>

/// All pipes of the process, by descriptor and by the identity of the far end: who enters, who leaves, and how a pipe
/// goes down. The gateway's stands under identity 0, 0. One that is down has the descriptor -1; one that a peer opened
/// is gone when it goes down, and one that this process opened keeps its key.
///
/// Threads:   any.
/// Ownership: the table holds one reference of each connection in it.
/// Locks:     m_oConnLock is its own and nobody else's. It is held for look-ups and changes only: nothing blocks under
///            it, no connect, no sending, no queueing. Writers go first.
class CZolPipeTable
{
public:
    CZolPipeTable() = default;
    ~CZolPipeTable();
    CZolPipeTable(const CZolPipeTable &) = delete;
    CZolPipeTable &operator=(const CZolPipeTable &) = delete;

    /// Null, and a line unless it was closed here, for a descriptor of no pipe.
    CZolConnRef find(ACE_HANDLE oHandle);
    CZolConnRef find(unsigned short usProcID, unsigned short usProcHandle); ///< null: the key is free

    /// The pipe for a message in host order: the direct one if it is up, else the gateway's, up or not. Null: none.
    CZolConnRef choose(const CZolMsgPdu &oPdu);

    /// Whether a message for that process has a way.
    bool isConnected(unsigned short usProcID, unsigned short usProcHandle);

    std::vector<CZolConnRef> getAll(); ///< in ascending order of descriptors, those that are down last
    std::string dump();                ///< a line of each
    void count(unsigned int &uiUp, unsigned int &uiAll);

    /// Enters under the present descriptor, and with bByProcess under the identity of the far end as well.
    void add(const CZolConnRef &oConn, bool bByProcess);

    /// Enters an accepted pipe under that identity if fnAnswer, called in the same hold, gives 0; else its result.
    /// So whoever has seen the answer finds the pipe in the table. fnAnswer must not wait, and not come back here.
    int addAnswered(const CZolConnRef &oConn, unsigned short usProcID, unsigned short usProcHandle,
                    const std::function<int()> &fnAnswer);

    /// Enters a pipe that came up again under its new descriptor. False if another thread has done so, or it is down
    /// again: then the rest is not the caller's either.
    bool rekey(CZolConnection *poConn);

    /// Takes out of both tables and hands over the table's reference; null as find().
    CZolConnRef remove(ACE_HANDLE oHandle);

    /// Takes a pipe down, if it is still in that life. No lock may be held: closing waits for its senders to leave.
    void close(CZolConnection *poConn, unsigned int uiLife);
    void close(ACE_HANDLE oHandle);

    /// Closes the gateway's pipe and takes it out, if there is one.
    void removeGateway();

    /// Grows with each change of the tables or of a status; answers that were kept hold until then.
    std::uint64_t getVersion() const { return m_ulVersion.load(std::memory_order_acquire); }
    void pipesChanged() { m_ulVersion.fetch_add(1, std::memory_order_release); }

private:
    // Descriptors in ascending order; the invalid one, -1, comes last.
    struct SHandleLess
    {
        bool operator()(ACE_HANDLE oLeft, ACE_HANDLE oRight) const
        {
            return static_cast<unsigned int>(oLeft) < static_cast<unsigned int>(oRight);
        }
    };
    using HandleMap = std::multimap<ACE_HANDLE, CZolConnection *, SHandleLess>;
    using ProcMap = std::map<unsigned short, std::map<unsigned short, CZolConnection *>>;

    // For all of these the caller holds m_oConnLock, exclusive but for the first two.
    CZolConnection *findHandle(ACE_HANDLE oHandle) const;
    CZolConnection *findProc(unsigned short usProcID, unsigned short usProcHandle) const;
    void enter(CZolConnection *poConn, ACE_HANDLE oKey);
    void enterProc(CZolConnection *poConn);
    void leave(CZolConnection *poConn);
    CZolConnRef unlink(ACE_HANDLE oHandle);
    CZolConnRef unlinkDown(CZolConnection *poConn);

    CZolWriterFirstLock m_oConnLock; // before m_oStatusLock of a connection
    HandleMap m_oHandleMap;          // guarded by m_oConnLock; holds the references
    ProcMap m_oProcMap;              // guarded by m_oConnLock; each connection in it stands in m_oHandleMap too
    // Guarded by m_oConnLock. Descriptors of pipes that were taken down here: until they have left the reactor, and
    // while it calls on account of what it saw before, they are asked for in vain, and that is no fault. Each stays
    // until its number is a pipe's again.
    std::unordered_set<ACE_HANDLE> m_oClosedHandles;
    std::atomic<std::uint64_t> m_ulVersion{1};
};

#endif
