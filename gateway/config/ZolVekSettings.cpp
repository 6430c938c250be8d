#include "gateway/config/ZolVekSettings.h"

#include "gateway/config/ZolVekMemoryLimit.h"

#include <algorithm>

SZolVekSettings::SZolVekSettings()
{
    m_ulTotalQueueBytes = std::min<std::uint64_t>(1ull << 30, zolVekMemoryLimit() / 2);
}

std::vector<std::string> zolVekDifferences(const SZolVekSettings &oOld, const SZolVekSettings &oNew, bool bReloadable)
{
    std::vector<std::string> oLines;
    for (const SZolVekKeyInfo &oKey : zolVekKeys())
    {
        const std::string strOld = oKey.m_fnPrint(oOld);
        const std::string strNew = oKey.m_fnPrint(oNew);
        if (oKey.m_bReloads == bReloadable && strOld != strNew)
        {
            oLines.push_back(std::string(oKey.m_pcKey) + ": " + (strOld.empty() ? "none" : strOld) + " -> " +
                             (strNew.empty() ? "none" : strNew));
        }
    }
    return oLines;
}

SZolVekSettings zolVekReloaded(const SZolVekSettings &oRunning, const SZolVekSettings &oNew)
{
    SZolVekSettings oReloaded = oNew;
    for (const SZolVekKeyInfo &oKey : zolVekKeys())
    {
        if (!oKey.m_bReloads)
        {
            oKey.m_fnCopy(oReloaded, oRunning);
        }
    }
    return oReloaded;
}
