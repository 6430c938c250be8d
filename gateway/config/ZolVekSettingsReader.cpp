#include "gateway/config/ZolVekSettingsParts.h"

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
    bool bKnown = true;
    if (applyNumber(oEntry, bKnown) || bKnown)
    {
        return;
    }
    bKnown = true;
    if (applyById(oEntry, bKnown) || bKnown)
    {
        return;
    }
    if (!applyText(oEntry))
    {
        fault(oEntry, "unknown key");
    }
}

bool CZolVekSettingsReader::applyNumber(const SZolVekEntry &oEntry, bool &bKnown)
{
    const SZolVekNumber *const poNumber = zolVekFindNumber(oEntry.m_strKey);
    bKnown = poNumber != nullptr;
    if (!bKnown)
    {
        return false;
    }
    std::uint64_t ulValue = 0;
    if (!zolVekNumberFrom(oEntry.m_strValue, poNumber->m_ulMax, ulValue) || ulValue < poNumber->m_ulMin)
    {
        fault(oEntry, "\"" + oEntry.m_strValue + "\" is no number from " + std::to_string(poNumber->m_ulMin) + " to " +
                          std::to_string(poNumber->m_ulMax));
        return false;
    }
    if (poNumber->m_puiValue != nullptr)
    {
        m_oSettings.*poNumber->m_puiValue = static_cast<unsigned int>(ulValue);
    }
    else
    {
        m_oSettings.*poNumber->m_pulValue = ulValue;
    }
    return true;
}

bool CZolVekSettingsReader::applyById(const SZolVekEntry &oEntry, bool &bKnown)
{
    const std::string &strKey = oEntry.m_strKey;
    if (strKey.compare(0, 5, "Port.") == 0)
    {
        return applyPort(oEntry, strKey.substr(5));
    }
    if (strKey.compare(0, 10, "AllowFrom.") == 0)
    {
        std::uint64_t ulId = 0;
        if (!zolVekNumberFrom(strKey.substr(10), 65534, ulId) || ulId == 0)
        {
            fault(oEntry, "the process id is no number from 1 to 65534");
            return false;
        }
        if (!applyNetworks(oEntry.m_strValue, m_oSettings.m_oAllowFromById[static_cast<std::uint16_t>(ulId)]))
        {
            fault(oEntry, "\"" + oEntry.m_strValue + "\" is no list of addresses and prefixes");
            return false;
        }
        return true;
    }
    bKnown = false;
    return false;
}

bool CZolVekSettingsReader::applyPort(const SZolVekEntry &oEntry, const std::string &strWho)
{
    const std::size_t ulDot = strWho.find('.');
    std::uint64_t ulId = 0;
    std::uint64_t ulHandle = 0;
    std::uint64_t ulPort = 0;
    if (!zolVekNumberFrom(strWho.substr(0, ulDot), 65534, ulId) || ulId == 0 ||
        (ulDot != std::string::npos && !zolVekNumberFrom(strWho.substr(ulDot + 1), 65535, ulHandle)))
    {
        fault(oEntry, "the key names no process id from 1 to 65534, or id and handle");
        return false;
    }
    if (!zolVekNumberFrom(oEntry.m_strValue, 65535, ulPort) || ulPort == 0)
    {
        fault(oEntry, "\"" + oEntry.m_strValue + "\" is no port from 1 to 65535");
        return false;
    }
    const std::uint16_t usId = static_cast<std::uint16_t>(ulId);
    if (ulDot == std::string::npos)
    {
        m_oSettings.m_oPortsById[usId] = static_cast<std::uint16_t>(ulPort);
        return true;
    }
    m_oSettings.m_oPorts[zolVekKey(usId, static_cast<std::uint16_t>(ulHandle))] = static_cast<std::uint16_t>(ulPort);
    return true;
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
