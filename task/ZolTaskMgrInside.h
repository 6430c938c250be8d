#ifndef ZOL_TASK_ZOLTASKMGRINSIDE_H
#define ZOL_TASK_ZOLTASKMGRINSIDE_H

#include "ZolTaskMgr.h"
#include "task/ZolSynWaiters.h"
#include "task/ZolTaskQueue.h"
#include "task/ZolTaskRunner.h"
#include "task/ZolTaskThreads.h"

/// What a task manager has behind its interface: a class for each of its jobs, and the steps that several operations
/// share. The header of each class tells its threads and its lock.
///
/// Ownership: the manager's, made and deleted with it.
class CZolTaskMgr::CZolInside
{
public:
    CZolInside(CZolTaskMgr &oTaskMgr, unsigned char ucTaskMgrID);
    CZolInside(const CZolInside &) = delete;
    CZolInside &operator=(const CZolInside &) = delete;

    /// Makes the task one of the manager, under the id, or one of the ring for 0, and enters it in the table: the id,
    /// or 0 with the task unchanged. A task that has been added already is refused.
    unsigned short addTask(CZolTask &oTask, unsigned short usTaskID, EnumTaskType eType, EnumTaskState eState);

    /// Takes a task in TASK_EXIT, whose deletion the caller has claimed, out of the table and deletes it.
    void removeTask(CZolTask *poTask);

    /// The end of an assist task, with its line. The caller alone may touch the task: it has set m_bDeleting.
    void deleteClaimed(CZolTask *poTask);

    /// Hands a response to the task that waits for it, with a line. False, and the block still the caller's, if none
    /// does.
    bool deliverResponse(CZolMemBlock *poBlock);

    /// For the end of the process: a task that serves events of its own gets no message any more that would call it
    /// back.
    void endEventLoops();

    /// Waits until all threads have left. Of threads that have ended before it is called, ACE's wait_task joins every
    /// second one: it takes an entry off its list and then steps over the next. Each call halves what is left; what
    /// nobody joins keeps its stack.
    int joinThreads();

    /// Without all of its threads the manager has none: those that did start find no table and leave, so that the next
    /// open() begins anew.
    void endPartialOpen();

    /// One turn of svc(). False when the process is ending.
    bool serveOneMsg(unsigned long ulThreadID);

    CZolTaskMgr &m_oTaskMgr;
    ACE_Mutex *m_poDispatchMutex = nullptr; // set when the manager is added; see g_mapDispatchMutex
    CZolSynWaiters m_oWaiters;
    CZolTaskThreads m_oThreads;
    CZolTaskRunner m_oRunner;
    CZolTaskQueue m_oQueue;
};

#endif
