#ifndef ZOL_APPMGR_H
#define ZOL_APPMGR_H

#include "ZolErrors.h"
#include "ZolExport.h"
#include "ZolMsgPdu.h"
#include "ZolQueueSize.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/OS_NS_Thread.h>
#include <ace/Thread_Mutex.h>
#include <atomic>
#include <list>
#include <map>
#include <string>
#include <vector>

class ACE_Mutex;
class ACE_Reactor;
class CZolExitEvent;
class CZolTask;
class CZolTaskMgr;

enum EnumAppMgrStatus
{
    APPMGR_UNINITIALIZED = 0, ///< before a successful initAppMgr
    APPMGR_INITIAL = 1,       ///< managers and tasks are being added, nothing is served yet
    APPMGR_RUNNING = 2,       ///< handleEvents has started all threads
    APPMGR_EXIT = 3           ///< exitThreads was called
};

enum EnumConnectionStatus
{
    CONN_STATUS_UP = 0,
    CONN_STATUS_DOWN = 1
};

/// The dispatch mutex of each task manager, by its id. Written while managers are added; never destroyed, since threads
/// may outlive main.
ZOL_EXPORT extern std::map<unsigned char, ACE_Mutex *> &g_mapDispatchMutex;

/// The object through which a process enters the library: it starts every service, holds the task managers, and runs
/// the reactor on the main thread until the process is told to end.
///
/// Order:     initAppMgr, addTaskMgr for each manager, synchronous calls if the start needs any, handleEvents.
/// Threads:   initAppMgr, addTaskMgr and handleEvents on the main thread; everything else from any thread.
/// Ownership: owns the task managers. An operation that takes a CZolMsgPdu pointer by reference takes the message over
///            and sets the pointer to null, whatever the outcome.
/// Errors:    codes of ZolErrors.h and a line in the run log; nothing is thrown.
class ZOL_EXPORT CZolAppMgr
{
public:
    CZolAppMgr(const CZolAppMgr &) = delete;
    CZolAppMgr &operator=(const CZolAppMgr &) = delete;

    static CZolAppMgr *instance();

    /// exitThreads of the singleton. Releases nothing. Safe in a signal handler.
    static void destroy();

    /// Starts the services of the library, which stay when a later step fails. With bNoHandle the process runs without
    /// a process handle. The log's name and folder may be null, for the configured ones.
    int initAppMgr(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle, const char *pcLogName,
                   const char *pcLogPath);

    /// Takes the manager over. -4 before initAppMgr; -1 for null, an id above 200, or one in use: then the manager
    /// stays the caller's. Only managers that are added before handleEvents get threads.
    int addTaskMgr(CZolTaskMgr *poTaskMgr);

    /// The manager with that id, or null. The built-in one has id 254.
    CZolTaskMgr *findTaskMgr(unsigned char ucTaskMgrID) const;

    /// Serves the process until exitThreads, SIGINT or SIGTERM, then waits until every thread of every manager has left
    /// its handler. Messages that are still queued are not served.
    void handleEvents();

    /// Ends handleEvents; nothing happens unless it runs. Safe in a signal handler.
    void exitThreads();

    EnumAppMgrStatus getStatus() const { return m_eStatus.load(std::memory_order_acquire); }

    /// The reactor of the process: on Linux one on epoll, which takes as many descriptors as the process may open. An
    /// application that makes a reactor of its own takes an ACE_Dev_Poll_Reactor too: the default one refuses
    /// descriptors from 1024 on, and ends the process when it is made after that many are open.
    ACE_Reactor *getReactor() { return m_poReactor; }

    /// The identity that peers see, which may differ from the arguments of initAppMgr.
    unsigned short getProcID() const;
    unsigned short getProcHandle() const;

    /// Whether the message is addressed to this very process: id and handle are both its own.
    bool isThisProcess(const CZolMsgPdu &oMsg) const;

    EnumConnectionStatus statusOfConnToVek();

    /// The task that the calling thread runs, or null.
    const CZolTask *getCurrentTask();

    /// Queues a message to a task manager of this process. Only while the process is running.
    int sendLocalAsynMsg(CZolMsgPdu *&poMsg, unsigned char ucTaskMgrID);

    /// Sends a message to its destination in this or another process. May block while the list of the send thread is
    /// full.
    int sendAsynMsg(CZolMsgPdu *&poMsg);

    /// Sends poRequest and blocks until a response comes or iSeconds are over. At the initial stage only for the thread
    /// of initAppMgr; in the running state for any thread, whose task, if it runs one, is not the source. poResponse
    /// is the caller's at 0, as it was for a null request, -6 and -7, and null else.
    int sendSynMsg(CZolMsgPdu *&poRequest, CZolMsgPdu *&poResponse, int iSeconds);

    /// Subscribes a task to a command at the gateway, now and after every reconnection, even if the call now fails.
    /// Blocks up to 5 seconds.
    int registerSubscribe(unsigned int uiCmd, unsigned char ucTaskMgrID, unsigned short usTaskID);
    int cancelSubscribe(unsigned int uiCmd, unsigned char ucTaskMgrID, unsigned short usTaskID);

    /// One subscription request, MSG_SUBSCRIBE or MSG_SUBSCRIBE_CANCEL; any response is a success.
    int subscribe(unsigned int uiCmd, CZolMsgPdu::EnumZolPduType eType, unsigned char ucTaskMgrID,
                  unsigned short usTaskID);

    /// Asks the gateway where a process listens. uiAddr and usPort are in host order, and untouched unless the result
    /// is 0. Blocks up to 5 seconds.
    int getProcAddrByID(unsigned short usProcID, unsigned short usProcHandle, unsigned int &uiAddr,
                        unsigned short &usPort);

    /// The tasks of all managers, as text.
    std::string dumpAllTaskMgr();

    /// For the receive path: takes the response to a synchronous call of the initial stage over. At any other stage it
    /// does nothing, and the message stays the caller's.
    void enqueueMsg(CZolMsgPdu *poMsg);

    /// The managers in the order of their registration, the built-in one first.
    std::vector<CZolTaskMgr *> taskMgrs() const;

private:
    friend class CZolTaskMgr;

    CZolAppMgr();
    ~CZolAppMgr();

    int startServices(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle, const char *pcLogName,
                      const char *pcLogPath);
    void registerTaskMgr(CZolTaskMgr *poTaskMgr);
    bool openTaskMgrs();
    void runReactor();
    void stopTaskMgrs();
    int sendSynMsgByAssistTask(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse, int iSeconds);
    int sendSynMsgAtInitialStage(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse, int iSeconds);
    bool runReactorForResponse(int iSeconds);
    void holdResponse(CZolMsgPdu *poMsg);
    static int readProcAddr(const CZolMsgPdu &oResponse, unsigned int &uiAddr, unsigned short &usPort);

    /// Naps until the process is running, at most a second.
    void napUntilRunning();

    static std::atomic<CZolAppMgr *> sm_poInstance; // fixed after the first instance()

    std::atomic<EnumAppMgrStatus> m_eStatus{APPMGR_UNINITIALIZED}; // only ever moves forward
    std::list<CZolTaskMgr *> m_oTaskMgrList;     // owned; guarded by m_oListLock; in the order of registration
    CZolMsgPdu *m_poSynRespMsg = nullptr;        // owned; touched by the thread of the initial stage only
    std::atomic<ACE_thread_t> m_ulInitThread{0}; // the thread that called initAppMgr last
    ACE_Reactor *m_poReactor;                    // owned

    std::atomic<CZolTaskMgr *> m_arrTaskMgr[256] = {}; // by id; a store publishes the manager
    mutable ACE_Thread_Mutex m_oListLock;              // leaf
    ACE_Thread_Mutex m_oRunningMutex;                  // leaf; for m_oRunning alone
    ACE_Condition<ACE_Thread_Mutex> m_oRunning;        // with m_oRunningMutex; monotonic; the process is running
    CZolExitEvent *m_poExitEvent;                      // owned; ends the reactor's wait
};

#endif
