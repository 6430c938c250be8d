#include "ZolApi.h"
#include "ZolAppMgr.h"
#include "ZolMemMan.h"
#include "ZolTaskMgr.h"
#include "ZolTimer.h"
#include "config/ZolCounters.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolSendMsgTask.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

static_assert(std::is_trivially_copyable<SZolStatistics>::value, "it is copied as bytes");
static_assert(sizeof(SZolTaskMgrStatistics) == 3 * 8, "only 64-bit words, so that the layout is fixed");
static_assert(sizeof(SZolStatistics) == (18 + 3 * SZolStatistics::MAX_TASK_MGR) * 8, "as above");

namespace
{

std::uint64_t read(const std::atomic<std::uint64_t> &oCounter)
{
    return oCounter.load(std::memory_order_relaxed);
}

void fillLosses(SZolStatistics &oStatistics)
{
    const SZolCounters &oCounters = zolCounters();
    oStatistics.m_ulDroppedNoTask = read(oCounters.m_ulNoTask);
    oStatistics.m_ulDroppedNoManager = read(oCounters.m_ulNoManager);
    oStatistics.m_ulDroppedNoConnection = read(oCounters.m_ulNoConnection);
    oStatistics.m_ulDroppedSendFailed = read(oCounters.m_ulSendFailed);
    oStatistics.m_ulDroppedInvalidType = read(oCounters.m_ulInvalidType);
    oStatistics.m_ulDroppedBigMsg = read(oCounters.m_ulBigMsgBroken);
    oStatistics.m_ulLateResponses = read(oCounters.m_ulLateResponses);
    oStatistics.m_ulDroppedTaskEnded = read(oCounters.m_ulTaskEnded);
    oStatistics.m_ulLostLogLines = read(oCounters.m_ulLogLines);
}

void fillTaskMgrs(SZolStatistics &oStatistics)
{
    for (CZolTaskMgr *poTaskMgr : CZolAppMgr::instance()->taskMgrs())
    {
        SZolTaskMgrStatistics &oEntry = oStatistics.m_arrTaskMgr[oStatistics.m_ulTaskMgrCount++];
        oEntry.m_ulTaskMgrID = poTaskMgr->getTaskMgrID();
        oEntry.m_ulQueuedMessages = poTaskMgr->getLengthOfBufferMsg();
        oEntry.m_ulQueuedBytes = poTaskMgr->getBytesOfBufferMsg();
    }
}

/// What the services hold now. One after the other, each with its own lock.
void fillServices(SZolStatistics &oStatistics)
{
    oStatistics.m_ulSendBytes = CZolSendMsgTask::instance()->bytesWaiting();
    oStatistics.m_ulTimersAlive = CZolTimer::instance()->getTimerCount();
    CZolMemMan *const poMemMan = CZolMemMan::instance();
    poMemMan->getPoolUse(0, oStatistics.m_ulPoolSmallFree, oStatistics.m_ulPoolSmallTotal);
    poMemMan->getPoolUse(1, oStatistics.m_ulPoolMediumFree, oStatistics.m_ulPoolMediumTotal);
    unsigned int uiUp = 0;
    unsigned int uiAll = 0;
    CZolConnMgr::instance()->countPipes(uiUp, uiAll);
    oStatistics.m_ulPipesUp = uiUp;
    oStatistics.m_ulPipesAll = uiAll;
}

} // namespace

namespace zol
{

int getStatistics(SZolStatistics *poStatistics, unsigned int uiBytes)
{
    if (poStatistics == nullptr)
    {
        return ZOL_ERR_FAILED;
    }
    SZolStatistics oStatistics{};
    fillLosses(oStatistics);
    const bool bStarted = CZolAppMgr::instance()->getStatus() != APPMGR_UNINITIALIZED;
    if (bStarted)
    {
        fillTaskMgrs(oStatistics);
        fillServices(oStatistics);
    }
    std::memcpy(poStatistics, &oStatistics, std::min<size_t>(uiBytes, sizeof oStatistics));
    return bStarted ? ZOL_OK : ZOL_ERR_STAGE;
}

} // namespace zol
