#ifndef EXCHANGE_VIEW_H
#define EXCHANGE_VIEW_H

#include "Book.h"
#include "Trader.h"
#include "zol.h"

#include <string>

namespace exchange
{

/// The client's picture of the book, made of the changes that the market publishes. A gap in their sequence means that
/// some were lost: then the view asks for the whole book and goes on from there.
///
/// Its last act is to fetch the book from the market's own port, past the gateway, and to compare.
class CView : public CZolTask
{
public:
    CView(SRun &oRun, std::string strFile) : m_oRun(oRun), m_strFile(std::move(strFile)) {}

    void respMsgProcess(const CZolMsgPdu *poMsg) override;

private:
    void takeChanges(const CZolMsgPdu &oMsg);
    void compare(const CZolMsgPdu &oMsg);
    bool resync();
    bool fetchMarketBook(std::string &strText) const;
    bool writeFile() const;

    SRun &m_oRun;
    const std::string m_strFile; // where the view is written at the end
    CBook m_oBook;
    int m_iSequence = 0; // of the last change in m_oBook
    unsigned int m_uiResyncs = 0;
};

} // namespace exchange

#endif
