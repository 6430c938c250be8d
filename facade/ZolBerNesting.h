#ifndef ZOL_FACADE_ZOLBERNESTING_H
#define ZOL_FACADE_ZOLBERNESTING_H

#include <cstddef>

/// Levels of constructed values that zol::decodeAsn hands to the ASN.1 runtime. Real types nest a few dozen levels.
constexpr unsigned int ZOL_MAX_BER_LEVELS = 1000;

/// Whether the first BER value of uiLength bytes may be given to a decoder that calls itself for every level: the
/// classes that the ASN.1 compiler makes take up to some hundred bytes of stack for each, so that 100,000 levels, a
/// message of 200 KB, would end the process. False if the value is nested deeper than ZOL_MAX_BER_LEVELS, or if a value
/// in it ends outside of the one around it: from there on a decoder, which trusts lengths, sees other levels than we
/// do.
///
/// Costs a few nanoseconds for each value in it, and nothing for a payload too short to be nested that deep.
bool zolIsBerNestingSafe(const char *pcData, std::size_t uiLength);

#endif
