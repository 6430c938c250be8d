#ifndef ZOL_TRANSPORT_ZOLREGISTEREXCHANGE_H
#define ZOL_TRANSPORT_ZOLREGISTEREXCHANGE_H

#include "ZolMsgPdu.h"

#include <memory>

/// The 32 bytes out and the 32 bytes in that open a pipe, as the opening side sees them. It has no socket: whoever has
/// one moves the bytes, in any pieces.
///
/// Threads: one at a time; no lock.
/// Owner:   the opener of a pipe.
class CZolRegisterExchange
{
public:
    /// Makes the request of this process; false when no memory is left. usProcHandle is the source handle in it.
    bool begin(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle);

    /// The bytes that are to go out, and after them the room for those that are to come in.
    char *getNext() const { return reinterpret_cast<char *>(m_poPdu.get()) + m_uiDone; }
    unsigned int getLeft() const;

    /// So many of them have passed. True when that was the last one of this direction.
    bool advance(unsigned int uiBytes);

    /// What the answer says, once it is in: 0, the status of a refusal, or -1 for no answer at all, each failure with
    /// its line. The header is in host order afterwards.
    int conclude();
    const CZolMsgPdu &getAnswer() const { return *m_poPdu; }

    void end() { m_poPdu.reset(); }

private:
    std::unique_ptr<CZolMsgPdu> m_poPdu; // the request, then the answer
    unsigned int m_uiDone = 0;           // bytes of it that have passed
};

#endif
