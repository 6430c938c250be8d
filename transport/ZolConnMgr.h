#ifndef ZOL_TRANSPORT_ZOLCONNMGR_H
#define ZOL_TRANSPORT_ZOLCONNMGR_H

#include "log/ZolThreadStart.h"
#include "message/ZolIdentity.h"
#include "transport/ZolConnection.h"
#include "transport/ZolPipePoll.h"
#include "transport/ZolPipeSender.h"
#include "transport/ZolPipeTable.h"
#include "transport/ZolSubscriptions.h"

#include <ace/Task.h>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

class CZolDebugInfo;
class CZolListener;

/// The pipes of the process as the rest of the library knows them: starts the link to the gateway, moves it and shuts
/// it, opens pipes to peers, and runs the thread that every 20 s reopens what is down, keeps pipes alive and closes
/// silent ones. The work is done by its parts: the table, the poll, the sender, the subscriptions, the direct client.
///
/// Threads:   any, but the way out belongs to the send thread, and recvMsg() to the thread that runs the reactor.
/// Ownership: the process has one, which is never destroyed; it owns its parts.
/// Locks:     none of its own; those of its parts are taken and released inside their calls.
class CZolConnMgr : public ACE_Task_Base, private IZolPipes
{
public:
    static CZolConnMgr *instance();

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

    /// What the table says, as CZolPipeTable tells.
    CZolConnRef chooseConnection(const CZolMsgPdu *poPdu) override { return m_oTable.choose(*poPdu); }
    bool isProcRegistered(unsigned short usProcID, unsigned short usProcHandle)
    {
        return static_cast<bool>(m_oTable.find(usProcID, usProcHandle));
    }
    CZolConnRef findConnection(ACE_HANDLE &oHandle) { return m_oTable.find(oHandle); }
    CZolConnRef delConnection(ACE_HANDLE &oHandle) { return m_oTable.remove(oHandle); }
    void addConnection(CZolConnection *poConn)
    {
        m_oTable.add(CZolConnRef(poConn), poConn->getPipeType() != CZolConnection::CONN_INITIATIVE);
    }
    std::string dumpConnections() { return m_oTable.dump(); }
    void countPipes(unsigned int &uiUp, unsigned int &uiAll) { m_oTable.count(uiUp, uiAll); }

    void closeConnection(ACE_HANDLE &oHandle) { m_oTable.close(oHandle); } ///< for a descriptor that the reactor let go
    void closePipe(CZolConnection *poConn, unsigned int uiLife) { m_oTable.close(poConn, uiLife); }

    int recvMsg(ACE_HANDLE &oHandle); ///< 0 always, so that the reactor keeps the handler

    /// Queues a hello; never waits for room.
    void sendHandshakeMsg(unsigned short usProcID, unsigned short usProcHandle);

    /// Subscriptions that are made again when the gateway's pipe comes up.
    void addSubscribe(unsigned long ulCmd, unsigned char ucModule, unsigned short usTask)
    {
        m_oSubscriptions.add(ulCmd, ucModule, usTask);
    }
    void delSubscribe(unsigned long ulCmd, unsigned char ucModule, unsigned short usTask)
    {
        m_oSubscriptions.remove(ulCmd, ucModule, usTask);
    }

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

    CZolPipeTable &pipes() { return m_oTable; }

    /// One cycle of the poll at lNow, in seconds of the wall clock: reopened pipes go to oReconnected, silent ones to
    /// oDead. lLastPoll, 0 before the first cycle, is set to lNow.
    void pollConnectons(std::vector<CZolConnRef> &oReconnected, std::vector<SZolPipeLife> &oDead, long lNow,
                        long &lLastPoll);

    /// Enters reopened pipes under their new descriptors, registers them for reading and replays the subscriptions.
    void finishReconnect(const std::vector<CZolConnRef> &oReconnected);

    /// All of what svc() does between two sleeps.
    void runPollCycle(long lNow, long &lLastPoll);

private:
    CZolConnMgr();

    CZolConnRef vekConnection(const char *pcScope);
    void initIdentity(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle);
    void enterWithoutGateway();
    std::uint64_t getVersion() const override { return m_oTable.getVersion(); }
    int sendOn(CZolConnection *poConn, const void *pvBuf, unsigned int uiLen) override;

    CZolThreadStart m_oStart;
    CZolPipeTable m_oTable;
    CZolSubscriptions m_oSubscriptions;
    CZolPipeSender m_oSender{*this};
    CZolPipePoll m_oPoll;
    std::atomic<bool> m_bNoHandle{false};
    std::atomic<bool> m_bOwnHandle{false};
    std::atomic<CZolListener *> m_poListener{nullptr}; // not owned
};

#endif
