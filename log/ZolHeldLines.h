#ifndef ZOL_LOG_ZOLHELDLINES_H
#define ZOL_LOG_ZOLHELDLINES_H

#include <string>
#include <vector>

/// Keeps the lines that the calling thread writes to the run log while it lives, and hands them to the log when it
/// goes, in their order. A log whose disk stalls stops the thread that writes a line; made in front of a guard, this
/// object lets it stop with no lock held:
///
///     CZolHeldLines oLines; // goes behind the guard
///     const CZolGuard oGuard(m_oStatusMutex);
///
/// Inside another one it does nothing: the lines wait for the outermost. Lines of CZolRunLog::startupLog are not kept.
///
/// Threads:   the one that made it.
/// Errors:    none; a line for which there is no memory is lost.
class CZolHeldLines
{
public:
    CZolHeldLines();
    ~CZolHeldLines();
    CZolHeldLines(const CZolHeldLines &) = delete;
    CZolHeldLines &operator=(const CZolHeldLines &) = delete;

    /// Takes a line, pcScope and a blank ahead of it unless null. False if the thread keeps none back.
    static bool keep(const char *pcScope, const char *pcText) noexcept;

private:
    const bool m_bOutermost;
    std::vector<std::string> m_oLines;
};

#endif
