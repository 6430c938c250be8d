// A small market of real processes:
//
//     client processes 31 to 33                 gateway          market process 20
//     trader  -- batches of orders, calls ------> vek -----------> market, owns the book
//     view   <-- changes, to all subscribers ---- vek <----------- publishes by multicast
//     view    -- where is the market? ----------> vek
//     view    -- the whole book, direct ---------------------------> the market's own port
//
// examples/exchange/demo starts them all. ZOLROOT names the folder whose conf/zol.cfg says where the gateway is.

#include "Market.h"
#include "OrderFile.h"
#include "Protocol.h"
#include "Trader.h"
#include "View.h"
#include "zol.h"

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace exchange;

namespace
{

const int EXIT_USAGE = 2;

int usage()
{
    std::fprintf(stderr, "usage: exchange market ORDERS BOOK_FILE      the market, which expects so many orders\n"
                         "       exchange client NUMBER FILE VIEW_FILE trades every third order of the file\n"
                         "       exchange generate ROWS SEED           writes orders to standard output\n"
                         "       exchange check FILE                   prints the number of orders in the file\n");
    return EXIT_USAGE;
}

/// Starts the library for this process, which runs without a process handle.
bool start(std::uint16_t usProcess, const char *pcLogName)
{
    if (CZolAppMgr::instance()->initAppMgr(usProcess, 0, true, pcLogName, nullptr) != ZOL_OK)
    {
        std::fprintf(stderr, "exchange: the library does not start\n");
        return false;
    }
    CZolRunLog::logLevel(CZolRunLog::LEVEL_WARNING); // the default level has four lines for every message
    return true;
}

/// The first message of the process goes straight to the queue: the manager's threads wait for handleEvents anyway.
void sendStart(CZolTaskMgr &oTaskMgr, std::uint16_t usTask)
{
    CZolMsgPdu *const poStart =
        zol::encodeReq(CMD_START, nullptr, 0, CZolAppMgr::instance()->getProcID(), oTaskMgr.getTaskMgrID(), usTask);
    if (poStart != nullptr)
    {
        oTaskMgr.enqueueMsg(zolBlockOf(poStart), true);
    }
}

bool writeText(const std::string &strFile, const std::string &strText)
{
    std::FILE *const pFile = std::fopen(strFile.c_str(), "we");
    if (pFile == nullptr)
    {
        return false;
    }
    const bool bWritten = std::fputs(strText.c_str(), pFile) >= 0;
    return std::fclose(pFile) == 0 && bWritten;
}

int runMarket(unsigned int uiOrders, const std::string &strBookFile)
{
    int iPort = 0;
    if (!start(MARKET_PROCESS, "market"))
    {
        return 1;
    }
    if (zol::getResByKey(KEY_MARKET_PORT, iPort, 65535, 1) != ZOL_OK ||
        zol::bindPort(static_cast<std::uint16_t>(iPort)) != ZOL_OK)
    {
        std::fprintf(stderr, "exchange: cannot listen on the port that %s names\n", KEY_MARKET_PORT);
        return 1;
    }
    auto *const poTaskMgr = new CZolTaskMgr(MARKET_MGR, 1); // owned by the application manager
    auto *const poMarket = new CMarket(uiOrders);           // owned by the task manager
    static CBookListener oListener(*poMarket);              // outlives its use: threads of the library outlive main
    CZolAppMgr::instance()->addTaskMgr(poTaskMgr);
    poTaskMgr->addStaticTask(poMarket, MARKET_TASK);
    zol::setListener(oListener);
    sendStart(*poTaskMgr, MARKET_TASK);
    CZolAppMgr::instance()->handleEvents(); // until SIGTERM
    return writeText(strBookFile, poMarket->bookText()) ? 0 : 1;
}

int runClient(unsigned int uiNumber, const std::string &strFile, const std::string &strViewFile)
{
    static SRun oRun; // outlives main: tasks refer to it
    std::vector<SQuote> oAll;
    std::string strError;
    if (!readOrders(strFile, oAll, strError))
    {
        std::fprintf(stderr, "exchange: %s\n", strError.c_str());
        return EXIT_USAGE;
    }
    std::vector<SQuote> oOwn;
    for (size_t uiRow = uiNumber; uiRow < oAll.size(); uiRow += CLIENT_PROCESSES)
    {
        oOwn.push_back(oAll[uiRow]);
    }
    if (!start(static_cast<std::uint16_t>(FIRST_CLIENT_PROCESS + uiNumber), "client"))
    {
        return 1;
    }
    auto *const poTraderMgr = new CZolTaskMgr(TRADER_MGR, 1);
    auto *const poViewMgr = new CZolTaskMgr(VIEW_MGR, 1);
    CZolAppMgr::instance()->addTaskMgr(poTraderMgr);
    CZolAppMgr::instance()->addTaskMgr(poViewMgr);
    poTraderMgr->addStaticTask(new CTrader(oRun, std::move(oOwn)), TRADER_TASK);
    poViewMgr->addStaticTask(new CView(oRun, strViewFile), VIEW_TASK);
    // Noted by the library even if it fails now, and sent again after every reconnection.
    CZolAppMgr::instance()->registerSubscribe(CMD_CHANGES, VIEW_MGR, VIEW_TASK);
    sendStart(*poTraderMgr, TRADER_TASK);
    CZolAppMgr::instance()->handleEvents(); // until SIGTERM
    return oRun.m_bAgreed ? 0 : 1;
}

int checkFile(const std::string &strFile)
{
    std::vector<SQuote> oOrders;
    std::string strError;
    if (!readOrders(strFile, oOrders, strError))
    {
        std::fprintf(stderr, "exchange: %s\n", strError.c_str());
        return EXIT_USAGE;
    }
    std::printf("%zu\n", oOrders.size());
    return 0;
}

bool toNumber(const char *pcText, unsigned int &uiNumber)
{
    if (!zol::isDigit(pcText) || std::string(pcText).size() > 9)
    {
        return false;
    }
    uiNumber = static_cast<unsigned int>(std::strtoul(pcText, nullptr, 10));
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string strRole = argc > 1 ? argv[1] : "";
    unsigned int uiNumber = 0;
    unsigned int uiSeed = 0;
    if (strRole == "market" && argc == 4 && toNumber(argv[2], uiNumber) && uiNumber > 0)
    {
        return runMarket(uiNumber, argv[3]);
    }
    if (strRole == "client" && argc == 5 && toNumber(argv[2], uiNumber) && uiNumber < CLIENT_PROCESSES)
    {
        return runClient(uiNumber, argv[3], argv[4]);
    }
    if (strRole == "generate" && argc == 4 && toNumber(argv[2], uiNumber) && toNumber(argv[3], uiSeed))
    {
        writeRandomOrders(uiNumber, uiSeed);
        return 0;
    }
    if (strRole == "check" && argc == 3)
    {
        return checkFile(argv[2]);
    }
    return usage();
}
