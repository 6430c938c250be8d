#ifndef ZOL_TESTS_TIMER_ZONE_H
#define ZOL_TESTS_TIMER_ZONE_H

#include "ZolDateUtil.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace zoltest
{

/// Moves the process to a zone. A name that the machine does not know would silently mean UTC, so that is a failure.
inline void setZone(const char *pcName)
{
    ASSERT_EQ(0, access((std::string("/usr/share/zoneinfo/") + pcName).c_str(), R_OK)) << "no data of zone " << pcName;
    setenv("TZ", pcName, 1); // NOLINT(concurrency-mt-unsafe): one thread at this point
    tzset();
}

inline struct tm localTm(long lInstant)
{
    const time_t lTime = lInstant;
    struct tm oLocal = {};
    localtime_r(&lTime, &oLocal);
    return oLocal;
}

/// An instant as text, or its number if it is a code.
inline std::string textOf(long lInstant)
{
    std::string strText;
    return lInstant >= 0 && CZolDateUtil::timeToStr(lInstant, strText) ? strText : std::to_string(lInstant);
}

} // namespace zoltest

#endif
