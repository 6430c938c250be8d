#include "Messages.h"

#include "zol.h"

namespace exchange
{

void toAsn(const std::vector<SQuote> &oQuotes, SNACC::Quotes &oAsn)
{
    for (const SQuote &oQuote : oQuotes)
    {
        SNACC::Quote &oNew = *oAsn.append();
        oNew.symbol = oQuote.m_strSymbol;
        oNew.side = oQuote.m_bSell ? SNACC::Side::sell : SNACC::Side::buy;
        oNew.price = oQuote.m_iPrice;
        oNew.quantity = oQuote.m_iQuantity;
    }
}

bool fromAsn(const SNACC::AsnInt &oAsn, int &iNumber)
{
    try
    {
        iNumber = oAsn; // throws for a number of more than 32 bits
    }
    catch (const SNACC::SnaccException &)
    {
        return false;
    }
    return true;
}

bool fromAsn(const SNACC::Quotes &oAsn, std::vector<SQuote> &oQuotes)
{
    for (const SNACC::Quote &oQuote : oAsn)
    {
        SQuote oNew;
        oNew.m_strSymbol = oQuote.symbol;
        oNew.m_bSell = oQuote.side == SNACC::Side::sell;
        if (!fromAsn(oQuote.price, oNew.m_iPrice) || !fromAsn(oQuote.quantity, oNew.m_iQuantity))
        {
            return false;
        }
        oQuotes.push_back(std::move(oNew));
    }
    return true;
}

bool levelsOf(const CZolMsgPdu &oMsg, int &iSequence, std::vector<SQuote> &oQuotes)
{
    SNACC::Levels oLevels;
    return zol::decodeAsn(oMsg, oLevels) == ZOL_OK && fromAsn(oLevels.sequence, iSequence) &&
           fromAsn(oLevels.quotes, oQuotes);
}

} // namespace exchange
