#include "gateway/route/ZolVekPolicy.h"

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

bool CZolVekPolicy::mayDebug(std::uint16_t usProcID) const
{
    const std::vector<std::uint16_t> &oIds = m_oSettings.m_oDebugFrom;
    return m_oSettings.m_bDebugFromAll || std::find(oIds.begin(), oIds.end(), usProcID) != oIds.end();
}

// The built-in manager looks at the command of whatever would have a task created for it: requests, and anything else
// that names no task. Responses that name one are for a caller that waits there, and pass.
EnumZolVekPassage CZolVekPolicy::inspect(const CZolVekFrame &oFrame, TZolVekKey uiRegistered) const
{
    const std::uint8_t ucType = oFrame.type();
    const bool bToManager = static_cast<std::uint8_t>(oFrame.data()[zolwire::AT_DEST_MODULE]) == BUILT_IN_MANAGER;
    if (bToManager && oFrame.command() == MSG_DIRECT_REQUEST_CMDID)
    {
        return VEK_REFUSE_DIRECT;
    }
    const bool bRequest = ucType == CZolMsgPdu::MSG_REQUEST || ucType == CZolMsgPdu::MSG_BIG_REQUEST ||
                          zolwire::load16(oFrame.data() + zolwire::AT_DEST_TASK) == 0;
    if (bToManager && bRequest && isDebug(oFrame.command()) && !mayDebug(zolVekProcOf(uiRegistered)))
    {
        return VEK_REFUSE_DEBUG;
    }
    if (m_oSettings.m_eCheckSource == VEK_CHECK_OFF || ucType == CZolMsgPdu::MSG_HELLO ||
        oFrame.source() == uiRegistered)
    {
        return VEK_PASS;
    }
    return m_oSettings.m_eCheckSource == VEK_CHECK_LOG ? VEK_PASS_FOREIGN : VEK_REFUSE_FOREIGN;
}
