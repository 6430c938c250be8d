#ifndef ZOL_MESSAGE_ZOLIDENTITY_H
#define ZOL_MESSAGE_ZOLIDENTITY_H

#include "ZolMsgPdu.h"

#include <atomic>

/// Who this process is to its peers. The start sets it, the gateway may allocate the handle, and the application may
/// replace both; whoever makes a message reads it.
///
/// Threads: any. The two halves are words of their own: a reader during a change may see the old one of one of them.
class CZolIdentity
{
public:
    constexpr CZolIdentity() = default;
    CZolIdentity(const CZolIdentity &) = delete;
    CZolIdentity &operator=(const CZolIdentity &) = delete;

    /// The one of the process.
    static CZolIdentity &own() { return sm_oOwn; }

    unsigned short getProcID() const { return m_usProcID.load(std::memory_order_relaxed); }
    unsigned short getProcHandle() const { return m_usProcHandle.load(std::memory_order_relaxed); }

    /// Whether the message is addressed to this very process: id and handle are both its own.
    bool isDestOf(const CZolMsgPdu &oMsg) const
    {
        return oMsg.m_usDestProcID == getProcID() && oMsg.m_usDestProcHandle == getProcHandle();
    }

    void setProcID(unsigned short usProcID) { m_usProcID.store(usProcID, std::memory_order_relaxed); }
    void setProcHandle(unsigned short usProcHandle) { m_usProcHandle.store(usProcHandle, std::memory_order_relaxed); }

private:
    static CZolIdentity sm_oOwn;

    std::atomic<unsigned short> m_usProcID{0};
    std::atomic<unsigned short> m_usProcHandle{0};
};

#endif
