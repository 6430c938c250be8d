#include "ZolApi.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>

TEST(UtilTest, IsDigit)
{
    EXPECT_TRUE(zol::isDigit("12x", 2)) << "only the first bytes count";
    EXPECT_FALSE(zol::isDigit("12", 0));
    EXPECT_FALSE(zol::isDigit(nullptr, 3));
    EXPECT_FALSE(zol::isDigit(nullptr, -1));
    for (const char *const pcText : {"", "-1", "1 ", "1.0", "/", ":", "\xB2"})
    {
        EXPECT_FALSE(zol::isDigit(std::string(pcText))) << '"' << pcText << '"';
    }
    EXPECT_FALSE(zol::isDigit(std::string("1\0", 2)));
}

TEST(UtilTest, StrError)
{
    std::string strText = "before";
    zol::strError(ECONNREFUSED, strText);
    EXPECT_EQ("Connection refused", strText);
    zol::strError(-5, strText);
    EXPECT_EQ("-5", strText);
}

// In every zone, so that hours below 10 and other days come up, and a mix-up with universal time shows.
TEST(UtilTest, TimeStampIsTheLocalTime)
{
    zol::getCurrFormatTime(nullptr);
    for (int iHours = -12; iHours <= 12; ++iHours)
    {
        setenv("TZ", ("XXX" + std::to_string(iHours) + ":30").c_str(), 1);
        tzset();
        const time_t lBefore = time(nullptr);
        char acStamp[32];
        memset(acStamp, 'x', sizeof acStamp);
        zol::getCurrFormatTime(acStamp);
        const time_t lAfter = time(nullptr) + 1; // time() may lag behind the clock that the stamp shows

        ASSERT_EQ('\0', acStamp[23]);
        EXPECT_EQ('x', acStamp[24]);
        tm oTime{};
        const char *const pcMillis = strptime(acStamp, "%Y-%m-%d %H:%M:%S", &oTime);
        ASSERT_NE(nullptr, pcMillis) << acStamp;
        EXPECT_EQ('.', *pcMillis) << acStamp;
        EXPECT_TRUE(zol::isDigit(pcMillis + 1, 3)) << acStamp;
        EXPECT_EQ(acStamp + 19, pcMillis) << "a figure has lost a leading zero";
        oTime.tm_isdst = -1;
        const time_t lStamp = mktime(&oTime);
        EXPECT_GE(lStamp, lBefore) << acStamp;
        EXPECT_LE(lStamp, lAfter) << acStamp;
    }
}
