// Any bytes as conf/zol.cfg: what comes out are cut keys and values, and the file says nothing new the second time,
// since the first value of a key stays.

#include "ZolApi.h"

#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

void require(bool bHolds)
{
    if (!bHolds)
    {
        std::abort();
    }
}

bool isCut(const std::string &strText)
{
    std::string strCut = strText;
    zol::trimString(strCut);
    return strCut == strText && strText.size() < 512;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize)
{
    static const int s_iFile = memfd_create("zol.cfg", MFD_CLOEXEC);
    static const std::string s_strPath = "/proc/self/fd/" + std::to_string(s_iFile);
    require(ftruncate(s_iFile, 0) == 0 && pwrite(s_iFile, pucData, ulSize, 0) == static_cast<ssize_t>(ulSize));
    zol::initResMgr();
    require(zol::addResFile(s_strPath));
    const std::map<std::string, std::string> oFirst = zol::getResMgr();
    for (const auto &[strKey, strValue] : oFirst)
    {
        require(isCut(strKey) && isCut(strValue) && !strKey.empty() && strKey[0] != '#' &&
                strKey.find('=') == std::string::npos);
        int iValue = -1;
        require(zol::getResByKey(strKey, iValue) != ZOL_OK || (zol::isDigit(strValue) && iValue >= 0));
        require(zol::getResByKey(strKey, iValue, 100, 10) != ZOL_OK || (iValue >= 10 && iValue <= 100));
    }
    require(zol::addResFile(s_strPath) && zol::getResMgr() == oFirst);
    return 0;
}
