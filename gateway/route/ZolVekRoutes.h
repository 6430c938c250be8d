#ifndef ZOL_VEK_ROUTES_H
#define ZOL_VEK_ROUTES_H

#include "gateway/pipe/ZolVekFrame.h"

#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

class CZolVekSession;

/// Which pipe leads to which process, and which handles are free.
///
/// Threads: the routing thread only.
class CZolVekRoutes
{
public:
    /// The pipe registered under exactly this id and handle, or null.
    CZolVekSession *find(TZolVekKey uiKey) const;

    /// A pipe for messages that name the id alone: the one with handle 0, else the one that the fewest sources use.
    CZolVekSession *choose(std::uint16_t usProcID) const;

    /// Enters a pipe under a key that is free.
    void add(TZolVekKey uiKey, CZolVekSession *poSession);

    /// Forgets the handles that have rested for long enough, and ids of which nothing is left. Once a second.
    void tick(std::uint64_t ulNowMs);

    /// How long a freed handle rests.
    void rest(std::uint64_t ulRestMs) { m_ulRestMs = ulRestMs; }

    /// Takes a pipe out. Its handle, if not 0, rests from ulNowMs on.
    void remove(TZolVekKey uiKey, std::uint64_t ulNowMs);

    /// One more (or one less) source uses the pipe of uiKey for messages that name its id alone.
    void use(TZolVekKey uiKey, int iBy);

    /// The lowest free handle of the id, from 1 on. One that still rests is taken only when no other is free, the
    /// longest free first. False if all are in use.
    bool allocate(std::uint16_t usProcID, std::uint64_t ulNowMs, std::uint16_t &usHandle);

    /// Grows with every change, so that a source sees when a choice that it has kept may be wrong.
    std::uint64_t generation() const { return m_ulGeneration; }

    std::size_t size() const { return m_oByKey.size(); }

    /// Process ids of which a pipe is up or a handle rests.
    std::size_t processes() const { return m_oProcesses.size(); }

    template <typename Function>
    void forEach(Function fnEach) const
    {
        for (const auto &oPair : m_oByKey)
        {
            fnEach(oPair.second.m_poSession);
        }
    }

private:
    static constexpr unsigned int HANDLES = 65535; // 1 to 65534 are given out
    static constexpr std::uint64_t IN_USE = UINT64_MAX;

    struct SRoute
    {
        CZolVekSession *m_poSession;
        unsigned int m_uiSources; // that use it for the id alone
    };
    struct SProcess
    {
        std::set<std::pair<unsigned int, TZolVekKey>> m_oBySources;   // the pipes of the id, least used first
        std::map<std::uint16_t, std::uint64_t> m_oHandles;            // not free: IN_USE, or since when it rests
        std::set<std::pair<std::uint64_t, std::uint16_t>> m_oResting; // since when, and which: longest first
        unsigned int m_uiNext = 1;                                    // of the handles below ...
        std::set<std::uint16_t> m_oFree;                              // ... these are free
    };

    void wake(SProcess &oProcess, std::uint64_t ulNowMs) const;
    static void free(SProcess &oProcess, std::uint16_t usHandle);
    static bool longestResting(const SProcess &oProcess, std::uint16_t &usHandle);

    std::unordered_map<TZolVekKey, SRoute> m_oByKey;
    std::unordered_map<std::uint16_t, SProcess> m_oProcesses; // ids of which a pipe is up or a handle rests
    std::uint64_t m_ulGeneration = 1;
    std::uint64_t m_ulRestMs = 60000;
};

#endif
