#ifndef EXCHANGE_ORDERFILE_H
#define EXCHANGE_ORDERFILE_H

#include "Book.h"

#include <cstdint>
#include <string>
#include <vector>

namespace exchange
{

/// Reads orders, one a line: SYMBOL,SIDE,PRICE,QUANTITY with SIDE buy or sell; a first line that begins with "symbol,"
/// is a head line. At most 1,000,000 rows, whose quantities sum up to at most 2147483647, so that no level of the book
/// outgrows the 32 bits of an ASN.1 integer here. False with the reason in strError.
bool readOrders(const std::string &strFile, std::vector<SQuote> &oOrders, std::string &strError);

/// Writes a head line and uiRows orders to standard output; the same seed gives the same bytes everywhere.
void writeRandomOrders(unsigned int uiRows, std::uint64_t ulSeed);

} // namespace exchange

#endif
