// A process with one task that sets a timer of each kind and two precise clocks, and prints each firing.
//
//     build/bin/almanac --seconds 10
//
// It runs alone, without a gateway. Its installation root is the folder above the program, unless ZOLROOT names
// another.

#include "Almanac.h"
#include "Journal.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <unistd.h>

namespace
{

/// Delays are whole seconds from the moment of asking. Asked right at a full second, a timer for a time of day comes at
/// that time; asked half a second later, it comes half a second after it.
void awaitFullSecond()
{
    usleep(static_cast<useconds_t>(1000000 - CJournal::now() % 1000000));
}

} // namespace

int main(int iArgs, char **ppcArgs) // NOLINT(bugprone-exception-escape): only without memory for the options
{
    CLI::App oOptions("Sets a timer of each kind and two precise clocks, and prints each firing with its lateness.");
    unsigned int uiSeconds = 10;
    oOptions.add_option("--seconds", uiSeconds, "how long to run; 7 and more see every timer fire")
        ->check(CLI::Range(1, 86400));
    CLI11_PARSE(oOptions, iArgs, ppcArgs);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    CZolAppMgr *const poAppMgr = CZolAppMgr::instance();
    if (poAppMgr->initAppMgr(1, 0, true, "almanac", nullptr) != ZOL_OK)
    {
        return 1;
    }
    auto *const poTaskMgr = new CZolTaskMgr(1, 1);
    auto *const poAlmanac = new CAlmanac(uiSeconds);
    if (poAppMgr->addTaskMgr(poTaskMgr) != ZOL_OK || poTaskMgr->addStaticTask(poAlmanac, CAlmanac::TASK_ID) != ZOL_OK)
    {
        return 1;
    }
    awaitFullSecond();
    if (!poAlmanac->start())
    {
        return 1;
    }
    poAppMgr->handleEvents();
    return CJournal::instance().isComplete() ? 0 : 1;
}
