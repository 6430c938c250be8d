#ifndef EXCHANGE_BOOK_H
#define EXCHANGE_BOOK_H

#include <map>
#include <string>
#include <vector>

namespace exchange
{

/// An order, or a level of the book. Price and quantity are whole numbers, the quantity of an order at least 1.
struct SQuote
{
    std::string m_strSymbol;
    bool m_bSell = false;
    int m_iPrice = 0;
    int m_iQuantity = 0;
};

/// Symbols are short words of capitals and digits, prices and quantities are above 0.
bool isValidOrder(const SQuote &oOrder);

/// What is wanted and offered, by symbol and price. Two books with the same levels have the same text.
///
/// Threads: none of its own; whoever shares a book locks it.
class CBook
{
public:
    /// Trades the order against the other side, the best price first, and enters what is left of it. The levels that
    /// changed are added to oChanged, with their new quantity. Returns the quantity traded.
    int addOrder(const SQuote &oOrder, std::vector<SQuote> &oChanged);

    /// Sets the quantity of one level; 0 removes it.
    void setLevel(const SQuote &oLevel);

    void clear() { m_oSymbols.clear(); }

    /// Symbols in ascending order, in each the buyers and then the sellers, prices ascending.
    std::vector<SQuote> levels() const;

    /// One line for each level: "SYMBOL SIDE PRICE QUANTITY".
    std::string toText() const;

private:
    using Levels = std::map<int, int>; // price -> quantity, never 0

    struct SSides
    {
        Levels m_oBuy;
        Levels m_oSell;
    };

    std::map<std::string, SSides> m_oSymbols;
};

} // namespace exchange

#endif
