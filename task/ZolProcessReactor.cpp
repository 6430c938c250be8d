#include "task/ZolProcessReactor.h"

#include <ace/Dev_Poll_Reactor.h>
#include <ace/Event_Handler_Handle_Timeout_Upcall.h>
#include <ace/Monotonic_Time_Policy.h>
#include <ace/Reactor.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Timer_Heap_T.h>
#include <algorithm>
#include <cstddef>
#include <fcntl.h>
#include <sys/resource.h>

namespace
{

constexpr rlim_t MOST_DESCRIPTORS = 65536; // the reactor keeps a record of some 32 bytes for each

using MonotonicHeap = ACE_Timer_Heap_T<ACE_Event_Handler *, ACE_Event_Handler_Handle_Timeout_Upcall,
                                       ACE_SYNCH_RECURSIVE_MUTEX, ACE_Monotonic_Time_Policy>;

class CZolProcessReactor : public ACE_Dev_Poll_Reactor
{
public:
    /// A wait that a signal has interrupted is taken up again, without a word on standard error.
    explicit CZolProcessReactor(size_t uiDescriptors)
        : ACE_Dev_Poll_Reactor(uiDescriptors, true, nullptr, new MonotonicHeap)
    {
        fcntl(poll_fd_, F_SETFD, FD_CLOEXEC);
    }
};

size_t raiseDescriptorLimit()
{
    rlimit oLimit{};
    if (getrlimit(RLIMIT_NOFILE, &oLimit) != 0)
    {
        return 1024;
    }
    const rlim_t ulWanted = std::min(oLimit.rlim_max, MOST_DESCRIPTORS);
    if (oLimit.rlim_cur < ulWanted)
    {
        rlimit oRaised = oLimit;
        oRaised.rlim_cur = ulWanted;
        if (setrlimit(RLIMIT_NOFILE, &oRaised) == 0)
        {
            oLimit = oRaised;
        }
    }
    return static_cast<size_t>(std::min(oLimit.rlim_cur, MOST_DESCRIPTORS));
}

} // namespace

ACE_Reactor *zolMakeProcessReactor()
{
    return new ACE_Reactor(new CZolProcessReactor(raiseDescriptorLimit()), true);
}
