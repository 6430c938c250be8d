#include "gateway/config/ZolVekMemoryLimit.h"

#include <algorithm>
#include <fstream>
#include <unistd.h>

namespace
{

/// The limit of the group at strPath below strRoot and of all that it lies in, or ulLimit if that is less.
std::uint64_t limitAlong(const std::string &strRoot, std::string strPath, const char *pcFile, std::uint64_t ulLimit)
{
    for (;;)
    {
        std::uint64_t ulOwn = 0;
        std::ifstream oFile(strRoot + strPath + "/" + pcFile);
        if (oFile >> ulOwn) // not so for "max"
        {
            ulLimit = std::min(ulLimit, ulOwn);
        }
        if (strPath.empty())
        {
            return ulLimit;
        }
        strPath.erase(strPath.rfind('/'));
    }
}

} // namespace

std::uint64_t zolVekMemoryLimit(const std::string &strGroups, const std::string &strRoot)
{
    std::uint64_t ulLimit =
        static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    std::ifstream oGroups(strGroups);
    for (std::string strLine; std::getline(oGroups, strLine);)
    {
        // number:controllers:path, where version 2 has no controllers
        const std::size_t ulFirst = strLine.find(':');
        const std::size_t ulPath = ulFirst == std::string::npos ? ulFirst : strLine.find(":/", ulFirst + 1);
        if (ulPath == std::string::npos)
        {
            continue;
        }
        const std::string strControllers = "," + strLine.substr(ulFirst + 1, ulPath - ulFirst - 1) + ",";
        const std::string strPath = strLine.substr(ulPath + 1);
        if (strControllers == ",,")
        {
            ulLimit = limitAlong(strRoot, strPath, "memory.max", ulLimit);
        }
        else if (strControllers.find(",memory,") != std::string::npos)
        {
            ulLimit = limitAlong(strRoot + "/memory", strPath, "memory.limit_in_bytes", ulLimit);
        }
    }
    return ulLimit;
}
