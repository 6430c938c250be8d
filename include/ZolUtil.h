#ifndef ZOL_UTIL_H
#define ZOL_UTIL_H

#include "ZolErrors.h"
#include "ZolExport.h"

#include <string>

/// Small helpers for text and time, usable from any thread.
namespace zol
{

/// Local time as "2007-12-29 14:42:50.000": 23 characters and a NUL, so at least 24 bytes. Null is ignored.
ZOL_EXPORT void getCurrFormatTime(char *pcBuffer);

/// Whether the first iLength bytes are digits. False for null and for length 0; true for a negative length.
ZOL_EXPORT bool isDigit(const char *pcText, int iLength);
ZOL_EXPORT bool isDigit(const std::string &strText);

/// Cuts blanks and tabs off both ends.
ZOL_EXPORT void trimString(std::string &strText);

/// The trimmed value of an environment variable; ZOL_ERR_FAILED and strValue untouched if it is not set.
ZOL_EXPORT int getTrimEnv(const std::string &strName, std::string &strValue);

/// The system's text for an error number, or the number in decimal if the system has none.
ZOL_EXPORT void strError(int iError, std::string &strText);

} // namespace zol

#endif
