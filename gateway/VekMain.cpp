#include "ZolRunLog.h"
#include "gateway/config/ZolVekSettings.h"
#include "gateway/loop/ZolVekGateway.h"
#include "gateway/watch/ZolVekLog.h"
#include "gateway/watch/http/ZolHttpServer.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <vector>

#ifndef ZOL_VERSION
#define ZOL_VERSION "0"
#endif

namespace
{

const int EXIT_USAGE = 2;
const int EXIT_CONFIG = 78; // as in sysexits.h

/// What the command line says.
struct SOptions
{
    std::string m_strConfig;
    std::vector<SZolVekEntry> m_oEntries;
    bool m_bCheck = false;
};

/// Adds one option for each key of the settings. A value that it gets becomes an entry, which wins over the file.
void addKeyOptions(CLI::App &oApp, SOptions &oOptions)
{
    for (const SZolVekKeyInfo &oKey : zolVekKeys())
    {
        CLI::Option *const poOption = oApp.add_option_function<std::vector<std::string>>(
            oKey.m_pcOption,
            [&oOptions, &oKey](const std::vector<std::string> &oValues)
            {
                for (const std::string &strValue : oValues)
                {
                    const std::size_t ulEquals = oKey.isById() ? strValue.find('=') : std::string::npos;
                    const std::string strWho = oKey.isById() ? strValue.substr(0, ulEquals) : "";
                    const bool bNoValue = oKey.isById() && ulEquals == std::string::npos;
                    oOptions.m_oEntries.push_back(
                        {oKey.stem() + strWho, bNoValue ? "" : strValue.substr(ulEquals + 1), oKey.m_pcOption});
                }
            },
            oKey.m_pcHelp);
        poOption->type_name(oKey.m_pcUnit);
        poOption->expected(1);
        if (oKey.isById())
        {
            poOption->take_all();
        }
    }
}

/// Reads the file, then lets the options have their way.
bool readSettings(const SOptions &oOptions, CZolVekSettingsReader &oReader, std::string &strError)
{
    for (const SZolVekEntry &oEntry : oOptions.m_oEntries)
    {
        oReader.add(oEntry); // the first entry of a key wins
    }
    if (!oOptions.m_strConfig.empty() && !oReader.addFile(oOptions.m_strConfig))
    {
        strError = "cannot read " + oOptions.m_strConfig;
        return false;
    }
    if (oReader.check())
    {
        return true;
    }
    for (const std::string &strFault : oReader.faults())
    {
        strError += (strError.empty() ? "" : "\n") + strFault;
    }
    return false;
}

/// One descriptor for each pipe, and some for everything else.
void raiseDescriptorLimit(const SZolVekSettings &oSettings)
{
    const rlim_t ulHttp = oSettings.m_strHttp.empty() ? 0 : CZolHttpServer::MOST_CONNECTIONS;
    const rlim_t ulWanted = oSettings.m_uiMaxConnections + oSettings.m_uiMaxUnregistered + ulHttp + 64;
    rlimit oLimit{};
    if (getrlimit(RLIMIT_NOFILE, &oLimit) != 0 || oLimit.rlim_cur >= ulWanted)
    {
        return;
    }
    oLimit.rlim_cur = std::min(oLimit.rlim_max, ulWanted);
    if (setrlimit(RLIMIT_NOFILE, &oLimit) != 0 || oLimit.rlim_cur < ulWanted)
    {
        CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "raiseDescriptorLimit",
                         "only %llu descriptors for %u pipes: further ones will be refused",
                         static_cast<unsigned long long>(oLimit.rlim_cur), oSettings.m_uiMaxConnections);
    }
}

/// SIGTERM and SIGINT drain, a second one ends at once; SIGHUP reads the file again.
class CSignals
{
public:
    CSignals(CZolVekGateway &oGateway, const SOptions &oOptions) : m_oGateway(oGateway), m_oOptions(oOptions) {}

    /// To be called before any thread starts, so that all of them have the signals blocked.
    static sigset_t block()
    {
        sigset_t oSignals;
        sigemptyset(&oSignals);
        for (const int iSignal : {SIGTERM, SIGINT, SIGHUP})
        {
            sigaddset(&oSignals, iSignal);
        }
        pthread_sigmask(SIG_BLOCK, &oSignals, nullptr);
        return oSignals;
    }

    void open(const sigset_t &oSignals)
    {
        m_iHandle = signalfd(-1, &oSignals, SFD_NONBLOCK | SFD_CLOEXEC);
        m_oGateway.watch(m_iHandle, [this] { take(); });
    }

    bool endsAtOnce() const { return m_iEnds > 1; }

private:
    void take()
    {
        signalfd_siginfo oSignal{};
        while (read(m_iHandle, &oSignal, sizeof oSignal) == static_cast<ssize_t>(sizeof oSignal))
        {
            if (oSignal.ssi_signo == SIGHUP)
            {
                reload();
            }
            else if (++m_iEnds == 1)
            {
                sd_notify(0, "STOPPING=1");
                m_oGateway.drain();
            }
        }
    }

    void reload()
    {
        CZolVekSettingsReader oReader;
        std::string strError;
        if (!readSettings(m_oOptions, oReader, strError))
        {
            CZolVekLog::line(CZolRunLog::LEVEL_ERROR, "CSignals::reload", "nothing changed: %s", strError.c_str());
            return;
        }
        const auto oChanged = zolVekDifferences(m_oGateway.settings(), oReader.settings(), true);
        for (const std::string &strLine : oChanged)
        {
            CZolVekLog::line(CZolRunLog::LEVEL_INFO, "CSignals::reload", "%s", strLine.c_str());
        }
        for (const std::string &strLine : zolVekDifferences(m_oGateway.settings(), oReader.settings(), false))
        {
            CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CSignals::reload", "only a restart changes %s",
                             strLine.c_str());
        }
        raiseDescriptorLimit(oReader.settings());
        m_oGateway.reload(oReader.settings());
        CZolVekLog::line(CZolRunLog::LEVEL_INFO, "CSignals::reload", "read again, %zu values changed", oChanged.size());
    }

    CZolVekGateway &m_oGateway;
    const SOptions &m_oOptions;
    int m_iHandle = -1;
    int m_iEnds = 0;
};

bool openHttp(const SZolVekSettings &oSettings, CZolVekGateway &oGateway, CZolSnapshotExchange &oExchange,
              CZolHttpServer &oHttp, std::string &strError)
{
    if (oSettings.m_strHttp.empty())
    {
        return true;
    }
    if (!oExchange.isOpen() || !oHttp.start(oSettings.m_strHttp, strError))
    {
        strError = oSettings.m_strHttp + ": " + (strError.empty() ? "no descriptor is free" : strError);
        return false;
    }
    oGateway.observe(oExchange);
    if (!oHttp.isLoopback())
    {
        CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "openHttp", "whoever reaches %s sees the whole gateway",
                         oSettings.m_strHttp.c_str());
    }
    return true;
}

int run(const SZolVekSettings &oSettings, const SOptions &oOptions)
{
    const sigset_t oSignalSet = CSignals::block();
    signal(SIGPIPE, SIG_IGN); // the log may lose its reader
    CZolVekLog::open(oSettings);
    raiseDescriptorLimit(oSettings);
    CZolSnapshotExchange oExchange;
    CZolVekGateway oGateway(oSettings);
    CZolHttpServer oHttp(oExchange);
    std::string strError;
    if (!oGateway.open(strError) || !openHttp(oSettings, oGateway, oExchange, oHttp, strError))
    {
        fprintf(stderr, "vek: %s\n", strError.c_str());
        if (!oSettings.m_strLogPath.empty())
        {
            CZolVekLog::line(CZolRunLog::LEVEL_FATAL, "run", "%s", strError.c_str());
        }
        CZolVekLog::flush();
        return EXIT_FAILURE;
    }
    CSignals oSignals(oGateway, oOptions);
    oSignals.open(oSignalSet);
    printf("vek listening on %s:%u\n", oSettings.m_strListenHost.c_str(), oGateway.port());
    if (oHttp.port() != 0)
    {
        printf("vek status on port %u\n", oHttp.port());
    }
    fflush(stdout);
    sd_notify(0, "READY=1");

    std::uint64_t ulWatchdogUs = 0;
    const bool bWatchdog = sd_watchdog_enabled(0, &ulWatchdogUs) > 0;
    std::uint64_t ulWatchdogMs = 0;
    while (!oGateway.isDone() && !oSignals.endsAtOnce())
    {
        oGateway.runOnce(-1);
        if (bWatchdog && oGateway.nowMs() - ulWatchdogMs >= 1000)
        {
            ulWatchdogMs = oGateway.nowMs();
            sd_notify(0, "WATCHDOG=1"); // from the loop itself: a loop that hangs is restarted
        }
    }
    oExchange.end(); // so that a client who waits for a snapshot does not hold up the end
    oHttp.stop();
    const SZolVekStatistics &oStatistics = oGateway.statistics();
    CZolVekLog::line(
        CZolRunLog::LEVEL_INFO, "run",
        "end, %llu frames in, %llu out, %llu without a route, %llu dropped for slow receivers, %llu too late",
        static_cast<unsigned long long>(oStatistics.m_ulFramesIn),
        static_cast<unsigned long long>(oStatistics.m_ulFramesOut),
        static_cast<unsigned long long>(oStatistics.m_ulDropNoRoute),
        static_cast<unsigned long long>(oStatistics.m_ulDropSlow),
        static_cast<unsigned long long>(oStatistics.m_ulDropDraining));
    CZolVekLog::flush();
    return EXIT_SUCCESS;
}

int start(int argc, char **argv)
{
    CLI::App oApp("vek, the gateway: routes messages between processes built on zol");
    SOptions oOptions;
    oApp.add_option("--config", oOptions.m_strConfig, "file with settings, lines of Key = value")->type_name("FILE");
    oApp.add_flag("--check-config", oOptions.m_bCheck, "print every setting, its value and where it is from, and end");
    oApp.set_version_flag("--version", std::string("vek ") + ZOL_VERSION);
    addKeyOptions(oApp, oOptions);
    try
    {
        oApp.parse(argc, argv);
    }
    catch (const CLI::ParseError &oError)
    {
        return oApp.exit(oError) == 0 ? EXIT_SUCCESS : EXIT_USAGE;
    }
    CZolVekSettingsReader oReader;
    std::string strError;
    if (!readSettings(oOptions, oReader, strError))
    {
        fprintf(stderr, "%s\n", strError.c_str());
        return EXIT_CONFIG;
    }
    if (oOptions.m_bCheck)
    {
        fputs(oReader.effective().c_str(), stdout);
        return EXIT_SUCCESS;
    }
    return run(oReader.settings(), oOptions);
}

} // namespace

int main(int argc, char **argv)
{
    try
    {
        return start(argc, argv);
    }
    catch (const std::exception &oError)
    {
        fprintf(stderr, "vek: %s\n", oError.what()); // out of memory, in the end
        return EXIT_FAILURE;
    }
}
