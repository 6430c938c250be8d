#ifndef ZOL_TESTS_SUPPORT_WAITUNTIL_H
#define ZOL_TESTS_SUPPORT_WAITUNTIL_H

#include <chrono>
#include <thread>

namespace zoltest
{

/// Polls fnCondition until it holds or the limit is over, and returns what it was last: a test waits for a state, with
/// a limit wide enough for a busy machine under a sanitizer, and never for a fixed time.
template <typename Condition>
bool waitUntil(Condition fnCondition, std::chrono::milliseconds oLimit = std::chrono::seconds(60))
{
    const auto oEnd = std::chrono::steady_clock::now() + oLimit;
    while (!fnCondition())
    {
        if (std::chrono::steady_clock::now() >= oEnd)
        {
            return fnCondition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace zoltest

#endif
