#ifndef ZOL_TASK_ZOLTHREADSELF_H
#define ZOL_TASK_ZOLTHREADSELF_H

class CZolTaskMgr;
class CZolTaskThreads;
struct SZolThreadRecord;

/// Which manager the calling thread belongs to, and its record in that manager's table; all null for other threads. Set
/// by CZolTaskThreads::enter(), so that a thread finds its own record without a search.
struct SZolThreadSelf
{
    CZolTaskMgr *m_poTaskMgr = nullptr;
    const CZolTaskThreads *m_poThreads = nullptr;
    SZolThreadRecord *m_poRecord = nullptr;
};

inline SZolThreadSelf &zolThreadSelf()
{
    static thread_local SZolThreadSelf oSelf;
    return oSelf;
}

#endif
