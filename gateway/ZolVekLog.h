#ifndef ZOL_VEK_LOG_H
#define ZOL_VEK_LOG_H

#include "ZolVekSettings.h"
#include "gateway/http/ZolSnapshot.h"

#include <cstdint>
#include <string>
#include <unordered_map>
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

/// The last lines from level info on, for the status page.
///
/// Threads: the routing thread only.
class CZolVekEvents
{
public:
    static void add(int iLevel, const char *pcText);

    /// The oldest first.
    static void copyTo(std::vector<SZolEventView> &oEvents);
};

/// Keeps a line that could come with every frame to one a second for each subject, and says how often it was held back.
class CZolVekRateLimit
{
public:
    /// True if the line about uiSubject may be written now; ulHeldBack is then how many were not, since the last one.
    bool pass(std::uint64_t ulSubject, std::uint64_t ulNowMs, std::uint64_t &ulHeldBack);

private:
    static constexpr std::size_t MAX_SUBJECTS = 4096; // beyond this the table is begun anew

    struct SSubject
    {
        std::uint64_t m_ulLastMs;
        std::uint64_t m_ulHeldBack;
    };
    std::unordered_map<std::uint64_t, SSubject> m_oSubjects;
};

#endif
