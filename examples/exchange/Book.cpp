#include "Book.h"

#include <algorithm>

namespace exchange
{

namespace
{

const size_t MAX_SYMBOL = 8;

bool isSymbolLetter(char cLetter)
{
    return (cLetter >= 'A' && cLetter <= 'Z') || (cLetter >= '0' && cLetter <= '9');
}

bool isWorse(const SQuote &oOrder, int iPrice)
{
    return oOrder.m_bSell ? iPrice < oOrder.m_iPrice : iPrice > oOrder.m_iPrice;
}

} // namespace

bool isValidOrder(const SQuote &oOrder)
{
    const std::string &strSymbol = oOrder.m_strSymbol;
    return !strSymbol.empty() && strSymbol.size() <= MAX_SYMBOL &&
           std::all_of(strSymbol.begin(), strSymbol.end(), isSymbolLetter) && oOrder.m_iPrice > 0 &&
           oOrder.m_iQuantity > 0;
}

int CBook::addOrder(const SQuote &oOrder, std::vector<SQuote> &oChanged)
{
    SSides &oSides = m_oSymbols[oOrder.m_strSymbol];
    Levels &oOther = oOrder.m_bSell ? oSides.m_oBuy : oSides.m_oSell;
    int iLeft = oOrder.m_iQuantity;
    while (iLeft > 0 && !oOther.empty())
    {
        // the highest buyer or the lowest seller
        const auto oBest = oOrder.m_bSell ? std::prev(oOther.end()) : oOther.begin();
        if (isWorse(oOrder, oBest->first))
        {
            break;
        }
        const int iTraded = std::min(iLeft, oBest->second);
        iLeft -= iTraded;
        oBest->second -= iTraded;
        oChanged.push_back({oOrder.m_strSymbol, !oOrder.m_bSell, oBest->first, oBest->second});
        if (oBest->second == 0)
        {
            oOther.erase(oBest);
        }
    }
    if (iLeft > 0)
    {
        int &iQuantity = (oOrder.m_bSell ? oSides.m_oSell : oSides.m_oBuy)[oOrder.m_iPrice];
        iQuantity += iLeft;
        oChanged.push_back({oOrder.m_strSymbol, oOrder.m_bSell, oOrder.m_iPrice, iQuantity});
    }
    return oOrder.m_iQuantity - iLeft;
}

void CBook::setLevel(const SQuote &oLevel)
{
    SSides &oSides = m_oSymbols[oLevel.m_strSymbol];
    Levels &oLevels = oLevel.m_bSell ? oSides.m_oSell : oSides.m_oBuy;
    if (oLevel.m_iQuantity == 0)
    {
        oLevels.erase(oLevel.m_iPrice);
    }
    else
    {
        oLevels[oLevel.m_iPrice] = oLevel.m_iQuantity;
    }
}

std::vector<SQuote> CBook::levels() const
{
    std::vector<SQuote> oAll;
    for (const auto &oSymbol : m_oSymbols)
    {
        for (const auto &oLevel : oSymbol.second.m_oBuy)
        {
            oAll.push_back({oSymbol.first, false, oLevel.first, oLevel.second});
        }
        for (const auto &oLevel : oSymbol.second.m_oSell)
        {
            oAll.push_back({oSymbol.first, true, oLevel.first, oLevel.second});
        }
    }
    return oAll;
}

std::string CBook::toText() const
{
    std::string strText;
    for (const SQuote &oLevel : levels())
    {
        strText += oLevel.m_strSymbol + (oLevel.m_bSell ? " sell " : " buy ") + std::to_string(oLevel.m_iPrice) + ' ' +
                   std::to_string(oLevel.m_iQuantity) + '\n';
    }
    return strText;
}

} // namespace exchange
