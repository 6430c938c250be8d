#ifndef EXCHANGE_MARKET_H
#define EXCHANGE_MARKET_H

#include "Book.h"
#include "Protocol.h"
#include "zol.h"

#include <array>
#include <mutex>
#include <string>
#include <vector>

namespace SNACC
{
class Levels;
}

namespace exchange
{

/// Owns the book. Takes batches of orders as synchronous requests, tells all subscribers which levels changed, and
/// gives the whole book to whoever has missed a change.
///
/// A batch whose answer was lost comes again. The market keeps the last receipt of each client and gives it again, so
/// that no order counts twice.
///
/// Threads: the handlers on the thread of the manager; fillSnapshot() and bookText() from any thread.
class CMarket : public CZolTask
{
public:
    /// uiExpected is the number of orders that all clients have together, for the progress line.
    explicit CMarket(unsigned int uiExpected) : m_uiExpected(uiExpected) {}

    // A message that names a task arrives here, requests too; reqMsgProcess is for messages that have a task created.
    void respMsgProcess(const CZolMsgPdu *poMsg) override;

    void fillSnapshot(SNACC::Levels &oLevels) const;
    std::string bookText() const;

private:
    struct SClient
    {
        int m_iLastBatch = 0;
        int m_iLastTraded = 0;
        int m_iLastSequence = 0;
        bool m_bDone = false;
    };

    SClient *clientOf(const CZolMsgPdu &oMsg);
    void takeBatch(const CZolMsgPdu &oMsg);
    void takeDone(const CZolMsgPdu &oMsg);
    void sendSnapshot(const CZolMsgPdu &oMsg) const;
    void trade(const std::vector<SQuote> &oOrders, SClient &oClient);
    void showProgress(size_t uiOrders);

    const unsigned int m_uiExpected;
    mutable std::mutex m_oBookLock; // the listener's thread reads the book while the task's changes it
    CBook m_oBook;                  // guarded by m_oBookLock
    int m_iSequence = 0;            // guarded by m_oBookLock for others; written by the task alone
    std::array<SClient, CLIENT_PROCESSES> m_arrClients;
    unsigned int m_uiOrders = 0; // taken so far
};

/// Gives the book to those who ask for it on the market's own port, past the gateway.
class CBookListener : public CZolListener
{
public:
    explicit CBookListener(const CMarket &oMarket) : m_oMarket(oMarket) {}

    int handleP2PMsg(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse) override;

private:
    const CMarket &m_oMarket;
};

} // namespace exchange

#endif
