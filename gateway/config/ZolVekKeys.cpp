#include "gateway/config/ZolVekEndpoint.h"
#include "gateway/config/ZolVekValues.h"

// The table of settings. A new setting is a member of SZolVekSettings, a row here and a row in doc/gateway.md.

namespace
{

using S = SZolVekSettings;

const bool RELOADS = true;
const bool STAYS = false; // until a restart

std::string quoted(const std::string &strValue, const std::string &strIsNo)
{
    return "\"" + strValue + "\" is " + strIsNo;
}

/// A number from ulMin to ulMax.
template <typename TNumber>
SZolVekKeyInfo number(const char *pcKey, const char *pcOption, const char *pcUnit, bool bReloads, TNumber S::*pNumber,
                      std::uint64_t ulMin, std::uint64_t ulMax, const char *pcHelp)
{
    SZolVekKeyInfo oKey{pcKey, pcOption, pcUnit, bReloads, pcHelp, nullptr, nullptr, nullptr};
    oKey.m_fnParse = [=](S &oSettings, const std::string &, const std::string &strValue)
    {
        std::uint64_t ulValue = 0;
        if (!zolVekNumberFrom(strValue, ulMax, ulValue) || ulValue < ulMin)
        {
            return quoted(strValue, "no number from " + std::to_string(ulMin) + " to " + std::to_string(ulMax));
        }
        oSettings.*pNumber = static_cast<TNumber>(ulValue);
        return std::string();
    };
    oKey.m_fnPrint = [=](const S &oSettings) { return std::to_string(oSettings.*pNumber); };
    oKey.m_fnCopy = [=](S &oTo, const S &oFrom) { oTo.*pNumber = oFrom.*pNumber; };
    return oKey;
}

/// One of the words of apcNames, which stand in the order of the enumeration.
template <typename TChoice>
SZolVekKeyInfo choice(const char *pcKey, const char *pcOption, const char *pcUnit, bool bReloads, TChoice S::*pChoice,
                      const std::vector<const char *> &oNames, const char *pcHelp)
{
    SZolVekKeyInfo oKey{pcKey, pcOption, pcUnit, bReloads, pcHelp, nullptr, nullptr, nullptr};
    oKey.m_fnParse = [=](S &oSettings, const std::string &, const std::string &strValue)
    {
        std::string strNames;
        for (std::size_t ulName = 0; ulName < oNames.size(); ++ulName)
        {
            if (strValue == oNames[ulName])
            {
                oSettings.*pChoice = static_cast<TChoice>(ulName);
                return std::string();
            }
            strNames += (strNames.empty() ? "" : ", ") + std::string(oNames[ulName]);
        }
        return quoted(strValue, "none of " + strNames);
    };
    oKey.m_fnPrint = [=](const S &oSettings) { return std::string(oNames[oSettings.*pChoice]); };
    oKey.m_fnCopy = [=](S &oTo, const S &oFrom) { oTo.*pChoice = oFrom.*pChoice; };
    return oKey;
}

std::string parseListen(S &oSettings, const std::string &, const std::string &strValue)
{
    std::uint32_t uiAddress = 0;
    std::uint16_t usPort = 0;
    if (!zolVekListenFrom(strValue, uiAddress, usPort))
    {
        return quoted(strValue, "no IPv4 address and port with a colon between them");
    }
    oSettings.m_strListenHost = zolVekTextOf(uiAddress);
    oSettings.m_uiListenPort = usPort;
    return std::string();
}

std::string parseHttp(S &oSettings, const std::string &, const std::string &strValue)
{
    std::uint32_t uiAddress = 0;
    std::uint16_t usPort = 0;
    oSettings.m_strHttp = strValue;
    return zolVekEndpointFrom(strValue, uiAddress, usPort)
               ? std::string()
               : quoted(strValue, "no port, and no IPv4 address and port with a colon between");
}

std::string parseAllowFromOf(S &oSettings, const std::string &strWho, const std::string &strValue)
{
    std::uint16_t usId = 0;
    if (!zolVekIdFrom(strWho, usId))
    {
        return "the process id is no number from 1 to 65534";
    }
    return zolVekNetworksFrom(strValue, oSettings.m_oAllowFromById[usId])
               ? std::string()
               : quoted(strValue, "no list of addresses and prefixes");
}

std::string parsePortOf(S &oSettings, const std::string &strWho, const std::string &strValue)
{
    const std::size_t ulDot = strWho.find('.');
    std::uint16_t usId = 0;
    std::uint64_t ulHandle = 0;
    std::uint64_t ulPort = 0;
    if (!zolVekIdFrom(strWho.substr(0, ulDot), usId) ||
        (ulDot != std::string::npos && !zolVekNumberFrom(strWho.substr(ulDot + 1), 65535, ulHandle)))
    {
        return "the key names no process id from 1 to 65534, or id and handle";
    }
    if (!zolVekNumberFrom(strValue, 65535, ulPort) || ulPort == 0)
    {
        return quoted(strValue, "no port from 1 to 65535");
    }
    std::uint16_t &usPort = ulDot == std::string::npos
                                ? oSettings.m_oPortsById[usId]
                                : oSettings.m_oPorts[zolVekKey(usId, static_cast<std::uint16_t>(ulHandle))];
    usPort = static_cast<std::uint16_t>(ulPort);
    return std::string();
}

} // namespace

const std::vector<SZolVekKeyInfo> &zolVekKeys()
{
    // clang-format off
    static const std::vector<SZolVekKeyInfo> *const poKeys = new std::vector<SZolVekKeyInfo>{
        {"Listen", "--listen", "address:port", STAYS, "where processes connect; port 0 takes a free one",
         parseListen,
         [](const S &o) { return o.m_strListenHost + ":" + std::to_string(o.m_uiListenPort); },
         [](S &oTo, const S &o) { oTo.m_strListenHost = o.m_strListenHost; oTo.m_uiListenPort = o.m_uiListenPort; }},
        {"Http", "--http", "address:port", STAYS,
         "status page, metrics and health; a port alone is on the loopback interface; without it there is none",
         parseHttp, [](const S &o) { return o.m_strHttp; },
         [](S &oTo, const S &o) { oTo.m_strHttp = o.m_strHttp; }},
        number("LogLevel", "--log-level", "0 to 5", RELOADS, &S::m_uiLogLevel, 0, 5,
               "0 off, 1 fatal, 2 error, 3 warning, 4 info, 5 debug"),
        {"LogPath", "--log-path", "folder", STAYS, "folder of the run log; without it lines go to standard error",
         [](S &o, const std::string &, const std::string &strValue) { o.m_strLogPath = strValue; return std::string(); },
         [](const S &o) { return o.m_strLogPath; }, [](S &oTo, const S &o) { oTo.m_strLogPath = o.m_strLogPath; }},
        number("MaxLogNumber", "--max-log-number", "files", STAYS, &S::m_uiMaxLogNumber, 0, 10,
               "log files in rotation; 0 is no log"),
        number("MaxLogSize", "--max-log-size", "bytes", STAYS, &S::m_uiMaxLogSize, 1024, 10485760,
               "size at which the next log file begins"),
        number("MaxConnections", "--max-connections", "pipes", RELOADS, &S::m_uiMaxConnections, 1, 1000000,
               "registered processes; further ones are refused with -10"),
        number("MaxUnregistered", "--max-unregistered", "connections", RELOADS, &S::m_uiMaxUnregistered, 1, 100000,
               "connections that have not registered yet"),
        number("MaxFrameBytes", "--max-frame-bytes", "bytes", RELOADS, &S::m_uiMaxFrameBytes, 8192, 1u << 30,
               "largest frame, header included"),
        number("RegisterSeconds", "--register-seconds", "seconds", RELOADS, &S::m_uiRegisterSeconds, 1, 3600,
               "time from connecting to the register message"),
        number("PipeQueueBytes", "--pipe-queue-bytes", "bytes", RELOADS, &S::m_ulPipeQueueBytes, 65536, 1ull << 40,
               "frames that wait for one process"),
        number("TotalQueueBytes", "--total-queue-bytes", "bytes", RELOADS, &S::m_ulTotalQueueBytes, 1ull << 20,
               1ull << 44, "frames that wait for all processes together"),
        choice("SlowConsumer", "--slow-consumer", "block, drop or close", RELOADS, &S::m_eSlowConsumer,
               {"block", "drop", "close"}, "what happens when a queue is full"),
        number("StuckSeconds", "--stuck-seconds", "seconds", RELOADS, &S::m_uiStuckSeconds, 1, 86400,
               "a queue that moves no byte for so long closes its pipe"),
        number("HelloSeconds", "--hello-seconds", "seconds", RELOADS, &S::m_uiHelloSeconds, 1, 86400,
               "a pipe on which nothing was sent for so long gets a hello"),
        number("SilenceSeconds", "--silence-seconds", "seconds", STAYS, &S::m_uiSilenceSeconds, 1, 86400,
               "a peer whose kernel acknowledges nothing for so long is given up"),
        number("ProbeSeconds", "--probe-seconds", "seconds", RELOADS, &S::m_uiProbeSeconds, 1, 60,
               "time for the old pipe of a key to prove that it lives"),
        number("HandleRestSeconds", "--handle-rest-seconds", "seconds", RELOADS, &S::m_uiHandleRestSeconds, 0, 86400,
               "a freed handle is given out last for so long"),
        number("GraceSeconds", "--grace-seconds", "seconds", STAYS, &S::m_uiGraceSeconds, 0, 3600,
               "publications wait for so long after the start"),
        number("DrainSeconds", "--drain-seconds", "seconds", RELOADS, &S::m_uiDrainSeconds, 0, 3600,
               "time for what is queued to leave after SIGTERM"),
        {"AllowFrom", "--allow-from", "addresses", RELOADS,
         "addresses and prefixes that may register, comma between them",
         [](S &o, const std::string &, const std::string &strValue)
         {
             return zolVekNetworksFrom(strValue, o.m_oAllowFrom)
                        ? std::string() : quoted(strValue, "no list of addresses and prefixes");
         },
         [](const S &o) { return zolVekTextOf(o.m_oAllowFrom); }, nullptr},
        {"AllowFrom.<id>", "--allow-id", "id=addresses", RELOADS, "the same for one process id",
         parseAllowFromOf, zolVekAllowFromText, nullptr},
        {"DebugFrom", "--debug-from", "ids, all or none", RELOADS,
         "processes that may read and set the log level of other ones and have them dump their state",
         [](S &o, const std::string &, const std::string &strValue)
         {
             return zolVekDebugFromFrom(strValue, o)
                        ? std::string() : quoted(strValue, "neither all nor none nor a list of process ids");
         },
         zolVekDebugFromText, nullptr},
        choice("CheckSource", "--check-source", "off, log or drop", RELOADS, &S::m_eCheckSource, {"off", "log", "drop"},
               "frames that name another source than their pipe's; drop also refuses what zol::resendMessage forwards"),
        number("MaxPipesPerAddress", "--max-pipes-per-address", "connections", RELOADS, &S::m_uiMaxPipesPerAddress, 0,
               1000000, "open at once from one address; 0 is no limit"),
        {"MaxRatePerPipe", "--max-rate-per-pipe", "frames, bytes", RELOADS,
         "that one process may send in a second; it is read no faster; 0 is no limit",
         [](S &o, const std::string &, const std::string &strValue)
         {
             return zolVekRateFrom(strValue, o)
                        ? std::string() : quoted(strValue, "no two numbers, frames and bytes, with a comma between");
         },
         [](const S &o)
         {
             return std::to_string(o.m_ulMaxFramesPerSecond) + ", " + std::to_string(o.m_ulMaxBytesPerSecond);
         },
         nullptr},
        {"Port.<id>", "--port", "id=port", RELOADS,
         "port that an address look-up gives for a process id (or id.handle)",
         parsePortOf, zolVekPortsText, nullptr},
    };
    // clang-format on
    return *poKeys;
}
