#include "gateway/config/ZolVekSettingsParts.h"

#include <arpa/inet.h>

namespace
{

std::string textOf(const std::vector<SZolVekNetwork> &oNetworks)
{
    std::string strText;
    for (const SZolVekNetwork &oNetwork : oNetworks)
    {
        in_addr oAddress{};
        oAddress.s_addr = htonl(oNetwork.m_uiAddress);
        char acText[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &oAddress, acText, sizeof acText);
        strText += (strText.empty() ? "" : ", ") + std::string(acText) + "/" + std::to_string(oNetwork.m_iBits);
    }
    return strText;
}

std::string debugFromText(const SZolVekSettings &oSettings)
{
    if (oSettings.m_bDebugFromAll || oSettings.m_oDebugFrom.empty())
    {
        return oSettings.m_bDebugFromAll ? "all" : "none";
    }
    std::string strText;
    for (const std::uint16_t usId : oSettings.m_oDebugFrom)
    {
        strText += (strText.empty() ? "" : ", ") + std::to_string(usId);
    }
    return strText;
}

} // namespace

const char *zolVekNameOf(EnumZolVekCheckSource eCheckSource)
{
    switch (eCheckSource)
    {
    case VEK_CHECK_LOG:
        return "log";
    case VEK_CHECK_DROP:
        return "drop";
    default:
        return "off";
    }
}

const char *zolVekNameOf(EnumZolVekSlowConsumer eSlowConsumer)
{
    switch (eSlowConsumer)
    {
    case VEK_SLOW_DROP:
        return "drop";
    case VEK_SLOW_CLOSE:
        return "close";
    default:
        return "block";
    }
}

std::string zolVekValueOf(const SZolVekSettings &oSettings, const std::string &strKey)
{
    const SZolVekNumber *const poNumber = zolVekFindNumber(strKey);
    if (poNumber != nullptr)
    {
        return std::to_string(poNumber->m_puiValue != nullptr ? oSettings.*poNumber->m_puiValue
                                                              : oSettings.*poNumber->m_pulValue);
    }
    if (strKey == "Listen")
    {
        return oSettings.m_strListenHost + ":" + std::to_string(oSettings.m_uiListenPort);
    }
    if (strKey == "Http")
    {
        return oSettings.m_strHttp;
    }
    if (strKey == "LogPath")
    {
        return oSettings.m_strLogPath;
    }
    if (strKey == "SlowConsumer")
    {
        return zolVekNameOf(oSettings.m_eSlowConsumer);
    }
    if (strKey == "CheckSource")
    {
        return zolVekNameOf(oSettings.m_eCheckSource);
    }
    if (strKey == "MaxRatePerPipe")
    {
        return std::to_string(oSettings.m_ulMaxFramesPerSecond) + ", " +
               std::to_string(oSettings.m_ulMaxBytesPerSecond);
    }
    if (strKey == "DebugFrom")
    {
        return debugFromText(oSettings);
    }
    if (strKey == "AllowFrom")
    {
        return textOf(oSettings.m_oAllowFrom);
    }
    std::string strText;
    if (strKey == "AllowFrom.<id>")
    {
        for (const auto &oPair : oSettings.m_oAllowFromById)
        {
            strText += (strText.empty() ? "" : "; ") + std::to_string(oPair.first) + "=" + textOf(oPair.second);
        }
    }
    if (strKey == "Port.<id>")
    {
        for (const auto &oPair : oSettings.m_oPortsById)
        {
            strText += (strText.empty() ? "" : " ") + std::to_string(oPair.first) + "=" + std::to_string(oPair.second);
        }
        for (const auto &oPair : oSettings.m_oPorts)
        {
            strText += (strText.empty() ? "" : " ") + std::to_string(zolVekProcOf(oPair.first)) + "." +
                       std::to_string(zolVekHandleOf(oPair.first)) + "=" + std::to_string(oPair.second);
        }
    }
    return strText;
}

std::vector<std::string> zolVekDifferences(const SZolVekSettings &oOld, const SZolVekSettings &oNew, bool bReloadable)
{
    std::vector<std::string> oLines;
    for (const SZolVekKeyInfo &oKey : zolVekKeys())
    {
        const std::string strOld = zolVekValueOf(oOld, oKey.m_pcKey);
        const std::string strNew = zolVekValueOf(oNew, oKey.m_pcKey);
        if (oKey.m_bReloads == bReloadable && strOld != strNew)
        {
            oLines.push_back(std::string(oKey.m_pcKey) + ": " + (strOld.empty() ? "none" : strOld) + " -> " +
                             (strNew.empty() ? "none" : strNew));
        }
    }
    return oLines;
}

std::string CZolVekSettingsReader::effective() const
{
    std::string strText;
    for (const SZolVekKeyInfo &oKey : zolVekKeys())
    {
        const std::string strKey = oKey.m_pcKey;
        const std::string strStem = strKey.substr(0, strKey.find('<'));
        std::string strOrigin;
        for (const SZolVekEntry &oEntry : m_oEntries)
        {
            const bool bHere = strStem.size() < strKey.size() ? oEntry.m_strKey.compare(0, strStem.size(), strStem) == 0
                                                              : oEntry.m_strKey == strKey;
            if (bHere)
            {
                strOrigin += (strOrigin.empty() ? "" : ", ") + oEntry.m_strOrigin;
            }
        }
        strText += strKey + " = " + zolVekValueOf(m_oSettings, strKey) + "    (" + oKey.m_pcUnit + "; " +
                   (strOrigin.empty() ? "default" : strOrigin) + ")\n";
    }
    return strText;
}
