#ifndef EXCHANGE_TRADER_H
#define EXCHANGE_TRADER_H

#include "Book.h"
#include "zol.h"

#include <atomic>
#include <vector>

namespace exchange
{

/// How the client's run stands: written by the trader's and the view's task, read by main when both have ended.
struct SRun
{
    std::atomic<unsigned int> m_uiCalls{0};    // batches with their receipt
    std::atomic<unsigned int> m_uiRepeated{0}; // calls that had to be made again
    std::atomic<bool> m_bAgreed{false};        // the view is the market's book, byte for byte
};

/// Sends the client's orders to the market, batch by batch, and waits for each receipt. A call that fails, because the
/// gateway is gone or an answer was lost, is made again until it succeeds.
class CTrader : public CZolTask
{
public:
    CTrader(SRun &oRun, std::vector<SQuote> oOrders) : m_oRun(oRun), m_oOrders(std::move(oOrders)) {}

    void respMsgProcess(const CZolMsgPdu *poMsg) override;

private:
    bool sendOrders();
    bool awaitClose();
    bool call(std::uint32_t ulCmdID, const SNACC::AsnType *poBody, SNACC::AsnType &oResponse);

    SRun &m_oRun;
    const std::vector<SQuote> m_oOrders;
};

} // namespace exchange

#endif
