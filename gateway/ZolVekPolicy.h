#ifndef ZOL_VEK_POLICY_H
#define ZOL_VEK_POLICY_H

#include "ZolVekSettings.h"

#include <cstdint>

/// Status values of a register response.
enum EnumZolVekStatus
{
    VEK_STATUS_ACCEPTED = 0,
    VEK_STATUS_DRAINING = -1, ///< the process goes on and tries again
    VEK_STATUS_FORBIDDEN = -8,
    VEK_STATUS_UP = -9,
    VEK_STATUS_FULL = -10
};

/// Who may come in.
class CZolVekPolicy
{
public:
    explicit CZolVekPolicy(const SZolVekSettings &oSettings) : m_oSettings(oSettings) {}

    /// Whether a process of this id may register from this address (host order). An id with a list of its own is held
    /// against that one alone.
    bool mayRegister(std::uint16_t usProcID, std::uint32_t uiAddress) const;

private:
    const SZolVekSettings &m_oSettings;
};

#endif
