#ifndef ZOL_VEK_MEMORY_LIMIT_H
#define ZOL_VEK_MEMORY_LIMIT_H

#include <cstdint>
#include <string>

/// Bytes of memory that this process may use: that of the machine, or less where a control group of it or of what is
/// around it, such as a container, has a limit. Both versions of control groups are looked at.
std::uint64_t zolVekMemoryLimit(const std::string &strGroups = "/proc/self/cgroup",
                                const std::string &strRoot = "/sys/fs/cgroup");

#endif
