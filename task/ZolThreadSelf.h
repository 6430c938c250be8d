#ifndef ZOL_TASK_ZOLTHREADSELF_H
#define ZOL_TASK_ZOLTHREADSELF_H

class CZolTaskMgr;
struct SZolThreadEntry;

/// Which manager the calling thread belongs to, and its entry in that manager's table; both null for other threads.
/// Set by svc(), so that a thread finds its own entry without a search.
struct SZolThreadSelf
{
    CZolTaskMgr *m_poTaskMgr = nullptr;
    SZolThreadEntry *m_poEntry = nullptr;
};

inline SZolThreadSelf &zolThreadSelf()
{
    static thread_local SZolThreadSelf oSelf;
    return oSelf;
}

#endif
