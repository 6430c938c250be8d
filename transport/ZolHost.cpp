#include "transport/ZolHost.h"

#include "transport/ZolAssert.h"

#include <atomic>

namespace
{

std::atomic<IZolHost *> g_poHost{nullptr};

} // namespace

IZolHost &zolHost()
{
    IZolHost *poHost = g_poHost.load(std::memory_order_acquire);
    ZOL_ASSERT(poHost != nullptr);
    return *poHost;
}

void zolSetHost(IZolHost &oHost)
{
    g_poHost.store(&oHost, std::memory_order_release);
}
