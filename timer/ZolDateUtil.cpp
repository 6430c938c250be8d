#include "ZolDateUtil.h"

#include "timer/ZolLocalTime.h"

#include <ace/OS_NS_time.h>

#include <climits>

namespace
{

/// Reads uiCount digits of strText from uiAt on, which lie inside it; false if one of them is no digit.
bool readDigits(const std::string &strText, size_t uiAt, size_t uiCount, int &iValue)
{
    int iSum = 0;
    for (size_t ui = uiAt; ui < uiAt + uiCount; ++ui)
    {
        if (strText[ui] < '0' || strText[ui] > '9')
        {
            return false;
        }
        iSum = iSum * 10 + (strText[ui] - '0');
    }
    iValue = iSum;
    return true;
}

bool isBetween(int iValue, int iLowest, int iHighest)
{
    return iValue >= iLowest && iValue <= iHighest;
}

} // namespace

unsigned int CZolDateUtil::getTimeInSeconds()
{
    const time_t lNow = ACE_OS::time(nullptr);
    struct tm oLocal = {};
    ACE_OS::localtime_r(&lNow, &oLocal);
    return static_cast<unsigned int>(oLocal.tm_hour * 3600 + oLocal.tm_min * 60 + oLocal.tm_sec);
}

int CZolDateUtil::getLastMonthDay(unsigned int uiYear, unsigned int uiMonth)
{
    struct tm oNextMonth = {};
    oNextMonth.tm_year = static_cast<int>(uiYear);
    oNextMonth.tm_mon = static_cast<int>(uiMonth + 1); // 12 and 13 are months of the following year
    oNextMonth.tm_mday = 1;
    // of two midnights the first: the second has a part of the new month before it
    const time_t lLastSecond = CZolLocalTime::firstInstant(oNextMonth, LONG_MIN) - 1;
    struct tm oLast = {};
    if (lLastSecond < 0 || ACE_OS::localtime_r(&lLastSecond, &oLast) == nullptr)
    {
        return -1;
    }
    return oLast.tm_mday;
}

bool CZolDateUtil::fillDate(const std::string &strText, struct tm &oResult)
{
    if (strText.length() < DATE_STRING_LEN)
    {
        return false;
    }
    int iYear = 0;
    int iMonth = 0;
    if (!readDigits(strText, 0, 4, iYear))
    {
        return false;
    }
    oResult.tm_year = iYear - 1900;
    if (!readDigits(strText, 5, 2, iMonth))
    {
        return false;
    }
    oResult.tm_mon = iMonth - 1;
    if (!isBetween(oResult.tm_mon, 0, 11) || !readDigits(strText, 8, 2, oResult.tm_mday) ||
        !isBetween(oResult.tm_mday, 0, 31))
    {
        return false;
    }
    const int iLastDay =
        getLastMonthDay(static_cast<unsigned int>(oResult.tm_year), static_cast<unsigned int>(oResult.tm_mon));
    if (iLastDay == -1)
    {
        return false;
    }
    if (oResult.tm_mday > iLastDay)
    {
        oResult.tm_mday = iLastDay;
    }
    return true;
}

bool CZolDateUtil::fillTime(const std::string &strText, struct tm &oResult)
{
    const size_t uiLength = strText.length();
    if (uiLength < TIME_STRING_LEN)
    {
        return false;
    }
    // from the end, so that the same reads the time of a date-and-time
    return readDigits(strText, uiLength - 2, 2, oResult.tm_sec) && isBetween(oResult.tm_sec, 0, 59) &&
           readDigits(strText, uiLength - 5, 2, oResult.tm_min) && isBetween(oResult.tm_min, 0, 59) &&
           readDigits(strText, uiLength - 8, 2, oResult.tm_hour) && isBetween(oResult.tm_hour, 0, 23);
}

long CZolDateUtil::strToTime(const std::string &strText)
{
    struct tm oTime = {};
    bool bRead = false;
    switch (strText.length())
    {
    case TIME_STRING_LEN:
    {
        const time_t lNow = ACE_OS::time(nullptr);
        bRead = ACE_OS::localtime_r(&lNow, &oTime) != nullptr && fillTime(strText, oTime);
        break;
    }
    case DATE_STRING_LEN:
        bRead = fillDate(strText, oTime);
        break;
    case DATETIME_STRING_LEN:
        bRead = fillDate(strText, oTime) && fillTime(strText, oTime);
        break;
    default:
        break;
    }
    if (!bRead)
    {
        return -1;
    }
    oTime.tm_isdst = -1;
    return ACE_OS::mktime(&oTime);
}

bool CZolDateUtil::timeToStr(long lTime, std::string &strText)
{
    const time_t lInstant = lTime;
    struct tm oTime = {};
    if (ACE_OS::localtime_r(&lInstant, &oTime) == nullptr)
    {
        return false;
    }
    strText = std::to_string(1900L + oTime.tm_year);
    const struct
    {
        const char *pcBefore;
        int iValue;
    } arrFields[] = {
        {"-", oTime.tm_mon + 1}, {"-", oTime.tm_mday}, {" ", oTime.tm_hour}, {":", oTime.tm_min}, {":", oTime.tm_sec}};
    for (const auto &oField : arrFields)
    {
        strText += oField.pcBefore;
        padding(oField.iValue, strText);
        strText += std::to_string(oField.iValue);
    }
    return true;
}

void CZolDateUtil::padding(int iValue, std::string &strText)
{
    if (iValue <= 9)
    {
        strText += "0";
    }
}
