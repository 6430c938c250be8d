#include "transport/ZolSendMsgTask.h"

#include "ZolQueueSize.h"
#include "ZolRunLog.h"
#include "config/ZolCounters.h"
#include "message/ZolMonotonic.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolHost.h"
#include "transport/ZolText.h"

#include <ace/Guard_T.h>
#include <ace/Thread_Manager.h>

CZolSendMsgTask *CZolSendMsgTask::instance()
{
    static CZolSendMsgTask *const poInstance = new CZolSendMsgTask; // NOLINT: its thread outlives main
    return poInstance;
}

CZolSendMsgTask::CZolSendMsgTask() : m_oNotFull(m_oMsgLock, CZolMonotonicAttributes()), m_oNotEmpty(m_oMsgLock) {}

CZolSendMsgTask::~CZolSendMsgTask()
{
    m_oMsgList.deleteAll();
}

int CZolSendMsgTask::open(void * /*pvArg*/)
{
    if (activate(THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED) == 0)
    {
        m_oStart.await();
    }
    return 0;
}

bool CZolSendMsgTask::isFull() const
{
    return m_ulMsgBytes >= g_ulQueueSize.load(std::memory_order_relaxed);
}

int CZolSendMsgTask::sendMsg(CZolMemBlock *poBlock, bool bWait)
{
    if (poBlock == nullptr || zolPduOf(poBlock) == nullptr)
    {
        CZolDebugInfo("CZolSendMsgTask::sendMsg").error("invalid parameter, null pointer!");
        return -1;
    }
    const std::uint64_t ulBytes = zolTotalLength(zolPduOf(poBlock));
    ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oMsgLock, -1);
    while (bWait && isFull() && !zolHost().isExiting())
    {
        // The limit of the wait is for a process that goes to its exit stage meanwhile: nobody would wake us.
        ++m_uiWaitingSenders;
        zolWaitUntil(m_oNotFull, zolMonotonicNow() + ACE_Time_Value(0, 100000));
        --m_uiWaitingSenders;
    }
    if (!bWait && m_ulMsgBytes / 2 >= g_ulQueueSize.load(std::memory_order_relaxed))
    {
        // Only a peer that sends hellos and reads no answers gets here.
        zolCount(zolCounters().m_ulSendFailed);
        CZolMemBlock::freeMem(poBlock);
        return -1;
    }
    m_oMsgList.insert(poBlock);
    m_ulMsgBytes += ulBytes;
    const bool bWake = m_bIdle;
    m_bIdle = false;
    oGuard.release(); // the thread that is woken would only go to sleep again, at the lock
    if (bWake)
    {
        m_oNotEmpty.signal();
    }
    return 0;
}

int CZolSendMsgTask::svc()
{
    m_oStart.arrived();
    CZolConnMgr *poMgr = CZolConnMgr::instance();
    for (;;)
    {
        CZolMemList oList;
        {
            ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oMsgLock, -1);
            while (m_oMsgList.m_ulCount == 0)
            {
                m_bIdle = true;
                m_oNotEmpty.wait();
            }
            m_bIdle = false;
            oList = m_oMsgList;
            m_oMsgList = CZolMemList();
            m_ulMsgBytes = 0;
            if (m_uiWaitingSenders != 0)
            {
                m_oNotFull.signal();
            }
        }
        poMgr->processMsg(&oList);
    }
}

std::string CZolSendMsgTask::dumpMsgList()
{
    std::ostringstream oText;
    oText << "\nCZolSendMsgTask.m_oMsgList:\n";
    ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oMsgLock, oText.str());
    CZolMemBlock *poBlock = m_oMsgList.m_poHead;
    for (ACE_UINT32 i = 0; i < m_oMsgList.m_ulCount; ++i, poBlock = poBlock->m_poNext)
    {
        const CZolMsgPdu &oPdu = *zolPduOf(poBlock);
        oText << "    Ver: " << unsigned(oPdu.m_ucVersion) << ", Type: " << unsigned(oPdu.m_ucMsgType)
              << ", Cmd: " << oPdu.m_ulCmdID << ", SrcMod: " << unsigned(oPdu.m_ucSrcModule)
              << ", SrcSubMod: " << oPdu.m_usSrcSubModuleId << ", DstPID: " << oPdu.m_usDestProcID
              << ", DstHdl: " << oPdu.m_usDestProcHandle << ", DstMod: " << unsigned(oPdu.m_ucDestModule)
              << ", DstSubMod: " << oPdu.m_usDestSubModuleId << ", DataLen: " << oPdu.m_ulDataLength << '\n';
    }
    return oText.str();
}

std::uint64_t CZolSendMsgTask::bytesWaiting()
{
    ACE_GUARD_RETURN(ACE_Thread_Mutex, oGuard, m_oMsgLock, 0);
    return m_ulMsgBytes;
}
