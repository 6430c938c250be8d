#include "OrderFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string_view>

namespace exchange
{

namespace
{

const size_t MAX_ROWS = 1000000;

/// Takes the text up to the next comma, or the rest, off the front of strLine.
std::string_view takeField(std::string_view &strLine)
{
    const size_t uiEnd = std::min(strLine.find(','), strLine.size());
    const std::string_view strField = strLine.substr(0, uiEnd);
    strLine.remove_prefix(std::min(uiEnd + 1, strLine.size()));
    return strField;
}

bool toNumber(std::string_view strField, int &iNumber)
{
    const auto oResult = std::from_chars(strField.data(), strField.data() + strField.size(), iNumber);
    return oResult.ec == std::errc() && oResult.ptr == strField.data() + strField.size();
}

bool parseOrder(std::string_view strLine, SQuote &oOrder)
{
    oOrder.m_strSymbol = takeField(strLine);
    const std::string_view strSide = takeField(strLine);
    const std::string_view strPrice = takeField(strLine);
    oOrder.m_bSell = strSide == "sell";
    return (oOrder.m_bSell || strSide == "buy") && toNumber(strPrice, oOrder.m_iPrice) &&
           toNumber(strLine, oOrder.m_iQuantity) && isValidOrder(oOrder);
}

} // namespace

bool readOrders(const std::string &strFile, std::vector<SQuote> &oOrders, std::string &strError)
{
    std::ifstream oFile(strFile);
    std::string strLine;
    std::uint64_t ulQuantity = 0;
    for (size_t uiLine = 1; std::getline(oFile, strLine); ++uiLine)
    {
        if (!strLine.empty() && strLine.back() == '\r')
        {
            strLine.pop_back();
        }
        if (uiLine == 1 && strLine.rfind("symbol,", 0) == 0)
        {
            continue;
        }
        SQuote oOrder;
        if (!parseOrder(strLine, oOrder))
        {
            strError = strFile + ":" + std::to_string(uiLine) + ": this is no SYMBOL,SIDE,PRICE,QUANTITY";
            return false;
        }
        ulQuantity += static_cast<std::uint64_t>(oOrder.m_iQuantity);
        oOrders.push_back(std::move(oOrder));
        if (oOrders.size() > MAX_ROWS || ulQuantity > INT_MAX)
        {
            strError = strFile + ":" + std::to_string(uiLine) + ": too many orders, or too much of a quantity";
            return false;
        }
    }
    if (!oFile.eof() || oOrders.empty())
    {
        strError = "cannot read orders from " + strFile;
        return false;
    }
    return true;
}

// A price that wanders for each symbol, orders on both sides of it, and so near that about half of them trade. Only the
// generator itself is used: what the library's distributions give differs from one to the next.
void writeRandomOrders(unsigned int uiRows, std::uint64_t ulSeed)
{
    const std::array<const char *, 8> arrSymbols = {"ASH", "BIRCH", "CEDAR", "ELM", "LARCH", "MAPLE", "OAK", "PINE"};
    std::array<int, 8> arrPrices = {1200, 3400, 870, 2210, 640, 5120, 9900, 1510};
    std::mt19937_64 oRandom(ulSeed);
    std::printf("symbol,side,price,quantity\n");
    for (unsigned int uiRow = 0; uiRow < uiRows; ++uiRow)
    {
        const std::uint64_t ulBits = oRandom();
        const size_t uiSymbol = ulBits % arrSymbols.size();
        int &iPrice = arrPrices.at(uiSymbol);
        iPrice = std::max(100, iPrice + static_cast<int>(ulBits >> 8 & 0x3) - static_cast<int>(ulBits >> 16 & 0x3));
        const bool bSell = (ulBits >> 24 & 1) != 0;
        const int iAway = static_cast<int>(ulBits >> 32 & 0x3f) - 16; // below 0: crosses the price
        std::printf("%s,%s,%d,%d\n", arrSymbols.at(uiSymbol), bSell ? "sell" : "buy",
                    std::max(1, bSell ? iPrice + iAway : iPrice - iAway), static_cast<int>(ulBits >> 40 & 0xff) + 1);
    }
}

} // namespace exchange
