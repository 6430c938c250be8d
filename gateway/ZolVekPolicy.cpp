#include "ZolVekPolicy.h"

#include <algorithm>

bool CZolVekPolicy::mayRegister(std::uint16_t usProcID, std::uint32_t uiAddress) const
{
    if (usProcID == 0 || usProcID == 65535)
    {
        return false; // 0 is the gateway, 65535 is everybody
    }
    const auto oById = m_oSettings.m_oAllowFromById.find(usProcID);
    const std::vector<SZolVekNetwork> &oNetworks =
        oById == m_oSettings.m_oAllowFromById.end() ? m_oSettings.m_oAllowFrom : oById->second;
    return oNetworks.empty() ||
           std::any_of(oNetworks.begin(), oNetworks.end(),
                       [=](const SZolVekNetwork &oNetwork) { return oNetwork.contains(uiAddress); });
}
