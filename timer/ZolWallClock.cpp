#include "timer/ZolWallClock.h"

#include <cerrno>
#include <ctime>
#include <sys/time.h>

std::atomic<long (*)()> CZolWallClock::sm_pfnNow{&CZolWallClock::machineTime};

long CZolWallClock::machineTime()
{
    struct timeval oNow = {};
    gettimeofday(&oNow, nullptr);
    return oNow.tv_sec;
}

void CZolWallClock::sleepToNextSecond()
{
    struct timeval oNow = {};
    gettimeofday(&oNow, nullptr);
    struct timespec oWait = {0, (1000000 - oNow.tv_usec) * 1000};
    if (oWait.tv_nsec >= 1000000000)
    {
        oWait = {1, 0};
    }
    while (nanosleep(&oWait, &oWait) == -1 && errno == EINTR)
    {
    }
}

void CZolWallClock::replace(long (*pfnNow)())
{
    sm_pfnNow.store(pfnNow != nullptr ? pfnNow : &CZolWallClock::machineTime, std::memory_order_relaxed);
}
