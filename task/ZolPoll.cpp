#include "task/ZolPoll.h"

#include <ctime>
#include <sched.h>

bool CZolPoll::hasOtherProcessor()
{
    static const bool s_bHas = []
    {
        cpu_set_t oSet;
        CPU_ZERO(&oSet);
        return sched_getaffinity(0, sizeof oSet, &oSet) != 0 || CPU_COUNT(&oSet) > 1;
    }();
    return s_bHas;
}

std::uint64_t CZolPoll::nowNs()
{
    timespec oNow{};
    clock_gettime(CLOCK_MONOTONIC, &oNow);
    return static_cast<std::uint64_t>(oNow.tv_sec) * 1000000000U + static_cast<std::uint64_t>(oNow.tv_nsec);
}
