#include "ZolUtil.h"

#include <ace/Date_Time.h>
#include <cstdlib>
#include <cstring>

namespace
{

// Writes iValue as iDigits decimal digits and gives the place behind them.
char *putDigits(char *pcText, long lValue, int iDigits)
{
    for (int iDigit = iDigits - 1; iDigit >= 0; --iDigit)
    {
        pcText[iDigit] = static_cast<char>('0' + lValue % 10);
        lValue /= 10;
    }
    return pcText + iDigits;
}

} // namespace

namespace zol
{

// Runs once for each line of the log, inside the lock of its buffer: no formatting routine, no heap.
void getCurrFormatTime(char *pcBuffer)
{
    if (pcBuffer == nullptr)
    {
        return;
    }
    const ACE_Date_Time oNow;
    char *pcText = putDigits(pcBuffer, oNow.year(), 4);
    *pcText++ = '-';
    pcText = putDigits(pcText, oNow.month(), 2);
    *pcText++ = '-';
    pcText = putDigits(pcText, oNow.day(), 2);
    *pcText++ = ' ';
    pcText = putDigits(pcText, oNow.hour(), 2);
    *pcText++ = ':';
    pcText = putDigits(pcText, oNow.minute(), 2);
    *pcText++ = ':';
    pcText = putDigits(pcText, oNow.second(), 2);
    *pcText++ = '.';
    pcText = putDigits(pcText, oNow.microsec() / 1000, 3);
    *pcText = '\0';
}

bool isDigit(const char *pcText, int iLength)
{
    if (pcText == nullptr || iLength == 0)
    {
        return false;
    }
    for (int iByte = 0; iByte < iLength; ++iByte)
    {
        if (pcText[iByte] < '0' || pcText[iByte] > '9')
        {
            return false;
        }
    }
    return true;
}

bool isDigit(const std::string &strText)
{
    return isDigit(strText.data(), static_cast<int>(strText.size()));
}

void trimString(std::string &strText)
{
    const size_t uiLast = strText.find_last_not_of(" \t");
    if (uiLast == std::string::npos)
    {
        strText.clear();
        return;
    }
    strText.erase(uiLast + 1);
    strText.erase(0, strText.find_first_not_of(" \t"));
}

int getTrimEnv(const std::string &strName, std::string &strValue)
{
    const char *const pcValue = getenv(strName.c_str()); // NOLINT(concurrency-mt-unsafe): the start reads it
    if (pcValue == nullptr)
    {
        return ZOL_ERR_FAILED;
    }
    strValue = pcValue;
    trimString(strValue);
    return ZOL_OK;
}

void strError(int iError, std::string &strText)
{
    const char *const pcText = strerrordesc_np(iError); // null, not a made-up sentence, for a number without a text
    strText = pcText == nullptr ? std::to_string(iError) : pcText;
}

} // namespace zol
