#ifndef EXCHANGE_MESSAGES_H
#define EXCHANGE_MESSAGES_H

#include "Book.h"

#include <Exchange.h> // made by esnacc from Exchange.asn1
#include <vector>

class CZolMsgPdu;

namespace exchange
{

/// Between the ASN.1 values and ours. What comes from a peer is damaged or absurd until proven otherwise: the from...
/// operations give false for it, and throw nothing.
void toAsn(const std::vector<SQuote> &oQuotes, SNACC::Quotes &oAsn);
bool fromAsn(const SNACC::Quotes &oAsn, std::vector<SQuote> &oQuotes);
bool fromAsn(const SNACC::AsnInt &oAsn, int &iNumber);

/// The body of oMsg, an SNACC::Levels, as sequence and quotes.
bool levelsOf(const CZolMsgPdu &oMsg, int &iSequence, std::vector<SQuote> &oQuotes);

} // namespace exchange

#endif
