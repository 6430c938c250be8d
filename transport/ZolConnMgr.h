#ifndef ZOL_TRANSPORT_ZOLCONNMGR_H
#define ZOL_TRANSPORT_ZOLCONNMGR_H

#include "log/ZolThreadStart.h"
#include "message/ZolIdentity.h"
#include "transport/ZolConnection.h"
#include "transport/ZolPipeSender.h"
#include "transport/ZolWriterFirstLock.h"

#include <ace/RW_Mutex.h>
#include <ace/Task.h>
#include <ace/Thread_Mutex.h>
#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

class CZolDebugInfo;
class CZolListener;

/// Owner of all pipes of the process: finds them by descriptor and by process identity, chooses the pipe of each
/// outgoing message, and runs the thread that every 20 s reopens what is down, keeps pipes alive and closes silent
/// ones. Holds the identity of the process as well.
///
/// Threads:   any, but processMsg() and processBigMsg() belong to the send thread, and recvMsg() to the thread that
///            runs the reactor.
/// Ownership: m_oHandleMap holds one reference of each connection in it.
/// Locks:     m_oConnLock is held for look-ups and changes of the tables only. Nothing blocks under it: no connect, no
///            sending, no queueing, no hello. Writers go first.
class CZolConnMgr : public ACE_Task_Base, private IZolPipes
{
public:
    static CZolConnMgr *instance();
    ~CZolConnMgr() override;

    int open(void *pvArg = nullptr) override; ///< starts svc(): 0, or -1 if the thread did not start
    int svc() override;                       ///< never returns

    /// Sets the identity, opens the gateway pipe if one is configured, starts the thread. 0, -1, or the refusal -8, -9
    /// or -10 of the gateway.
    int initConn2Vek(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle);

    /// Opens a pipe and enters it in the tables; one that could not be opened stays there, and the poll tries again.
    int initConn(const std::string &strHost, unsigned short usPort, CZolConnection::EnumPipeType ePipeType);

    int setVEKAddress(const std::string &strHost, unsigned short usPort); ///< takes effect at the next connect
    void setVEKAddrStatus(bool bValid);                                   ///< false stops reconnecting
    int connect2VEK();                                                    ///< on the caller's thread; 0 if it is up
    void shutVEKConnect();

    /// True if a message for that process has a way: a direct pipe that is up, else the gateway pipe. Every sender
    /// asks; the answer is kept for each thread until a pipe changes.
    bool isConnected(unsigned short usProcID, unsigned short usProcHandle);

    /// The pipe for a message in host order; null if there is none, not even a gateway's entry that is down.
    CZolConnRef chooseConnection(const CZolMsgPdu *poPdu) override;

    bool isProcRegistered(unsigned short usProcID, unsigned short usProcHandle);

    CZolConnection *findConnection(ACE_HANDLE &oHandle); ///< null: none. The caller holds m_oConnLock
    void addConnection(CZolConnection *poConn);          ///< takes over a reference. The caller holds m_oConnLock
    /// Takes a passive connection out of both tables and hands over the table's reference. The caller holds
    /// m_oConnLock.
    CZolConnRef delConnection(ACE_HANDLE &oHandle);

    /// What the reactor calls for a descriptor that it has let go.
    void closeConnection(ACE_HANDLE &oHandle);

    /// Takes a pipe down, if it is still in that life; from any thread, with no lock held.
    void closePipe(CZolConnection *poConn, unsigned int uiLife);

    int recvMsg(ACE_HANDLE &oHandle); ///< 0 always, so that the reactor keeps the handler

    /// Queues a hello; never waits for room.
    void sendHandshakeMsg(unsigned short usProcID, unsigned short usProcHandle);

    void addSubscribe(unsigned long ulCmd, unsigned char ucModule, unsigned short usTask);
    void delSubscribe(unsigned long ulCmd, unsigned char ucModule, unsigned short usTask);

    std::string dumpConnections();

    /// The way out, as CZolPipeSender says; all three for the send thread.
    void processMsg(CZolMemList *poList) { m_oSender.processMsg(poList); }
    int processBigMsg(CZolMsgPdu *poPdu) { return m_oSender.processBigMsg(poPdu); }
    static void logSendFailure(char *pcBuf, int iLen, CZolDebugInfo *poLog)
    {
        CZolPipeSender::logSendFailure(pcBuf, iLen, poLog);
    }

    /// Client side of a direct exchange. uiAddr in network order, time-outs in milliseconds. poRequest is gone and
    /// null after the call, except where the arguments were refused.
    int sendP2PMsg(unsigned int uiAddr, unsigned short usPort, CZolMsgPdu *&poRequest, CZolMsgPdu **ppoResponse,
                   int iConnTimeout, int iRecvTimeout);

    /// Calls the listener; what it throws stops here.
    void recvP2PMsg(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse);

    void setListener(CZolListener *poListener) { m_poListener.store(poListener, std::memory_order_release); }

    unsigned short getProcID() const { return CZolIdentity::own().getProcID(); }
    unsigned short getProcHandle() const { return CZolIdentity::own().getProcHandle(); }
    void setProcIDAndHandle(unsigned short usProcID, unsigned short usProcHandle);
    bool isNoHandle() const { return m_bNoHandle.load(std::memory_order_relaxed); }
    bool isOwnHandle() const { return m_bOwnHandle.load(std::memory_order_relaxed); }

    /// Pipes that are up, and all that the tables hold.
    void countPipes(unsigned int &uiUp, unsigned int &uiAll);

    /// Ends every answer of isConnected() and chooseConnection() that a thread has kept. Called after each change.
    void pipesChanged() { m_ulVersion.fetch_add(1, std::memory_order_release); }

    /// Guards both tables; public for CZolAcceptorHandler, which answers a registration and enters it in one hold.
    CZolWriterFirstLock m_oConnLock;

    /// A pipe in one life of it.
    struct SPipeLife
    {
        CZolConnRef m_oConn;
        unsigned int m_uiLife;
    };

    /// One cycle of the poll at lNow, in seconds of the wall clock: reopened pipes go to oReconnected, silent ones to
    /// oDead. lLastPoll, 0 before the first cycle, is set to lNow.
    void pollConnectons(std::vector<CZolConnRef> &oReconnected, std::vector<SPipeLife> &oDead, long lNow,
                        long &lLastPoll);

    /// Enters reopened pipes under their new descriptors, registers them for reading and replays the subscriptions.
    void finishReconnect(const std::vector<CZolConnRef> &oReconnected);

    /// All of what svc() does between two sleeps.
    void runPollCycle(long lNow, long &lLastPoll);

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
    using SubscribeMap = std::map<std::uint32_t, std::set<std::uint32_t>>;

    CZolConnMgr();

    CZolConnection *findProc(unsigned short usProcID, unsigned short usProcHandle) const; // caller: m_oConnLock
    CZolConnRef vekConnection(const char *pcScope);
    bool rekey(CZolConnection *poConn);                  // caller: m_oConnLock exclusive
    void enter(CZolConnection *poConn, ACE_HANDLE oKey); // caller: m_oConnLock exclusive
    void leave(CZolConnection *poConn);                  // caller: m_oConnLock exclusive
    CZolConnRef unlinkDown(CZolConnection *poConn);      // caller: m_oConnLock exclusive
    void pollPipe(CZolConnection *poConn, long lNow, bool bTrusted, std::vector<SPipeLife> &oDead);
    bool trustClock(long lNow, long &lLastPoll);
    void replaySubscribe(bool bStopAtFailure);
    void initIdentity(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle);
    void enterWithoutGateway();
    void forgetGateway();

    std::uint64_t getVersion() const override { return m_ulVersion.load(std::memory_order_acquire); }
    int sendOn(CZolConnection *poConn, const void *pvBuf, unsigned int uiLen) override;

    CZolThreadStart m_oStart;
    HandleMap m_oHandleMap; // guarded by m_oConnLock; holds the references
    // Guarded by m_oConnLock. Descriptors of pipes that were taken down here: until they have left the reactor, and
    // while it calls on account of what it saw before, they are asked for in vain, and that is no fault. Each stays
    // until its number is a pipe's again.
    std::unordered_set<ACE_HANDLE> m_oClosedHandles;
    std::atomic<long> m_lLastHelloTime; // written by the poll
    std::atomic<bool> m_bNoHandle{false};
    std::atomic<bool> m_bOwnHandle{false};
    CZolPipeSender m_oSender{*this};
    ProcMap m_oProcMap; // guarded by m_oConnLock; each connection in it stands in m_oHandleMap too
    std::atomic<CZolListener *> m_poListener{nullptr}; // not owned
    SubscribeMap m_oSubscribeMap;                      // guarded by m_oSubscribeLock
    ACE_Thread_Mutex m_oSubscribeLock;                 // leaf
    std::atomic<std::uint64_t> m_ulVersion{1};         // grows with each change of the tables or of a status
};

#endif
