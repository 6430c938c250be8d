// Start and end of the process, and the registry of task managers.

#include "ZolAppMgr.h"

#include "ZolLogTask.h"
#include "ZolMemMan.h"
#include "ZolResMgr.h"
#include "ZolRunLog.h"
#include "ZolTaskMgr.h"
#include "ZolTimer.h"
#include "config/ZolCounters.h"
#include "message/ZolIdentity.h"
#include "message/ZolMonotonic.h"
#include "task/ZolExitEvent.h"
#include "task/ZolInlineTask.h"
#include "task/ZolProcessHost.h"
#include "task/ZolProcessReactor.h"
#include "task/ZolSigHandler.h"
#include "task/ZolTaskMgrInside.h"
#include "task/ZolThreadSelf.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolRecvMsgHandler.h"
#include "transport/ZolSendMsgTask.h"

#include <ace/Guard_T.h>
#include <ace/Mutex.h>
#include <ace/Reactor.h>
#include <ace/Thread.h>
#include <ace/Thread_Manager.h>
#include <cerrno>
#include <cstdio>
#include <mutex>

namespace
{

constexpr unsigned char LAST_TASK_MGR_ID = 200;
constexpr int MOST_QUEUE_BYTES = 104857600;
constexpr int LEAST_QUEUE_BYTES = 26214400;

} // namespace

std::map<unsigned char, ACE_Mutex *> &g_mapDispatchMutex = *new std::map<unsigned char, ACE_Mutex *>;

std::atomic<CZolAppMgr *> CZolAppMgr::sm_poInstance{nullptr};

CZolAppMgr::CZolAppMgr()
    : m_poReactor(zolMakeProcessReactor()), m_oRunning(m_oRunningMutex, CZolMonotonicAttributes()),
      m_poExitEvent(new CZolExitEvent)
{
    m_poReactor->register_handler(m_poExitEvent, ACE_Event_Handler::READ_MASK);
    zolHostProcess();
}

CZolAppMgr::~CZolAppMgr()
{
    for (CZolTaskMgr *poTaskMgr : m_oTaskMgrList)
    {
        delete poTaskMgr;
    }
    delete m_poSynRespMsg;
    delete m_poReactor;
    delete m_poExitEvent;
}

CZolAppMgr *CZolAppMgr::instance()
{
    CZolAppMgr *poInstance = sm_poInstance.load(std::memory_order_acquire);
    if (poInstance == nullptr)
    {
        static std::once_flag s_oOnce;
        std::call_once(s_oOnce, [] { sm_poInstance.store(new CZolAppMgr, std::memory_order_release); });
        poInstance = sm_poInstance.load(std::memory_order_acquire);
    }
    return poInstance;
}

void CZolAppMgr::destroy()
{
    CZolAppMgr *poInstance = sm_poInstance.load(std::memory_order_acquire); // a signal handler makes no singleton
    if (poInstance != nullptr)
    {
        poInstance->exitThreads();
    }
}

// ---- Start ----------------------------------------------------------------------------------------------------------

int CZolAppMgr::initAppMgr(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle, const char *pcLogName,
                           const char *pcLogPath)
{
    m_ulInitThread.store(ACE_Thread::self(), std::memory_order_relaxed);
    if (getStatus() != APPMGR_UNINITIALIZED)
    {
        std::printf("CZolAppMgr is already initialized!\n");
        return ZOL_ERR_FAILED;
    }
    const int iResult = startServices(usProcID, usProcHandle, bNoHandle, pcLogName, pcLogPath);
    if (iResult != ZOL_OK)
    {
        return iResult;
    }
    m_eStatus.store(APPMGR_INITIAL, std::memory_order_release);
    CZolRunLog::startupLog("CZolAppMgr::initAppMgr CZolAppMgr init success.");
    registerTaskMgr(new CZolInlineTaskMgr);
    return ZOL_OK;
}

/// In this order: each service may use the ones before it. What has started stays when a later one fails.
int CZolAppMgr::startServices(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle,
                              const char *pcLogName, const char *pcLogPath)
{
    if (zol::init() == ZOL_ERR_FAILED)
    {
        std::fprintf(stderr, "failed to get zOL configuration\n");
        return ZOL_ERR_FAILED;
    }
    int iQueueBytes = 0;
    if (zol::getResByKey("ZOLQueueSize", iQueueBytes, MOST_QUEUE_BYTES, LEAST_QUEUE_BYTES) == ZOL_OK)
    {
        g_ulQueueSize.store(static_cast<unsigned int>(iQueueBytes), std::memory_order_relaxed);
    }
    if (CZolLogTask::instance()->init(usProcID, usProcHandle, pcLogName, pcLogPath) != ZOL_OK)
    {
        std::fprintf(stderr, "Failed to initiaze log task.\n");
        return ZOL_ERR_FAILED;
    }
    CZolMemMan::instance(256, 64, 0);
    CZolRecvMsgHandler::instance();
    if (CZolConnMgr::instance()->initConn2Vek(usProcID, usProcHandle, bNoHandle) != ZOL_OK)
    {
        CZolRunLog::startupLog("CZolAppMgr::initAppMgr failed to initialize the connection manager.");
        return ZOL_ERR_FAILED;
    }
    CZolSendMsgTask::instance()->open(nullptr);
    if (CZolTimer::instance()->init() != ZOL_OK)
    {
        CZolRunLog::startupLog("CZolAppMgr::initAppMgr failed to initialize the zol timer mananger.");
        return ZOL_ERR_FAILED;
    }
    if (CZolSigHandler::instance()->init(m_poReactor) != ZOL_OK)
    {
        CZolRunLog::startupLog("CZolAppMgr::initAppMgr failed to initialize the zol signal handler.");
        return ZOL_ERR_FAILED;
    }
    return ZOL_OK;
}

int CZolAppMgr::addTaskMgr(CZolTaskMgr *poTaskMgr)
{
    if (getStatus() == APPMGR_UNINITIALIZED)
    {
        std::printf("CZolAppMgr not initialized!");
        return ZOL_ERR_STAGE;
    }
    if (poTaskMgr == nullptr)
    {
        CZolRunLog::startupLog("CZolAppMgr::addTaskMgr invalid parameter, null pointer!");
        return ZOL_ERR_FAILED;
    }
    if (poTaskMgr->getTaskMgrID() > LAST_TASK_MGR_ID)
    {
        CZolRunLog::startupLog("CZolAppMgr::addTaskMgr add TaskMgr failed, invalid id!");
        return ZOL_ERR_FAILED;
    }
    if (findTaskMgr(poTaskMgr->getTaskMgrID()) != nullptr)
    {
        CZolRunLog::startupLog("CZolAppMgr::addTaskMgr add TaskMgr failed, the id is already be used!");
        return ZOL_ERR_FAILED;
    }
    registerTaskMgr(poTaskMgr);
    return ZOL_OK;
}

/// The dispatch mutex first: from the last store on, any thread may find the manager.
void CZolAppMgr::registerTaskMgr(CZolTaskMgr *poTaskMgr)
{
    const unsigned char ucTaskMgrID = poTaskMgr->getTaskMgrID();
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oListLock);
    ACE_Mutex *poDispatchMutex = new ACE_Mutex;
    poTaskMgr->m_poInside->m_poDispatchMutex = poDispatchMutex;
    g_mapDispatchMutex[ucTaskMgrID] = poDispatchMutex;
    m_oTaskMgrList.push_back(poTaskMgr);
    m_arrTaskMgr[ucTaskMgrID].store(poTaskMgr, std::memory_order_release);
}

CZolTaskMgr *CZolAppMgr::findTaskMgr(unsigned char ucTaskMgrID) const
{
    return m_arrTaskMgr[ucTaskMgrID].load(std::memory_order_acquire);
}

std::vector<CZolTaskMgr *> CZolAppMgr::taskMgrs() const
{
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oListLock);
    return {m_oTaskMgrList.begin(), m_oTaskMgrList.end()};
}

// ---- Running and ending ---------------------------------------------------------------------------------------------

void CZolAppMgr::handleEvents()
{
    const EnumAppMgrStatus eStatus = getStatus();
    if (eStatus == APPMGR_UNINITIALIZED || eStatus == APPMGR_EXIT)
    {
        std::printf("handleEvents() can only be called at initial stage!\n");
        return;
    }
    if (eStatus == APPMGR_RUNNING)
    {
        CZolRunLog::warning("CZolAppMgr::handleEvents handleEvents() can be called only once!\n");
        return;
    }
    if (!openTaskMgrs())
    {
        return;
    }
    {
        ACE_Guard<ACE_Thread_Mutex> oGuard(m_oRunningMutex);
        m_eStatus.store(APPMGR_RUNNING, std::memory_order_release);
        m_oRunning.broadcast();
    }
    CZolRunLog::info("begin to handle events.........");
    runReactor();
    stopTaskMgrs();
    std::printf("handleEvents() exit.\n");
}

bool CZolAppMgr::openTaskMgrs()
{
    const std::vector<CZolTaskMgr *> oTaskMgrs = taskMgrs();
    for (CZolTaskMgr *poTaskMgr : oTaskMgrs)
    {
        if (poTaskMgr->open(nullptr) != 0)
        {
            char acText[96];
            std::snprintf(acText, sizeof acText, "CZolAppMgr::handleEvents call open() of taskmgr %u failed!",
                          poTaskMgr->getTaskMgrID());
            CZolRunLog::startupLog(acText);
            return false;
        }
    }
    for (CZolTaskMgr *poTaskMgr : oTaskMgrs)
    {
        // where threads start at once there is nothing to resume, and the call says so
        ACE_Thread_Manager::instance()->resume_grp(poTaskMgr->getTaskMgrID());
    }
    return true;
}

/// The exit event stays raised until it is read, so an exit that comes at any point of this is not missed.
void CZolAppMgr::runReactor()
{
    m_poReactor->owner(ACE_Thread::self());
    m_poReactor->reset_reactor_event_loop();
    while (getStatus() == APPMGR_RUNNING)
    {
        if (m_poReactor->handle_events() == -1 && m_poReactor->reactor_event_loop_done() != 0 &&
            getStatus() == APPMGR_RUNNING)
        {
            m_poReactor->reset_reactor_event_loop(); // ended by somebody who may not end the process
        }
    }
}

void CZolAppMgr::stopTaskMgrs()
{
    const std::vector<CZolTaskMgr *> oTaskMgrs = taskMgrs();
    for (CZolTaskMgr *poTaskMgr : oTaskMgrs)
    {
        CZolMsgPdu *poExitMsg = new (sizeof(CZolMsgPdu)) CZolMsgPdu;
        while (poExitMsg == nullptr)
        {
            ACE_OS::sleep(1); // without the message the threads would never leave
            poExitMsg = new (sizeof(CZolMsgPdu)) CZolMsgPdu;
        }
        poExitMsg->init();
        poExitMsg->m_ucMsgType = CZolMsgPdu::MSG_REQUEST;
        poExitMsg->m_ucDestModule = poTaskMgr->getTaskMgrID();
        poTaskMgr->enqueueMsg(zolBlockOf(poExitMsg), true);
        poTaskMgr->m_poInside->endEventLoops();
    }
    for (CZolTaskMgr *poTaskMgr : oTaskMgrs)
    {
        if (poTaskMgr->m_poInside->joinThreads() != 0)
        {
            std::printf("call wait_task() failed, cannot exit the TaskMgr %u !\n", poTaskMgr->getTaskMgrID());
        }
    }
}

void CZolAppMgr::exitThreads()
{
    EnumAppMgrStatus eExpected = APPMGR_RUNNING;
    if (m_eStatus.compare_exchange_strong(eExpected, APPMGR_EXIT))
    {
        m_poExitEvent->raise();
    }
}

void CZolAppMgr::napUntilRunning()
{
    const ACE_Time_Value oDeadline = zolMonotonicNow() + ACE_Time_Value(1);
    ACE_Guard<ACE_Thread_Mutex> oGuard(m_oRunningMutex);
    if (getStatus() == APPMGR_INITIAL)
    {
        zolWaitUntil(m_oRunning, oDeadline);
    }
}

// ---- What the process is -------------------------------------------------------------------------------------------

unsigned short CZolAppMgr::getProcID() const
{
    return CZolIdentity::own().getProcID();
}

unsigned short CZolAppMgr::getProcHandle() const
{
    return CZolIdentity::own().getProcHandle();
}

bool CZolAppMgr::isThisProcess(const CZolMsgPdu &oMsg) const
{
    return CZolIdentity::own().isDestOf(oMsg);
}

EnumConnectionStatus CZolAppMgr::statusOfConnToVek()
{
    return CZolConnMgr::instance()->isConnected(0, 0) ? CONN_STATUS_UP : CONN_STATUS_DOWN;
}

/// A thread belongs to one manager at most, and knows which.
const CZolTask *CZolAppMgr::getCurrentTask()
{
    CZolTaskMgr *poTaskMgr = zolThreadSelf().m_poTaskMgr;
    if (poTaskMgr == nullptr || getStatus() != APPMGR_RUNNING)
    {
        return nullptr;
    }
    return poTaskMgr->findTaskOfThread(ACE_Thread::self());
}

std::string CZolAppMgr::dumpAllTaskMgr()
{
    std::string strText = "=== Zolvane Memory Dump ===\n";
    for (CZolTaskMgr *poTaskMgr : taskMgrs())
    {
        strText += "\n" + poTaskMgr->dumpAllTask();
    }
    return strText;
}
