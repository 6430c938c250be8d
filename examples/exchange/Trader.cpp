#include "Trader.h"

#include "Messages.h"
#include "Protocol.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace exchange
{

namespace
{

const std::chrono::milliseconds RETRY_PAUSE(100); // while the gateway is down a call fails at once

} // namespace

// The whole run is one handler, which may block as long as it likes: it holds the one thread of its manager and nothing
// else. The view has a manager of its own.
void CTrader::respMsgProcess(const CZolMsgPdu *poMsg)
{
    if (poMsg->m_ulCmdID == CMD_START && sendOrders())
    {
        awaitClose();
    }
}

bool CTrader::sendOrders()
{
    SNACC::Batch oBatch;
    int iNumber = 0;
    for (size_t uiFrom = 0; uiFrom < m_oOrders.size(); uiFrom += BATCH_ORDERS)
    {
        const auto oFirst = m_oOrders.begin() + static_cast<std::ptrdiff_t>(uiFrom);
        const size_t uiCount = std::min<size_t>(BATCH_ORDERS, m_oOrders.size() - uiFrom);
        oBatch.number = ++iNumber;
        oBatch.orders.clear();
        toAsn({oFirst, oFirst + static_cast<std::ptrdiff_t>(uiCount)}, oBatch.orders);
        SNACC::Receipt oReceipt;
        if (!call(CMD_ORDERS, &oBatch, oReceipt))
        {
            return false;
        }
        ++m_oRun.m_uiCalls;
    }
    return true;
}

// Says that this client has no more orders until the others have none either, and hands the last sequence to the view.
bool CTrader::awaitClose()
{
    SNACC::State oState;
    for (;;)
    {
        if (!call(CMD_DONE, nullptr, oState))
        {
            return false;
        }
        if (oState.closed)
        {
            break;
        }
        std::this_thread::sleep_for(RETRY_PAUSE);
    }
    // What the market published came on the same way, ahead of this answer, so it stands in the view's queue already:
    // whatever the view is missing when it reads this message was lost.
    return zol::sendReqMsg(CMD_COMPARE, &oState, CZolAppMgr::instance()->getProcID(), VIEW_MGR, VIEW_TASK) == ZOL_OK;
}

// Until there is an answer, or the process is told to end.
bool CTrader::call(std::uint32_t ulCmdID, const SNACC::AsnType *poBody, SNACC::AsnType &oResponse)
{
    while (CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING)
    {
        if (zol::sendSyncReq(ulCmdID, poBody, CALL_SECONDS, oResponse, MARKET_PROCESS, MARKET_MGR, MARKET_TASK) ==
            ZOL_OK)
        {
            return true;
        }
        ++m_oRun.m_uiRepeated;
        std::this_thread::sleep_for(RETRY_PAUSE);
    }
    return false;
}

} // namespace exchange
