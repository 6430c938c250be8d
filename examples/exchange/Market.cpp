#include "Market.h"

#include "Messages.h"

#include <algorithm>
#include <cstdio>

namespace exchange
{

namespace
{

/// To every subscriber of the command. A multicast goes to the gateway, which knows them; what a subscriber gets is a
/// request. Nothing tells that it arrived: the sequence in the body lets the receiver see a gap.
void publish(int iSequence, const std::vector<SQuote> &oChanged)
{
    SNACC::Levels oLevels;
    oLevels.sequence = iSequence;
    toAsn(oChanged, oLevels.quotes);
    CZolMsgPdu *poMsg = zol::encodeReq(CMD_CHANGES, &oLevels, 0, 0, 0);
    if (poMsg != nullptr)
    {
        poMsg->m_ucMsgType = CZolMsgPdu::MSG_MULTICAST;
        CZolAppMgr::instance()->sendAsynMsg(poMsg);
    }
}

} // namespace

void CMarket::respMsgProcess(const CZolMsgPdu *poMsg)
{
    switch (poMsg->m_ulCmdID)
    {
    case CMD_START:
        std::printf("market: open\n");
        std::fflush(stdout);
        break;
    case CMD_ORDERS:
        takeBatch(*poMsg);
        break;
    case CMD_DONE:
        takeDone(*poMsg);
        break;
    case CMD_SNAPSHOT:
        sendSnapshot(*poMsg);
        break;
    default:
        break;
    }
}

CMarket::SClient *CMarket::clientOf(const CZolMsgPdu &oMsg)
{
    const unsigned int uiClient = oMsg.m_usSrcProcID - static_cast<unsigned int>(FIRST_CLIENT_PROCESS);
    return uiClient < CLIENT_PROCESSES ? &m_arrClients.at(uiClient) : nullptr;
}

// A batch that makes no sense gets no answer: its sender runs into its time limit.
void CMarket::takeBatch(const CZolMsgPdu &oMsg)
{
    SClient *const poClient = clientOf(oMsg);
    SNACC::Batch oBatch;
    int iNumber = 0;
    std::vector<SQuote> oOrders;
    if (poClient == nullptr || zol::decodeAsn(oMsg, oBatch) != ZOL_OK || !fromAsn(oBatch.number, iNumber) ||
        !fromAsn(oBatch.orders, oOrders) || !std::all_of(oOrders.begin(), oOrders.end(), isValidOrder))
    {
        return;
    }
    if (iNumber == poClient->m_iLastBatch + 1)
    {
        poClient->m_iLastBatch = iNumber;
        trade(oOrders, *poClient);
        showProgress(oOrders.size());
    }
    if (iNumber == poClient->m_iLastBatch) // just now, or again
    {
        SNACC::Receipt oReceipt;
        oReceipt.traded = poClient->m_iLastTraded;
        oReceipt.sequence = poClient->m_iLastSequence;
        zol::sendRespMsg(oMsg, &oReceipt);
    }
}

void CMarket::trade(const std::vector<SQuote> &oOrders, SClient &oClient)
{
    std::vector<SQuote> oChanged;
    oClient.m_iLastTraded = 0;
    {
        const std::lock_guard<std::mutex> oGuard(m_oBookLock);
        for (const SQuote &oOrder : oOrders)
        {
            oClient.m_iLastTraded += m_oBook.addOrder(oOrder, oChanged);
        }
        oClient.m_iLastSequence = ++m_iSequence;
    }
    publish(m_iSequence, oChanged);
}

void CMarket::takeDone(const CZolMsgPdu &oMsg)
{
    SClient *const poClient = clientOf(oMsg);
    if (poClient == nullptr)
    {
        return;
    }
    poClient->m_bDone = true;
    SNACC::State oState;
    oState.closed =
        std::all_of(m_arrClients.begin(), m_arrClients.end(), [](const SClient &oClient) { return oClient.m_bDone; });
    oState.sequence = m_iSequence;
    zol::sendRespMsg(oMsg, &oState);
}

void CMarket::sendSnapshot(const CZolMsgPdu &oMsg) const
{
    SNACC::Levels oLevels;
    fillSnapshot(oLevels);
    zol::sendRespMsg(oMsg, &oLevels); // the library cuts it into blocks and joins them at the client
}

void CMarket::fillSnapshot(SNACC::Levels &oLevels) const
{
    const std::lock_guard<std::mutex> oGuard(m_oBookLock);
    oLevels.sequence = m_iSequence;
    toAsn(m_oBook.levels(), oLevels.quotes);
}

std::string CMarket::bookText() const
{
    const std::lock_guard<std::mutex> oGuard(m_oBookLock);
    return m_oBook.toText();
}

// A line at each tenth of the orders.
void CMarket::showProgress(size_t uiOrders)
{
    const unsigned long long ullBefore = m_uiOrders * 10ULL / m_uiExpected;
    m_uiOrders += static_cast<unsigned int>(uiOrders);
    const unsigned long long ullNow = m_uiOrders * 10ULL / m_uiExpected;
    if (ullNow != ullBefore)
    {
        std::printf("market: %3llu %%, %u orders\n", ullNow * 10, m_uiOrders);
        std::fflush(stdout);
    }
}

// Runs on the library's own thread, one request after the other. The response goes back on the connection on which the
// client waits.
int CBookListener::handleP2PMsg(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse)
{
    if (poRequest->m_ulCmdID == CMD_SNAPSHOT)
    {
        SNACC::Levels oLevels;
        m_oMarket.fillSnapshot(oLevels);
        poResponse = zol::encodeResp(*poRequest, &oLevels);
    }
    return 0;
}

} // namespace exchange
