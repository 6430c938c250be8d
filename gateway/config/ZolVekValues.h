#ifndef ZOL_VEK_VALUES_H
#define ZOL_VEK_VALUES_H

#include "gateway/config/ZolVekSettings.h"

#include <cstdint>
#include <string>
#include <vector>

// The values of settings, from text and to text. What gives bool is false for a text that is no such value.

/// Without the blanks and tabulators around it.
std::string zolVekTrimmed(const std::string &strText);

/// Digits only, and at most ulMax.
bool zolVekNumberFrom(const std::string &strText, std::uint64_t ulMax, std::uint64_t &ulValue);

/// A process id from 1 to 65534.
bool zolVekIdFrom(const std::string &strText, std::uint16_t &usId);

/// An IPv4 address in host order, or "localhost".
bool zolVekAddressFrom(const std::string &strText, std::uint32_t &uiAddress);

/// "address:port".
bool zolVekListenFrom(const std::string &strText, std::uint32_t &uiAddress, std::uint16_t &usPort);

std::string zolVekTextOf(std::uint32_t uiAddress);

/// Addresses and prefixes with a comma between them; at least one.
bool zolVekNetworksFrom(const std::string &strText, std::vector<SZolVekNetwork> &oNetworks);
std::string zolVekTextOf(const std::vector<SZolVekNetwork> &oNetworks);

/// "all", "none", or ids with a comma between them.
bool zolVekDebugFromFrom(const std::string &strText, SZolVekSettings &oSettings);
std::string zolVekDebugFromText(const SZolVekSettings &oSettings);

/// "frames, bytes".
bool zolVekRateFrom(const std::string &strText, SZolVekSettings &oSettings);

/// "id=networks; id=networks", and "id=port id.handle=port".
std::string zolVekAllowFromText(const SZolVekSettings &oSettings);
std::string zolVekPortsText(const SZolVekSettings &oSettings);

#endif
