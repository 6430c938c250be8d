#ifndef ZOL_TIMER_INDEX_H
#define ZOL_TIMER_INDEX_H

#include "ZolTimer.h"

#include <memory>
#include <vector>

/// A live timer: the record, its links, and the instant for which its next firing is armed.
struct SZolTimerNode : SZolTimerItem
{
    explicit SZolTimerNode(const SZolTimerItem &oItem, long lDueTime) : SZolTimerItem(oItem), m_lDueTime(lDueTime) {}

    long m_lDueTime;                   // by the wall clock; not kept for cycles
    SZolTimerNode *m_poPrev = nullptr; // neighbours in the list of all timers
    SZolTimerNode *m_poNext = nullptr;
    SZolTimerNode *m_poTaskPrev = nullptr; // neighbours among the timers of the same task
    SZolTimerNode *m_poTaskNext = nullptr;
    SZolTimerNode *m_poHashNext = nullptr; // next record with the same bucket
};

/// Finds the records of a list of timers, by their id and by their task, in a time that does not depend on how many
/// there are. All links stand in the records, so that adding and removing one allocates nothing but, now and then, a
/// table.
///
/// Threads:   none of its own: the lock of the list guards it.
/// Ownership: none; who removes a record has it.
class CZolTimerIndex
{
public:
    explicit CZolTimerIndex(SZolTimerList &oList);

    /// Appends poNode to the list; false if there is no memory for its task.
    bool add(SZolTimerNode *poNode);

    SZolTimerNode *find(unsigned int uiTimerId) const;

    /// Takes the record with that id out of the list; null if there is none.
    SZolTimerNode *remove(unsigned int uiTimerId);

    /// Takes all records of one task out of the list: the first of them, each with the next in m_poTaskNext, or null.
    SZolTimerNode *removeTask(unsigned char ucTaskMgrID, unsigned short usTaskID);

private:
    static const unsigned int PAGE_TASKS = 256; // tasks to a page of heads

    /// The first timer of each of 256 neighbouring tasks.
    struct SPage
    {
        SZolTimerNode *m_arrHeads[PAGE_TASKS] = {};
    };
    struct SManager
    {
        std::unique_ptr<SPage> m_arrPages[PAGE_TASKS];
    };

    SZolTimerNode **headOf(unsigned char ucTaskMgrID, unsigned short usTaskID) const;
    SZolTimerNode **makeHead(unsigned char ucTaskMgrID, unsigned short usTaskID);
    SZolTimerNode *&bucketOf(unsigned int uiTimerId) const;
    void grow();
    void unlinkFromBucket(SZolTimerNode *poNode);
    void unlinkFromList(SZolTimerNode *poNode);
    void unlinkFromTask(SZolTimerNode *poNode);

    SZolTimerList &m_oList;
    std::unique_ptr<SZolTimerNode *[]> m_arrBuckets; // ids are given out in turn, so their low bits spread them evenly
    unsigned int m_uiBuckets;                        // a power of two, at least the number of records if memory allows
    std::unique_ptr<SManager> m_arrManagers[256];    // made when the first timer of a manager is set
};

#endif
