#include "View.h"

#include "Messages.h"
#include "Protocol.h"

#include <arpa/inet.h>
#include <cstdio>
#include <memory>

namespace exchange
{

namespace
{

const int SNAPSHOT_SECONDS = 10;

} // namespace

void CView::respMsgProcess(const CZolMsgPdu *poMsg)
{
    if (poMsg->m_ulCmdID == CMD_CHANGES)
    {
        takeChanges(*poMsg);
    }
    else if (poMsg->m_ulCmdID == CMD_COMPARE)
    {
        compare(*poMsg);
    }
}

void CView::takeChanges(const CZolMsgPdu &oMsg)
{
    int iSequence = 0;
    std::vector<SQuote> oChanged;
    if (!levelsOf(oMsg, iSequence, oChanged) || iSequence <= m_iSequence) // already part of a snapshot
    {
        return;
    }
    if (iSequence != m_iSequence + 1)
    {
        resync();
        return;
    }
    m_iSequence = iSequence;
    for (const SQuote &oLevel : oChanged)
    {
        m_oBook.setLevel(oLevel);
    }
}

// A synchronous call from inside a handler: changes that arrive meanwhile wait in the task's list, and those that the
// snapshot holds already are skipped. If it fails, the next change shows the gap again.
bool CView::resync()
{
    ++m_uiResyncs;
    CZolMsgPdu *poResponse = nullptr;
    if (zol::sendSyncReq(CMD_SNAPSHOT, nullptr, 0, SNAPSHOT_SECONDS, poResponse, MARKET_PROCESS, MARKET_MGR,
                         MARKET_TASK) != ZOL_OK)
    {
        return false;
    }
    const std::unique_ptr<CZolMsgPdu> oResponse(poResponse);
    int iSequence = 0;
    std::vector<SQuote> oLevels;
    if (!levelsOf(*oResponse, iSequence, oLevels))
    {
        return false;
    }
    m_iSequence = iSequence;
    m_oBook.clear();
    for (const SQuote &oLevel : oLevels)
    {
        m_oBook.setLevel(oLevel);
    }
    return true;
}

void CView::compare(const CZolMsgPdu &oMsg)
{
    SNACC::State oState;
    int iFinal = 0;
    if (zol::decodeAsn(oMsg, oState) != ZOL_OK || !fromAsn(oState.sequence, iFinal))
    {
        return;
    }
    if (m_iSequence < iFinal)
    {
        resync();
    }
    std::string strMarket;
    const bool bFetched = fetchMarketBook(strMarket);
    m_oRun.m_bAgreed = bFetched && m_iSequence == iFinal && m_oBook.toText() == strMarket;
    std::printf("client %u: %u calls, %u repeated; %d changes, %u times resynchronised; %s\n",
                CZolAppMgr::instance()->getProcID(), m_oRun.m_uiCalls.load(), m_oRun.m_uiRepeated.load(), m_iSequence,
                m_uiResyncs,
                m_oRun.m_bAgreed ? "the view is the market's book"
                : bFetched       ? "THE VIEW DIFFERS FROM THE MARKET'S BOOK"
                                 : "THE MARKET GAVE NO BOOK ON ITS PORT");
    std::fflush(stdout);
    if (!writeFile())
    {
        std::fprintf(stderr, "exchange: cannot write %s\n", m_strFile.c_str());
        m_oRun.m_bAgreed = false;
    }
}

// Where the market listens is the gateway's knowledge. Nothing but the address passes through it.
bool CView::fetchMarketBook(std::string &strText) const
{
    unsigned int uiAddr = 0;
    unsigned short usPort = 0;
    if (CZolAppMgr::instance()->getProcAddrByID(MARKET_PROCESS, 0, uiAddr, usPort) != ZOL_OK)
    {
        return false;
    }
    CZolMsgPdu *poRequest = zol::encodeReq(CMD_SNAPSHOT, nullptr, 0, MARKET_PROCESS, 0, 0);
    CZolMsgPdu *poResponse = nullptr;
    // the address came in host order, a direct request takes it in network order
    if (zol::sendP2PMsg(htonl(uiAddr), usPort, poRequest, &poResponse, SNAPSHOT_SECONDS) != ZOL_OK)
    {
        return false;
    }
    const std::unique_ptr<CZolMsgPdu> oResponse(poResponse);
    int iSequence = 0;
    std::vector<SQuote> oLevels;
    if (!levelsOf(*oResponse, iSequence, oLevels))
    {
        return false;
    }
    CBook oBook;
    for (const SQuote &oLevel : oLevels)
    {
        oBook.setLevel(oLevel);
    }
    strText = oBook.toText();
    return true;
}

// Under another name first, so that whoever waits for the file finds it whole.
bool CView::writeFile() const
{
    const std::string strPart = m_strFile + ".part";
    std::FILE *const pFile = std::fopen(strPart.c_str(), "we");
    if (pFile == nullptr)
    {
        return false;
    }
    std::fputs(m_oBook.toText().c_str(), pFile);
    const bool bWritten = std::ferror(pFile) == 0;
    return std::fclose(pFile) == 0 && bWritten && std::rename(strPart.c_str(), m_strFile.c_str()) == 0;
}

} // namespace exchange
