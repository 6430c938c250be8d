#ifndef ZOL_VEK_LOG_H
#define ZOL_VEK_LOG_H

#include "gateway/config/ZolVekSettings.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// The gateway's lines: through the run log of the library if a folder is named, else to standard error.
///
/// Levels are those of CZolRunLog: 1 fatal, 2 error, 3 warning, 4 info, 5 debug. A line is formatted only if it passes.
class CZolVekLog
{
public:
    /// Opens the run log if oSettings names a folder. A folder, or a file of the log in it, that cannot be used leaves
    /// standard error.
    static void open(const SZolVekSettings &oSettings);

    /// Writes what still waits to the disk.
    static void flush();

    static void line(int iLevel, const char *pcScope, const char *pcFormat, ...) __attribute__((format(printf, 3, 4)));
};

/// One line of the log.
struct SZolVekEvent
{
    std::uint64_t m_ulNumber = 0; ///< from 1 on, so that a reader sees what it has missed
    std::int64_t m_lWhenMs = 0;   ///< since the epoch
    int m_iLevel = 0;
    std::string m_strText;
};

/// The last lines from level info on, for whoever looks at the gateway.
///
/// Threads: the routing thread only.
class CZolVekEvents
{
public:
    static void add(int iLevel, const char *pcText);

    /// The oldest first.
    template <typename Function>
    static void forEach(Function fnEach)
    {
        for (std::uint64_t ulNumber = first(); ulNumber <= s_ulLast; ++ulNumber)
        {
            fnEach(s_aoLines[ulNumber % MOST]);
        }
    }

private:
    static constexpr std::uint64_t MOST = 200;
    static std::uint64_t first() { return s_ulLast < MOST ? 1 : s_ulLast - MOST + 1; }

    static std::array<SZolVekEvent, MOST> s_aoLines; // the one numbered n lies at n modulo its size
    static std::uint64_t s_ulLast;
};

/// Keeps lines of one kind that could come with every frame to one a second for each subject and a few a second in all,
/// and says how many were held back.
class CZolVekRateLimit
{
public:
    static constexpr std::size_t LINES = 10; ///< in a second

    /// True if the line about ulSubject may be written now; ulHeldBack is then how many of this kind, whatever their
    /// subject, were not since the last one.
    bool pass(std::uint64_t ulSubject, std::uint64_t ulNowMs, std::uint64_t &ulHeldBack);

private:
    struct SLine
    {
        std::uint64_t m_ulSubject = 0;
        std::uint64_t m_ulWrittenMs = 0;
    };
    std::array<SLine, LINES> m_aoLines; // the last ones: who had none of them may have one now
    std::size_t m_ulWritten = 0;        // ever; the next one goes to its place modulo LINES
    std::uint64_t m_ulHeldBack = 0;     // since the last line
};

#endif
