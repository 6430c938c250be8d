#ifndef ZOL_TRANSPORT_ZOLHOST_H
#define ZOL_TRANSPORT_ZOLHOST_H

class ACE_Reactor;
class CZolMsgPdu;

/// What the transport asks of the process that it serves, besides the inbox for what has arrived: its stage, its
/// reactor, and the calls that only the layer above can make. The application manager stands behind it.
///
/// Threads: every operation from any thread.
class IZolHost
{
public:
    virtual ~IZolHost() = default;

    /// The reactor that reads pipes and the port.
    virtual ACE_Reactor *getReactor() = 0;

    virtual bool isRunning() const = 0; ///< pipes are read, so one that is silent is silent
    virtual bool isExiting() const = 0; ///< nobody may be kept waiting any more

    /// Takes the answer to a call of the initial stage over and ends the wait for it. False, and the message still the
    /// caller's, at any other stage.
    virtual bool takeInitialResponse(CZolMsgPdu *poPdu) = 0;

    /// Queues a message to a task manager of this process, past the limit of its queue. Takes it over in every case.
    virtual int sendLocal(CZolMsgPdu *&poPdu, unsigned char ucTaskMgrID) = 0;

    /// Whether messages wait in the queue of a task manager of this process.
    virtual bool hasQueued(unsigned char ucTaskMgrID) = 0;

    /// Subscribes again at the gateway and waits for the answer: codes of CZolAppMgr::subscribe.
    virtual int subscribe(unsigned int uiCmd, unsigned char ucTaskMgrID, unsigned short usTaskID) = 0;
};

/// The host of the process. There must be one before the first pipe or port is opened.
IZolHost &zolHost();

/// Called once, at the start; oHost must stay for as long as the process.
void zolSetHost(IZolHost &oHost);

#endif
