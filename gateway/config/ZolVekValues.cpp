#include "gateway/config/ZolVekValues.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>

namespace
{

const std::uint64_t MAX_RATE = 1000000000000; // frames or bytes in a second

/// The parts between commas, trimmed; an empty last one is one.
std::vector<std::string> partsOf(const std::string &strText)
{
    std::vector<std::string> oParts;
    std::size_t ulAt = 0;
    for (std::size_t ulComma = 0; (ulComma = strText.find(',', ulAt)) != std::string::npos; ulAt = ulComma + 1)
    {
        oParts.push_back(zolVekTrimmed(strText.substr(ulAt, ulComma - ulAt)));
    }
    oParts.push_back(zolVekTrimmed(strText.substr(ulAt)));
    return oParts;
}

bool networkFrom(const std::string &strText, SZolVekNetwork &oNetwork)
{
    const std::size_t ulSlash = strText.find('/');
    std::uint64_t ulBits = 32;
    if (!zolVekAddressFrom(strText.substr(0, ulSlash), oNetwork.m_uiAddress) ||
        (ulSlash != std::string::npos && !zolVekNumberFrom(strText.substr(ulSlash + 1), 32, ulBits)))
    {
        return false;
    }
    oNetwork.m_iBits = static_cast<int>(ulBits);
    return true;
}

void append(std::string &strText, const char *pcBetween, const std::string &strMore)
{
    strText += (strText.empty() ? "" : pcBetween) + strMore;
}

} // namespace

std::string zolVekTrimmed(const std::string &strText)
{
    const std::size_t ulFirst = strText.find_first_not_of(" \t");
    if (ulFirst == std::string::npos)
    {
        return std::string();
    }
    return strText.substr(ulFirst, strText.find_last_not_of(" \t") - ulFirst + 1);
}

bool zolVekNumberFrom(const std::string &strText, std::uint64_t ulMax, std::uint64_t &ulValue)
{
    if (strText.empty() || strText.size() > 18 ||
        !std::all_of(strText.begin(), strText.end(), [](unsigned char c) { return std::isdigit(c) != 0; }))
    {
        return false;
    }
    ulValue = std::stoull(strText);
    return ulValue <= ulMax;
}

bool zolVekIdFrom(const std::string &strText, std::uint16_t &usId)
{
    std::uint64_t ulId = 0;
    const bool bGood = zolVekNumberFrom(strText, 65534, ulId) && ulId != 0;
    usId = static_cast<std::uint16_t>(ulId);
    return bGood;
}

bool zolVekAddressFrom(const std::string &strText, std::uint32_t &uiAddress)
{
    in_addr oAddress{};
    if (inet_pton(AF_INET, strText == "localhost" ? "127.0.0.1" : strText.c_str(), &oAddress) != 1)
    {
        return false;
    }
    uiAddress = ntohl(oAddress.s_addr);
    return true;
}

std::string zolVekTextOf(std::uint32_t uiAddress)
{
    in_addr oAddress{};
    oAddress.s_addr = htonl(uiAddress);
    char acText[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &oAddress, acText, sizeof acText);
    return acText;
}

bool zolVekListenFrom(const std::string &strText, std::uint32_t &uiAddress, std::uint16_t &usPort)
{
    const std::size_t ulColon = strText.rfind(':');
    std::uint64_t ulPort = 0;
    if (ulColon == std::string::npos || !zolVekNumberFrom(strText.substr(ulColon + 1), 65535, ulPort) ||
        !zolVekAddressFrom(strText.substr(0, ulColon), uiAddress))
    {
        return false;
    }
    usPort = static_cast<std::uint16_t>(ulPort);
    return true;
}

bool zolVekNetworksFrom(const std::string &strText, std::vector<SZolVekNetwork> &oNetworks)
{
    for (const std::string &strOne : partsOf(strText))
    {
        oNetworks.emplace_back();
        if (!networkFrom(strOne, oNetworks.back()))
        {
            return false;
        }
    }
    return true;
}

std::string zolVekTextOf(const std::vector<SZolVekNetwork> &oNetworks)
{
    std::string strText;
    for (const SZolVekNetwork &oNetwork : oNetworks)
    {
        append(strText, ", ", zolVekTextOf(oNetwork.m_uiAddress) + "/" + std::to_string(oNetwork.m_iBits));
    }
    return strText;
}

bool zolVekDebugFromFrom(const std::string &strText, SZolVekSettings &oSettings)
{
    oSettings.m_bDebugFromAll = strText == "all";
    if (strText == "all" || strText == "none")
    {
        return true;
    }
    for (const std::string &strOne : partsOf(strText))
    {
        oSettings.m_oDebugFrom.push_back(0);
        if (!zolVekIdFrom(strOne, oSettings.m_oDebugFrom.back()))
        {
            return false;
        }
    }
    return true;
}

std::string zolVekDebugFromText(const SZolVekSettings &oSettings)
{
    if (oSettings.m_bDebugFromAll || oSettings.m_oDebugFrom.empty())
    {
        return oSettings.m_bDebugFromAll ? "all" : "none";
    }
    std::string strText;
    for (const std::uint16_t usId : oSettings.m_oDebugFrom)
    {
        append(strText, ", ", std::to_string(usId));
    }
    return strText;
}

bool zolVekRateFrom(const std::string &strText, SZolVekSettings &oSettings)
{
    const std::vector<std::string> oParts = partsOf(strText);
    return oParts.size() == 2 && zolVekNumberFrom(oParts[0], MAX_RATE, oSettings.m_ulMaxFramesPerSecond) &&
           zolVekNumberFrom(oParts[1], MAX_RATE, oSettings.m_ulMaxBytesPerSecond);
}

std::string zolVekAllowFromText(const SZolVekSettings &oSettings)
{
    std::string strText;
    for (const auto &oPair : oSettings.m_oAllowFromById)
    {
        append(strText, "; ", std::to_string(oPair.first) + "=" + zolVekTextOf(oPair.second));
    }
    return strText;
}

std::string zolVekPortsText(const SZolVekSettings &oSettings)
{
    std::string strText;
    for (const auto &oPair : oSettings.m_oPortsById)
    {
        append(strText, " ", std::to_string(oPair.first) + "=" + std::to_string(oPair.second));
    }
    for (const auto &oPair : oSettings.m_oPorts)
    {
        append(strText, " ",
               std::to_string(zolVekProcOf(oPair.first)) + "." + std::to_string(zolVekHandleOf(oPair.first)) + "=" +
                   std::to_string(oPair.second));
    }
    return strText;
}
