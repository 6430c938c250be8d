#include "config/ZolBinPath.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <unistd.h>

namespace ZOLCPP
{

int getBinPath(std::string &strPath)
{
    char acPath[PATH_MAX];
    const ssize_t iLength = readlink("/proc/self/exe", acPath, sizeof acPath);
    if (iLength < 0)
    {
        // the words are older than the call, and scripts look for them
        printf("ZOLCPP::getBinPath GetModuleFileName failed, error info: %d\n", errno);
        return -1;
    }
    const std::string strFile(acPath, static_cast<size_t>(iLength));
    const size_t uiSeparator = strFile.rfind('/');
    if (uiSeparator == std::string::npos)
    {
        printf("ZOLCPP::getBinPath the system returned a wrong path.");
        return -1;
    }
    strPath = strFile.substr(0, uiSeparator);
    return 0;
}

} // namespace ZOLCPP
