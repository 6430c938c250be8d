#include "ZolLock.h"

#ifdef ZOL_SANITIZED

#include <cstdio>
#include <cstdlib>

namespace
{

constexpr int MOST_LOCKS = 16;

struct SHeld
{
    const void *m_pvLock;
    EnumZolLockRank m_eRank;
};

thread_local SHeld t_arrHeld[MOST_LOCKS];
thread_local int t_iHeld = 0;

[[noreturn]] void refuse(const char *pcText, int iHeld, int iTaken)
{
    fprintf(stderr, "%s: rank %d held, rank %d taken, see include/ZolLock.h\n", pcText, iHeld, iTaken);
    abort();
}

} // namespace

void zolLockTaken(const void *pvLock, EnumZolLockRank eRank, bool bTried)
{
    for (int i = 0; i < t_iHeld && !bTried; ++i)
    {
        if (t_arrHeld[i].m_eRank >= eRank)
        {
            refuse("lock out of order", t_arrHeld[i].m_eRank, eRank);
        }
    }
    if (t_iHeld == MOST_LOCKS)
    {
        refuse("too many locks", t_arrHeld[0].m_eRank, eRank);
    }
    t_arrHeld[t_iHeld++] = {pvLock, eRank};
}

void zolLockReleased(const void *pvLock)
{
    int iAt = t_iHeld - 1;
    while (iAt >= 0 && t_arrHeld[iAt].m_pvLock != pvLock)
    {
        --iAt;
    }
    if (iAt < 0)
    {
        refuse("lock released by another thread", -1, -1);
    }
    for (--t_iHeld; iAt < t_iHeld; ++iAt)
    {
        t_arrHeld[iAt] = t_arrHeld[iAt + 1];
    }
}

void zolNoLockHeld()
{
    for (int i = 0; i < t_iHeld; ++i)
    {
        if (t_arrHeld[i].m_eRank != ZOL_RANK_RECEIVE) // nobody waits for that one
        {
            refuse("line of the log under a lock", t_arrHeld[i].m_eRank, ZOL_RANK_LOG_BUFFER);
        }
    }
}

#endif
