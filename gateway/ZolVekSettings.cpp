#include "ZolVekSettings.h"

#include "gateway/http/ZolHttpServer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace
{

const std::uint64_t MAX_RATE = 1000000000000; // frames or bytes in a second
const std::size_t MAX_LINE = 511;             // characters of a line that are looked at

/// A number among the settings: where it is kept and what it may be.
struct SNumber
{
    const char *m_pcKey;
    unsigned int SZolVekSettings::*m_puiValue; // one of the two
    std::uint64_t SZolVekSettings::*m_pulValue;
    std::uint64_t m_ulMin;
    std::uint64_t m_ulMax;
};

const SNumber NUMBERS[] = {
    {"LogLevel", &SZolVekSettings::m_uiLogLevel, nullptr, 0, 5},
    {"MaxLogNumber", &SZolVekSettings::m_uiMaxLogNumber, nullptr, 0, 10},
    {"MaxLogSize", &SZolVekSettings::m_uiMaxLogSize, nullptr, 1024, 10485760},
    {"MaxConnections", &SZolVekSettings::m_uiMaxConnections, nullptr, 1, 1000000},
    {"MaxUnregistered", &SZolVekSettings::m_uiMaxUnregistered, nullptr, 1, 100000},
    {"MaxFrameBytes", &SZolVekSettings::m_uiMaxFrameBytes, nullptr, 8192, 1u << 30},
    {"RegisterSeconds", &SZolVekSettings::m_uiRegisterSeconds, nullptr, 1, 3600},
    {"PipeQueueBytes", nullptr, &SZolVekSettings::m_ulPipeQueueBytes, 65536, 1ull << 40},
    {"TotalQueueBytes", nullptr, &SZolVekSettings::m_ulTotalQueueBytes, 1ull << 20, 1ull << 44},
    {"StuckSeconds", &SZolVekSettings::m_uiStuckSeconds, nullptr, 1, 86400},
    {"HelloSeconds", &SZolVekSettings::m_uiHelloSeconds, nullptr, 1, 86400},
    {"SilenceSeconds", &SZolVekSettings::m_uiSilenceSeconds, nullptr, 1, 86400},
    {"ProbeSeconds", &SZolVekSettings::m_uiProbeSeconds, nullptr, 1, 60},
    {"HandleRestSeconds", &SZolVekSettings::m_uiHandleRestSeconds, nullptr, 0, 86400},
    {"GraceSeconds", &SZolVekSettings::m_uiGraceSeconds, nullptr, 0, 3600},
    {"DrainSeconds", &SZolVekSettings::m_uiDrainSeconds, nullptr, 0, 3600},
    {"MaxPipesPerAddress", &SZolVekSettings::m_uiMaxPipesPerAddress, nullptr, 0, 1000000},
};

const SNumber *findNumber(const std::string &strKey)
{
    for (const SNumber &oNumber : NUMBERS)
    {
        if (strKey == oNumber.m_pcKey)
        {
            return &oNumber;
        }
    }
    return nullptr;
}

std::string trimmed(const std::string &strText)
{
    const std::size_t ulFirst = strText.find_first_not_of(" \t");
    if (ulFirst == std::string::npos)
    {
        return std::string();
    }
    return strText.substr(ulFirst, strText.find_last_not_of(" \t") - ulFirst + 1);
}

/// Digits only, and at most ulMax.
bool numberOf(const std::string &strText, std::uint64_t ulMax, std::uint64_t &ulValue)
{
    if (strText.empty() || strText.size() > 18 ||
        !std::all_of(strText.begin(), strText.end(), [](unsigned char c) { return std::isdigit(c) != 0; }))
    {
        return false;
    }
    ulValue = std::stoull(strText);
    return ulValue <= ulMax;
}

bool addressOf(const std::string &strText, std::uint32_t &uiAddress)
{
    in_addr oAddress{};
    if (inet_pton(AF_INET, strText == "localhost" ? "127.0.0.1" : strText.c_str(), &oAddress) != 1)
    {
        return false;
    }
    uiAddress = ntohl(oAddress.s_addr);
    return true;
}

const char *nameOf(EnumZolVekCheckSource eCheckSource)
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

const char *nameOf(EnumZolVekSlowConsumer eSlowConsumer)
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

bool endsWithComma(const std::string &strText)
{
    return !strText.empty() && strText.back() == ',';
}

bool isLoopback(std::uint32_t uiAddress)
{
    return uiAddress >> 24 == 127;
}

} // namespace

SZolVekSettings::SZolVekSettings()
{
    const std::uint64_t ulHalfOfMemory =
        static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) / 2;
    m_ulTotalQueueBytes = std::min<std::uint64_t>(1ull << 30, ulHalfOfMemory);
}

const std::vector<SZolVekKeyInfo> &zolVekKeys()
{
    static const std::vector<SZolVekKeyInfo> *const poKeys = new std::vector<SZolVekKeyInfo>{
        {"Listen", "--listen", "address:port", false, "where processes connect; port 0 takes a free one"},
        {"Http", "--http", "address:port", false,
         "status page, metrics and health; a port alone is on the loopback interface; without it there is none"},
        {"LogLevel", "--log-level", "0 to 5", true, "0 off, 1 fatal, 2 error, 3 warning, 4 info, 5 debug"},
        {"LogPath", "--log-path", "folder", false, "folder of the run log; without it lines go to standard error"},
        {"MaxLogNumber", "--max-log-number", "files", false, "log files in rotation; 0 is no log"},
        {"MaxLogSize", "--max-log-size", "bytes", false, "size at which the next log file begins"},
        {"MaxConnections", "--max-connections", "pipes", true,
         "registered processes; further ones are refused with -10"},
        {"MaxUnregistered", "--max-unregistered", "connections", true, "connections that have not registered yet"},
        {"MaxFrameBytes", "--max-frame-bytes", "bytes", true, "largest frame, header included"},
        {"RegisterSeconds", "--register-seconds", "seconds", true, "time from connecting to the register message"},
        {"PipeQueueBytes", "--pipe-queue-bytes", "bytes", true, "frames that wait for one process"},
        {"TotalQueueBytes", "--total-queue-bytes", "bytes", true, "frames that wait for all processes together"},
        {"SlowConsumer", "--slow-consumer", "block, drop or close", true, "what happens when a queue is full"},
        {"StuckSeconds", "--stuck-seconds", "seconds", true, "a queue that moves no byte for so long closes its pipe"},
        {"HelloSeconds", "--hello-seconds", "seconds", true,
         "a pipe on which nothing was sent for so long gets a hello"},
        {"SilenceSeconds", "--silence-seconds", "seconds", false,
         "a peer whose kernel acknowledges nothing for so long is given up"},
        {"ProbeSeconds", "--probe-seconds", "seconds", true, "time for the old pipe of a key to prove that it lives"},
        {"HandleRestSeconds", "--handle-rest-seconds", "seconds", true, "a freed handle is given out last for so long"},
        {"GraceSeconds", "--grace-seconds", "seconds", false, "publications wait for so long after the start"},
        {"DrainSeconds", "--drain-seconds", "seconds", true, "time for what is queued to leave after SIGTERM"},
        {"AllowFrom", "--allow-from", "addresses", true,
         "addresses and prefixes that may register, comma between them"},
        {"AllowFrom.<id>", "--allow-id", "id=addresses", true, "the same for one process id"},
        {"DebugFrom", "--debug-from", "ids, all or none", true,
         "processes that may read and set the log level of other ones and have them dump their state"},
        {"CheckSource", "--check-source", "off, log or drop", true,
         "frames that name another source than their pipe's; drop also refuses what zol::resendMessage forwards"},
        {"MaxPipesPerAddress", "--max-pipes-per-address", "connections", true,
         "open at once from one address; 0 is no limit"},
        {"MaxRatePerPipe", "--max-rate-per-pipe", "frames, bytes", true,
         "that one process may send in a second; it is read no faster; 0 is no limit"},
        {"Port.<id>", "--port", "id=port", true, "port that an address look-up gives for a process id (or id.handle)"},
    };
    return *poKeys;
}

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
        strLine.resize(std::min(strLine.size(), MAX_LINE));
        strLine = trimmed(strLine.substr(0, strLine.find('\0')));
        const std::size_t ulEquals = strLine.find('=');
        if (strLine.empty() || strLine[0] == '#' || ulEquals == std::string::npos || ulEquals == 0)
        {
            continue;
        }
        add({trimmed(strLine.substr(0, ulEquals)), trimmed(strLine.substr(ulEquals + 1)),
             strName + ":" + std::to_string(iLine)});
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
    m_oFaults.clear();
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
    const SNumber *const poNumber = findNumber(oEntry.m_strKey);
    bKnown = poNumber != nullptr;
    if (!bKnown)
    {
        return false;
    }
    std::uint64_t ulValue = 0;
    if (!numberOf(oEntry.m_strValue, poNumber->m_ulMax, ulValue) || ulValue < poNumber->m_ulMin)
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
        if (!numberOf(strKey.substr(10), 65534, ulId) || ulId == 0)
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
    if (!numberOf(strWho.substr(0, ulDot), 65534, ulId) || ulId == 0 ||
        (ulDot != std::string::npos && !numberOf(strWho.substr(ulDot + 1), 65535, ulHandle)))
    {
        fault(oEntry, "the key names no process id from 1 to 65534, or id and handle");
        return false;
    }
    if (!numberOf(oEntry.m_strValue, 65535, ulPort) || ulPort == 0)
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
        if (oEntry.m_strValue == nameOf(eChoice))
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
        if (oEntry.m_strValue == nameOf(eChoice))
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
        if (!numberOf(trimmed(strOne), 65534, ulId) || ulId == 0)
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
           numberOf(trimmed(strValue.substr(0, ulComma)), MAX_RATE, m_oSettings.m_ulMaxFramesPerSecond) &&
           numberOf(trimmed(strValue.substr(ulComma + 1)), MAX_RATE, m_oSettings.m_ulMaxBytesPerSecond);
}

bool CZolVekSettingsReader::applyListen(const std::string &strValue)
{
    const std::size_t ulColon = strValue.rfind(':');
    std::uint64_t ulPort = 0;
    std::uint32_t uiAddress = 0;
    if (ulColon == std::string::npos || !numberOf(strValue.substr(ulColon + 1), 65535, ulPort) ||
        !addressOf(strValue.substr(0, ulColon), uiAddress))
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
        strOne = trimmed(strOne);
        const std::size_t ulSlash = strOne.find('/');
        std::uint64_t ulBits = 32;
        SZolVekNetwork oNetwork;
        if (!addressOf(strOne.substr(0, ulSlash), oNetwork.m_uiAddress) ||
            (ulSlash != std::string::npos && !numberOf(strOne.substr(ulSlash + 1), 32, ulBits)))
        {
            return false;
        }
        oNetwork.m_iBits = static_cast<int>(ulBits);
        oNetworks.push_back(oNetwork);
    }
    return !oNetworks.empty();
}

void CZolVekSettingsReader::checkTogether()
{
    std::uint32_t uiAddress = 0;
    addressOf(m_oSettings.m_strListenHost, uiAddress);
    if (!isLoopback(uiAddress) && m_oSettings.m_oAllowFrom.empty())
    {
        m_oFaults.push_back("Listen: an address other than loopback wants AllowFrom, which says who may register");
    }
    if (m_oSettings.m_ulPipeQueueBytes > m_oSettings.m_ulTotalQueueBytes)
    {
        m_oSettings.m_ulPipeQueueBytes = m_oSettings.m_ulTotalQueueBytes; // the tighter bound holds in any case
    }
    m_oSettings.m_uiMaxFrameBytes = static_cast<unsigned int>(
        std::min<std::uint64_t>(m_oSettings.m_uiMaxFrameBytes, m_oSettings.m_ulTotalQueueBytes));
}

std::string zolVekValueOf(const SZolVekSettings &oSettings, const std::string &strKey)
{
    const SNumber *const poNumber = findNumber(strKey);
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
        return nameOf(oSettings.m_eSlowConsumer);
    }
    if (strKey == "CheckSource")
    {
        return nameOf(oSettings.m_eCheckSource);
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
