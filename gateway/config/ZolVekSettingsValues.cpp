#include "gateway/config/ZolVekSettingsParts.h"

#include "gateway/watch/http/ZolHttpServer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <sstream>

namespace
{

const std::uint64_t MAX_RATE = 1000000000000; // frames or bytes in a second

bool endsWithComma(const std::string &strText)
{
    return !strText.empty() && strText.back() == ',';
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

bool CZolVekSettingsReader::applyText(const SZolVekEntry &oEntry)
{
    if (oEntry.m_strKey == "Listen")
    {
        if (!applyListen(oEntry.m_strValue))
        {
            fault(oEntry, "\"" + oEntry.m_strValue + "\" is no IPv4 address and port with a colon between them");
        }
        return true;
    }
    if (oEntry.m_strKey == "Http")
    {
        std::uint32_t uiAddress = 0;
        std::uint16_t usPort = 0;
        m_oSettings.m_strHttp = oEntry.m_strValue;
        if (!CZolHttpServer::parseListen(oEntry.m_strValue, uiAddress, usPort))
        {
            fault(oEntry,
                  "\"" + oEntry.m_strValue + "\" is no port, and no IPv4 address and port with a colon between");
        }
        return true;
    }
    if (oEntry.m_strKey == "LogPath")
    {
        m_oSettings.m_strLogPath = oEntry.m_strValue;
        return true;
    }
    if (oEntry.m_strKey == "AllowFrom")
    {
        if (!applyNetworks(oEntry.m_strValue, m_oSettings.m_oAllowFrom))
        {
            fault(oEntry, "\"" + oEntry.m_strValue + "\" is no list of addresses and prefixes");
        }
        return true;
    }
    if (oEntry.m_strKey != "SlowConsumer")
    {
        return applyPolicy(oEntry);
    }
    for (const EnumZolVekSlowConsumer eChoice : {VEK_SLOW_BLOCK, VEK_SLOW_DROP, VEK_SLOW_CLOSE})
    {
        if (oEntry.m_strValue == zolVekNameOf(eChoice))
        {
            m_oSettings.m_eSlowConsumer = eChoice;
            return true;
        }
    }
    fault(oEntry, "\"" + oEntry.m_strValue + "\" is none of block, drop, close");
    return true;
}

bool CZolVekSettingsReader::applyPolicy(const SZolVekEntry &oEntry)
{
    if (oEntry.m_strKey == "DebugFrom")
    {
        if (!applyDebugFrom(oEntry.m_strValue))
        {
            fault(oEntry, "\"" + oEntry.m_strValue + "\" is neither all nor none nor a list of process ids");
        }
        return true;
    }
    if (oEntry.m_strKey == "MaxRatePerPipe")
    {
        if (!applyRate(oEntry.m_strValue))
        {
            fault(oEntry, "\"" + oEntry.m_strValue + "\" is no two numbers, frames and bytes, with a comma between");
        }
        return true;
    }
    if (oEntry.m_strKey != "CheckSource")
    {
        return false;
    }
    for (const EnumZolVekCheckSource eChoice : {VEK_CHECK_OFF, VEK_CHECK_LOG, VEK_CHECK_DROP})
    {
        if (oEntry.m_strValue == zolVekNameOf(eChoice))
        {
            m_oSettings.m_eCheckSource = eChoice;
            return true;
        }
    }
    fault(oEntry, "\"" + oEntry.m_strValue + "\" is none of off, log, drop");
    return true;
}

bool CZolVekSettingsReader::applyDebugFrom(const std::string &strValue)
{
    m_oSettings.m_bDebugFromAll = strValue == "all";
    if (strValue == "all" || strValue == "none")
    {
        return true;
    }
    std::istringstream oList(strValue + (endsWithComma(strValue) ? "," : "")); // an empty last one is one
    std::string strOne;
    while (std::getline(oList, strOne, ','))
    {
        std::uint64_t ulId = 0;
        if (!zolVekNumberFrom(zolVekTrimmed(strOne), 65534, ulId) || ulId == 0)
        {
            return false;
        }
        m_oSettings.m_oDebugFrom.push_back(static_cast<std::uint16_t>(ulId));
    }
    return !m_oSettings.m_oDebugFrom.empty();
}

bool CZolVekSettingsReader::applyRate(const std::string &strValue)
{
    const std::size_t ulComma = strValue.find(',');
    return ulComma != std::string::npos &&
           zolVekNumberFrom(zolVekTrimmed(strValue.substr(0, ulComma)), MAX_RATE, m_oSettings.m_ulMaxFramesPerSecond) &&
           zolVekNumberFrom(zolVekTrimmed(strValue.substr(ulComma + 1)), MAX_RATE, m_oSettings.m_ulMaxBytesPerSecond);
}

bool CZolVekSettingsReader::applyListen(const std::string &strValue)
{
    const std::size_t ulColon = strValue.rfind(':');
    std::uint64_t ulPort = 0;
    std::uint32_t uiAddress = 0;
    if (ulColon == std::string::npos || !zolVekNumberFrom(strValue.substr(ulColon + 1), 65535, ulPort) ||
        !zolVekAddressFrom(strValue.substr(0, ulColon), uiAddress))
    {
        return false;
    }
    m_oSettings.m_strListenHost = strValue.substr(0, ulColon);
    if (m_oSettings.m_strListenHost == "localhost")
    {
        m_oSettings.m_strListenHost = "127.0.0.1";
    }
    m_oSettings.m_uiListenPort = static_cast<unsigned int>(ulPort);
    return true;
}

bool CZolVekSettingsReader::applyNetworks(const std::string &strValue, std::vector<SZolVekNetwork> &oNetworks)
{
    std::istringstream oList(strValue + (endsWithComma(strValue) ? "," : "")); // an empty last one is one
    std::string strOne;
    while (std::getline(oList, strOne, ','))
    {
        strOne = zolVekTrimmed(strOne);
        const std::size_t ulSlash = strOne.find('/');
        std::uint64_t ulBits = 32;
        SZolVekNetwork oNetwork;
        if (!zolVekAddressFrom(strOne.substr(0, ulSlash), oNetwork.m_uiAddress) ||
            (ulSlash != std::string::npos && !zolVekNumberFrom(strOne.substr(ulSlash + 1), 32, ulBits)))
        {
            return false;
        }
        oNetwork.m_iBits = static_cast<int>(ulBits);
        oNetworks.push_back(oNetwork);
    }
    return !oNetworks.empty();
}
