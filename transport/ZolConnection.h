#ifndef ZOL_TRANSPORT_ZOLCONNECTION_H
#define ZOL_TRANSPORT_ZOLCONNECTION_H

#include "ZolMsgPdu.h"
#include "transport/ZolPduReader.h"

#include <ace/INET_Addr.h>
#include <ace/RW_Mutex.h>
#include <ace/SOCK_Stream.h>
#include <ace/Thread_Mutex.h>
#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

/// One TCP connection to one remote end: socket, identity of the far end, and the receive side, which is a reader and a
/// dispatcher. When to open and to close is decided by CZolConnMgr.
///
/// Threads:   connect() and the address operations from any thread; send() from the send thread; receive() from the
///            thread that runs the reactor. A pipe may be taken down by any thread while others use it.
/// Lifetime:  counted. A connection begins with one reference, the creator's; the table holds one for each
///            connection in it, and whoever uses a connection outside m_oConnLock holds one (CZolConnRef).
/// Errors:    results of the operations; a log line where the operation says so. Nothing is thrown.
///
/// How a pipe goes down while others are inside:
///   1. CZolPipeTable, under m_oConnLock, takes it out of its key and calls takeDown(). The one thread that turns the
///      status from true to false shuts the socket down in that hold, which ends a running send at once.
///   2. That thread calls disconnect() with no lock held. m_oPipeLock waits for the senders to leave; the descriptor
///      leaves the reactor and is closed, so its number cannot come back before that.
///   3. The receive state belongs to whoever holds m_oRecvLock. A reader that waits for room in a task queue keeps it,
///      so it is only tried: a busy reader finds m_bResetDue when it leaves, or before it reads for the next life.
class CZolConnection
{
public:
    enum EnumPipeType
    {
        CONN_VEK = 0,        ///< to the gateway; opened by this process
        CONN_INITIATIVE = 1, ///< to a peer; opened by this process
        CONN_PASSIVE = 2     ///< opened by a peer
    };

    /// A pipe that this process opens: down, identity 0. The address is resolved here, never on the reactor thread;
    /// one that cannot be resolved marks the connection as not to be connected.
    CZolConnection(EnumPipeType ePipeType, const std::string &strHost, unsigned short usPort);

    /// An accepted connection, or the gateway's entry of a process without a gateway: up, no address.
    explicit CZolConnection(EnumPipeType ePipeType);

    CZolConnection(const CZolConnection &) = delete;
    CZolConnection &operator=(const CZolConnection &) = delete;

    void addRef() { m_uiRefs.fetch_add(1, std::memory_order_relaxed); }
    void release(); ///< the last one deletes the connection

    /// Size of the receive buffers of connections built from now on.
    static void setRecvBufferLength(unsigned int uiBytes) { sm_uiRecvBufferLength = uiBytes; }

    /// Opens the pipe with the register exchange, at most 5 s for the connect and 5 s for the exchange. 0: up (also if
    /// it was); -1: failed; other: the status with which the far end refused. Neither the reactor nor the tables of
    /// the manager are touched.
    int connect();

    /// What a send did besides its result.
    struct SSendOutcome
    {
        unsigned int m_uiSent; ///< bytes that went out
        unsigned int m_uiLife; ///< life of the pipe that they went to
    };

    /// Sends all bytes: uiLen, or -1 with errno, ETIME after 200 s. Never changes the status. A pipe that is down fails
    /// at once, also while it is being opened.
    int send(const void *pvBuf, unsigned int uiLen, SSendOutcome *poOutcome = nullptr);

    /// One read that does not wait: above 0 the bytes read, 0 nothing there, -1 peer closed, error, or taken down.
    int recv(void *pvBuf, unsigned int uiLen);

    /// Reads until the socket is empty and hands on each message. 0, or -1 when the pipe must go down.
    int receive();

    /// Drops everything received, closes the socket, status false. May be repeated.
    void disconnect();

    /// First half of going down: true for the one caller that found the pipe up. The caller holds m_oConnLock.
    bool takeDown();

    /// Drops the message being read and the big messages being joined. The caller holds m_oRecvLock or is alone.
    void reset();

    int setRemoteAddr(const std::string &strHost, unsigned short usPort); ///< 0, or -1: unusable until the next one
    void setAddrStatus(bool bValid);

    /// Registers the socket for read events, if the pipe is still up.
    void registerEvent();

    bool getPipeStatus() const { return m_bPipeStatus.load(std::memory_order_acquire); }
    void setPipeStatus(bool bUp);
    unsigned short getOppProcID() const;
    unsigned short getOppProcHandle() const;
    void setOppProc(unsigned short usProcID, unsigned short usProcHandle);
    EnumPipeType getPipeType() const { return m_ePipeType; }
    std::string toString() const; ///< one dump line without a line end

    /// Wall clock seconds of the last receipt of any byte.
    long getLastRecvTime() const { return m_lLastRecvTime.load(std::memory_order_relaxed); }
    void setLastRecvTime(long lTime) { m_lLastRecvTime.store(lTime, std::memory_order_relaxed); }

    /// Counts the times that the pipe came up, and so tells one life of it from the next, unlike its descriptor.
    unsigned int getLife() const { return m_uiLife.load(std::memory_order_acquire); }

    ACE_SOCK_Stream &getStream() { return m_oStream; }
    ACE_HANDLE getHandle() const { return m_oStream.get_handle(); }

    /// The receive side, as CZolMsgDispatcher tells.
    void dispatchMsg(CZolMsgPdu *poPdu) { m_oDispatcher.dispatchMsg(poPdu); }
    int deliverMsg(CZolMsgPdu *poPdu) { return m_oDispatcher.deliverMsg(poPdu); }
    int processBigMsgBlock(CZolMsgPdu *poPdu) { return m_oDispatcher.processBigMsgBlock(poPdu); }
    int saveBigMsgBlock(CZolMsgPdu *poPdu) { return m_oDispatcher.saveBigMsgBlock(poPdu); }

    // The key under which the connection stands in CZolPipeTable::m_oHandleMap; guarded by its m_oConnLock.
    ACE_HANDLE m_oTableKey = ACE_INVALID_HANDLE;

private:
    friend class CZolPipeOpener;

    ~CZolConnection();

    // What the dispatcher has to do with this pipe.
    class CEnd : public IZolPipeEnd
    {
    public:
        explicit CEnd(CZolConnection &oConn) : m_oConn(oConn) {}
        void noteMessage(const CZolMsgPdu &oPdu) override;
        void noteHello() override;

    private:
        CZolConnection &m_oConn;
    };

    int recvInLife(void *pvBuf, unsigned int uiLen, unsigned int uiLife); // -1 also in another life than uiLife
    int readAndCut(unsigned int uiLife);
    void resetIfDue();
    void closeSocket(); // caller: m_oPipeLock exclusive, or alone

    unsigned short m_usOppProcID = 0;     // guarded by m_oStatusLock
    unsigned short m_usOppProcHandle = 0; // guarded by m_oStatusLock
    const EnumPipeType m_ePipeType;
    std::atomic<bool> m_bPipeStatus; // written under m_oStatusLock
    bool m_bAddrValid;               // guarded by m_oPipeLock
    ACE_INET_Addr m_oOppAddr;        // written under m_oPipeLock and m_oStatusLock, read under either
    ACE_SOCK_Stream m_oStream;       // guarded by m_oPipeLock; open as long as the status is true
    bool m_bNonBlock = false;        // guarded by m_oRecvLock
    std::atomic<long> m_lLastRecvTime;

    CEnd m_oEnd{*this};
    CZolMsgDispatcher m_oDispatcher; // guarded by m_oRecvLock
    CZolPduReader m_oReader;         // guarded by m_oRecvLock

    // Order: m_oRecvLock, m_oPipeLock, m_oStatusLock.
    mutable ACE_RW_Mutex m_oPipeLock;   // shared: use of the socket; exclusive: changing it
    mutable ACE_RW_Mutex m_oStatusLock; // leaf; identity, status, address
    ACE_Thread_Mutex m_oRecvLock;       // one reader at a time; held across deliveries, so never waited for

    std::atomic<bool> m_bResetDue{false}; // pairs with the try of m_oRecvLock in resetIfDue()
    std::atomic<unsigned int> m_uiLife{0};
    std::atomic<unsigned int> m_uiRefs{1};

    static unsigned int sm_uiRecvBufferLength;
};

/// Holds one reference of a connection.
class CZolConnRef
{
public:
    CZolConnRef() = default;
    explicit CZolConnRef(CZolConnection *poConn) : m_poConn(poConn)
    {
        if (m_poConn != nullptr)
        {
            m_poConn->addRef();
        }
    }
    CZolConnRef(const CZolConnRef &oOther) : CZolConnRef(oOther.m_poConn) {}
    CZolConnRef(CZolConnRef &&oOther) noexcept : m_poConn(oOther.m_poConn) { oOther.m_poConn = nullptr; }
    CZolConnRef &operator=(CZolConnRef oOther) noexcept
    {
        std::swap(m_poConn, oOther.m_poConn);
        return *this;
    }
    ~CZolConnRef()
    {
        if (m_poConn != nullptr)
        {
            m_poConn->release();
        }
    }

    /// Takes over a reference that the caller holds.
    static CZolConnRef adopt(CZolConnection *poConn)
    {
        CZolConnRef oRef;
        oRef.m_poConn = poConn;
        return oRef;
    }

    CZolConnection *get() const { return m_poConn; }
    CZolConnection *operator->() const { return m_poConn; }
    explicit operator bool() const { return m_poConn != nullptr; }

private:
    CZolConnection *m_poConn = nullptr;
};

#endif
