#include "gateway/config/ZolVekValues.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace
{

const std::size_t MAX_LINE = 511; // characters of a line; the reader of zol.cfg looks at no more

bool isLoopback(std::uint32_t uiAddress)
{
    return uiAddress >> 24 == 127;
}

} // namespace

bool CZolVekSettingsReader::addFile(const std::string &strPath)
{
    std::error_code oIgnored;
    std::ifstream oFile(strPath, std::ios::binary);
    if (!oFile || std::filesystem::is_directory(strPath, oIgnored)) // a folder opens, and only its reading fails
    {
        return false;
    }
    const std::string strText((std::istreambuf_iterator<char>(oFile)), std::istreambuf_iterator<char>());
    addText(strPath, strText);
    return !oFile.bad();
}

void CZolVekSettingsReader::addText(const std::string &strName, const std::string &strText)
{
    std::istringstream oText(strText);
    std::string strLine;
    for (int iLine = 1; std::getline(oText, strLine); ++iLine)
    {
        addLine(strName + ":" + std::to_string(iLine), strLine);
    }
}

// The rest of a line that is cut could be the half of a prefix: 10.0.0.0/24 cut behind the 2 lets half the world in.
void CZolVekSettingsReader::addLine(const std::string &strOrigin, const std::string &strWhole)
{
    const std::string strLine = zolVekTrimmed(strWhole);
    if (strLine.empty() || strLine[0] == '#')
    {
        return;
    }
    if (strWhole.size() > MAX_LINE || strWhole.find('\0') != std::string::npos)
    {
        m_oLineFaults.push_back(strOrigin + (strWhole.size() > MAX_LINE ? ": a line longer than 511 characters"
                                                                        : ": a line with a zero byte in it"));
        return;
    }
    const std::size_t ulEquals = strLine.find('=');
    if (ulEquals != std::string::npos && ulEquals != 0)
    {
        add({zolVekTrimmed(strLine.substr(0, ulEquals)), zolVekTrimmed(strLine.substr(ulEquals + 1)), strOrigin});
    }
}

void CZolVekSettingsReader::add(const SZolVekEntry &oEntry)
{
    for (const SZolVekEntry &oOther : m_oEntries)
    {
        if (oOther.m_strKey == oEntry.m_strKey)
        {
            return;
        }
    }
    m_oEntries.push_back(oEntry);
}

bool CZolVekSettingsReader::check()
{
    m_oSettings = SZolVekSettings();
    m_oFaults = m_oLineFaults;
    for (const SZolVekEntry &oEntry : m_oEntries)
    {
        apply(oEntry);
    }
    if (m_oFaults.empty())
    {
        checkTogether();
    }
    return m_oFaults.empty();
}

void CZolVekSettingsReader::fault(const SZolVekEntry &oEntry, const std::string &strWhat)
{
    m_oFaults.push_back(oEntry.m_strOrigin + ": " + oEntry.m_strKey + ": " + strWhat);
}

void CZolVekSettingsReader::apply(const SZolVekEntry &oEntry)
{
    const auto &oKeys = zolVekKeys();
    const auto oKey = std::find_if(oKeys.begin(), oKeys.end(),
                                   [&](const SZolVekKeyInfo &oInfo) { return oInfo.isKeyOf(oEntry.m_strKey); });
    if (oKey == oKeys.end())
    {
        fault(oEntry, "unknown key");
        return;
    }
    const std::string strWho = oEntry.m_strKey.substr(oKey->stem().size());
    const std::string strFault = oKey->m_fnParse(m_oSettings, strWho, oEntry.m_strValue);
    if (!strFault.empty())
    {
        fault(oEntry, strFault);
    }
}

void CZolVekSettingsReader::checkTogether()
{
    std::uint32_t uiAddress = 0;
    zolVekAddressFrom(m_oSettings.m_strListenHost, uiAddress);
    if (!isLoopback(uiAddress) && m_oSettings.m_oAllowFrom.empty())
    {
        const auto oListen = std::find_if(m_oEntries.begin(), m_oEntries.end(),
                                          [](const SZolVekEntry &oEntry) { return oEntry.m_strKey == "Listen"; });
        fault(*oListen, // there is one: the default is a loopback address
              "an address other than loopback wants AllowFrom, which says who may register");
    }
    if (m_oSettings.m_ulPipeQueueBytes > m_oSettings.m_ulTotalQueueBytes)
    {
        m_oSettings.m_ulPipeQueueBytes = m_oSettings.m_ulTotalQueueBytes; // the tighter bound holds in any case
    }
    m_oSettings.m_uiMaxFrameBytes = static_cast<unsigned int>(
        std::min<std::uint64_t>(m_oSettings.m_uiMaxFrameBytes, m_oSettings.m_ulTotalQueueBytes));
}

std::string CZolVekSettingsReader::effective() const
{
    std::string strText;
    for (const SZolVekKeyInfo &oKey : zolVekKeys())
    {
        std::string strOrigin;
        for (const SZolVekEntry &oEntry : m_oEntries)
        {
            if (oKey.isKeyOf(oEntry.m_strKey))
            {
                strOrigin += (strOrigin.empty() ? "" : ", ") + oEntry.m_strOrigin;
            }
        }
        strText += std::string(oKey.m_pcKey) + " = " + oKey.m_fnPrint(m_oSettings) + "    (" + oKey.m_pcUnit + "; " +
                   (strOrigin.empty() ? "default" : strOrigin) + ")\n";
    }
    return strText;
}
