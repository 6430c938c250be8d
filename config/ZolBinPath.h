#ifndef ZOL_CONFIG_ZOLBINPATH_H
#define ZOL_CONFIG_ZOLBINPATH_H

#include <string>

namespace ZOLCPP
{

/// The folder of the running executable (not of the library), without a separator at its end. 0, or -1 with a line on
/// standard output.
int getBinPath(std::string &strPath);

} // namespace ZOLCPP

#endif
