#ifndef ZOL_TASK_ZOLPOLL_H
#define ZOL_TASK_ZOLPOLL_H

#include <cstdint>

/// Looks for something a short while before a thread goes to sleep for it. To be woken on another processor costs some
/// 20 us on either side, so whoever is answered sooner than that gains much by looking; whoever is not would only burn
/// time. So the habit follows success: after a look in vain the next waits go to sleep at once, twice as many each
/// time, up to 255, and a look that paid off makes that a quarter. An idle process never looks, and one whose messages
/// come 100 us apart looks at every 256th.
///
/// It does not give its processor away meanwhile: on a busy machine a thread that yields waits for the time slices of
/// others, milliseconds, while one that sleeps is run as soon as it is woken. With one processor it never looks.
///
/// Threads: one object belongs to one thread, or to the holder of a lock.
class CZolPoll
{
public:
    /// True as soon as fnFound() is, false when it is time to sleep.
    template <typename Found>
    bool lookFor(Found fnFound)
    {
        if (fnFound())
        {
            return true;
        }
        if (m_uiSkip != 0 || !hasOtherProcessor())
        {
            m_uiSkip -= m_uiSkip != 0 ? 1 : 0;
            return false;
        }
        const std::uint64_t ulEnd = nowNs() + LOOK_NS;
        do
        {
            relax();
            if (fnFound())
            {
                m_uiInVain /= 4;
                return true;
            }
        } while (nowNs() < ulEnd);
        m_uiInVain = m_uiInVain < MOST_SKIPPED ? 2 * m_uiInVain + 1 : MOST_SKIPPED;
        m_uiSkip = m_uiInVain;
        return false;
    }

private:
    static constexpr std::uint64_t LOOK_NS = 50000;
    static constexpr unsigned int MOST_SKIPPED = 255;

    static bool hasOtherProcessor();
    static std::uint64_t nowNs();

    static void relax()
    {
#if defined(__x86_64__)
        for (int iTurn = 0; iTurn < 8; ++iTurn)
        {
            __builtin_ia32_pause();
        }
#endif
    }

    unsigned int m_uiSkip = 0;   // waits to come that go to sleep at once
    unsigned int m_uiInVain = 0; // how many were skipped after the last look in vain
};

#endif
