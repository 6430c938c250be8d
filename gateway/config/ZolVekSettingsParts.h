#ifndef ZOL_VEK_SETTINGS_PARTS_H
#define ZOL_VEK_SETTINGS_PARTS_H

#include "gateway/config/ZolVekSettings.h"

/// What reading the settings and printing them share; of no use outside the ZolVekSettings files.

/// A number among the settings: where it is kept and what it may be.
struct SZolVekNumber
{
    const char *m_pcKey;
    unsigned int SZolVekSettings::*m_puiValue; // one of the two
    std::uint64_t SZolVekSettings::*m_pulValue;
    std::uint64_t m_ulMin;
    std::uint64_t m_ulMax;
};

/// Null for a key that is no number.
const SZolVekNumber *zolVekFindNumber(const std::string &strKey);

/// The choices as they are written.
const char *zolVekNameOf(EnumZolVekCheckSource eCheckSource);
const char *zolVekNameOf(EnumZolVekSlowConsumer eSlowConsumer);

/// Without the blanks and tabulators around it.
std::string zolVekTrimmed(const std::string &strText);

/// Digits only, and at most ulMax; else false.
bool zolVekNumberFrom(const std::string &strText, std::uint64_t ulMax, std::uint64_t &ulValue);

/// An IPv4 address in host order, or "localhost"; else false.
bool zolVekAddressFrom(const std::string &strText, std::uint32_t &uiAddress);

#endif
