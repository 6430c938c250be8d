#ifndef ZOL_VEK_POLICY_H
#define ZOL_VEK_POLICY_H

#include "gateway/config/ZolVekSettings.h"
#include "gateway/pipe/ZolVekFrame.h"

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

/// What the policy says of a frame.
enum EnumZolVekPassage
{
    VEK_PASS,
    VEK_PASS_FOREIGN,   ///< it names another source than its pipe is registered under: goes on, and is logged
    VEK_REFUSE_FOREIGN, ///< the same, and it does not go on
    VEK_REFUSE_DIRECT,  ///< the address of a request in the memory of a process: nothing that may come from another one
    VEK_REFUSE_DEBUG    ///< its process may not look into other ones
};

/// Who may come in, and who may send what.
///
/// Threads: the routing thread only.
class CZolVekPolicy
{
public:
    explicit CZolVekPolicy(const SZolVekSettings &oSettings) : m_oSettings(oSettings) {}

    /// Whether a process of this id may register from this address (host order). An id with a list of its own is held
    /// against that one alone.
    bool mayRegister(std::uint16_t usProcID, std::uint32_t uiAddress) const;

    /// What inspect() need not see: the common frame, to an application's task manager from whom it says.
    bool isOrdinary(const CZolVekFrame &oFrame, TZolVekKey uiRegistered) const
    {
        return static_cast<std::uint8_t>(oFrame.data()[zolwire::AT_DEST_MODULE]) != BUILT_IN_MANAGER &&
               (m_oSettings.m_eCheckSource == VEK_CHECK_OFF || oFrame.source() == uiRegistered);
    }

    /// uiRegistered is the key of the pipe that the frame came from.
    EnumZolVekPassage inspect(const CZolVekFrame &oFrame, TZolVekKey uiRegistered) const;

    /// Whether a task of this manager may subscribe to this command: to the built-in manager nothing is published that
    /// it would take from anyone.
    static bool maySubscribe(std::uint8_t ucModule, std::uint32_t uiCommand)
    {
        return ucModule != BUILT_IN_MANAGER || (!isDebug(uiCommand) && uiCommand != MSG_DIRECT_REQUEST_CMDID);
    }

private:
    static constexpr std::uint8_t BUILT_IN_MANAGER = 254;

    static bool isDebug(std::uint32_t uiCommand)
    {
        return uiCommand >= MSG_GET_LOG_LEVEL_CMDID && uiCommand <= MSG_PRINT_VARIABLE_CMDID;
    }
    bool mayDebug(std::uint16_t usProcID) const;

    const SZolVekSettings &m_oSettings;
};

#endif
