#ifndef ZOL_RESMGR_H
#define ZOL_RESMGR_H

#include "ZolErrors.h"
#include "ZolExport.h"

#include <map>
#include <string>

/// The settings of the process: one table of text, filled from files.
///
/// Threads:   no lock: load before the threads run, then only read.
/// Errors:    codes of ZolErrors.h and a line on standard output or error; nothing is thrown.
namespace zol
{

/// Finds the root of the installation (ZOLROOT, else the folder above the executable) and adds its conf/zol.cfg.
/// initAppMgr calls it. ZOL_ERR_FAILED without a readable file.
ZOL_EXPORT int init();

/// Adds the entries of a file; a key that exists keeps its value. False if the file cannot be opened.
ZOL_EXPORT bool addResFile(const std::string &strFile);

/// Removes all entries. Pointers that getResByKey gave are dead from then on.
ZOL_EXPORT void initResMgr();

/// All entries, for iteration.
ZOL_EXPORT const std::map<std::string, std::string> &getResMgr();

/// The value inside the table, or null without such a key. Valid until initResMgr.
ZOL_EXPORT const std::string *getResByKey(const std::string &strKey);

/// A copy of the value, or of strDefault without such a key. An empty value is a value.
ZOL_EXPORT std::string getResByKey(const std::string &strKey, const std::string &strDefault);

/// ZOL_ERR_FAILED and iValue untouched if the key is absent or its value is anything but digits.
ZOL_EXPORT int getResByKey(const std::string &strKey, int &iValue);

/// The same, then clamped to the two bounds. The maximum comes first.
ZOL_EXPORT int getResByKey(const std::string &strKey, int &iValue, int iMaximum, int iMinimum);

/// Sets a value, over an existing one. The file is never written.
ZOL_EXPORT void saveResWithKey(const std::string &strKey, const std::string &strValue);

} // namespace zol

#endif
