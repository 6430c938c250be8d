#include "task/ZolTaskLog.h"

#include "ZolRunLog.h"

#include <cstdarg>
#include <cstdio>

namespace
{

constexpr int LINE_BYTES = 512; // more than the longest line of the task classes

class CZolLine
{
public:
    CZolLine(const char *pcFormat, va_list pvArgs) __attribute__((format(printf, 2, 0)))
    {
        if (vsnprintf(m_acText, sizeof m_acText, pcFormat, pvArgs) < 0)
        {
            m_acText[0] = '\0';
        }
    }
    const char *text() const { return m_acText; }

private:
    char m_acText[LINE_BYTES];
};

bool isWanted(CZolRunLog::EnumDebugLevel eLevel)
{
    return CZolRunLog::isReady() && CZolRunLog::logLevel() >= eLevel;
}

} // namespace

void zolFormatInfo(const char *pcScope, const char *pcFormat, ...)
{
    if (isWanted(CZolRunLog::LEVEL_INFO))
    {
        va_list pvArgs;
        va_start(pvArgs, pcFormat);
        CZolDebugInfo(pcScope).info(CZolLine(pcFormat, pvArgs).text());
        va_end(pvArgs);
    }
}

void zolFormatWarning(const char *pcScope, const char *pcFormat, ...)
{
    if (isWanted(CZolRunLog::LEVEL_WARNING))
    {
        va_list pvArgs;
        va_start(pvArgs, pcFormat);
        CZolDebugInfo(pcScope).warning(CZolLine(pcFormat, pvArgs).text());
        va_end(pvArgs);
    }
}

void zolFormatError(const char *pcScope, const char *pcFormat, ...)
{
    if (isWanted(CZolRunLog::LEVEL_ERROR))
    {
        va_list pvArgs;
        va_start(pvArgs, pcFormat);
        CZolDebugInfo(pcScope).error(CZolLine(pcFormat, pvArgs).text());
        va_end(pvArgs);
    }
}

void zolFormatFatal(const char *pcScope, const char *pcFormat, ...)
{
    if (isWanted(CZolRunLog::LEVEL_FATAL))
    {
        va_list pvArgs;
        va_start(pvArgs, pcFormat);
        CZolDebugInfo(pcScope).fatal(CZolLine(pcFormat, pvArgs).text());
        va_end(pvArgs);
    }
}
