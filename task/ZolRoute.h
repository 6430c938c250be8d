#ifndef ZOL_TASK_ZOLROUTE_H
#define ZOL_TASK_ZOLROUTE_H

class CZolMsgPdu;
class CZolTaskMgr;

enum EnumZolWay
{
    WAY_LOCAL,      ///< to a manager of this process
    WAY_NO_TASKMGR, ///< to this process, which has no such manager
    WAY_PIPE,       ///< out of the process, by the pipe that is up
    WAY_NO_PIPE     ///< out of the process, and no pipe is up
};

/// Where a message goes.
///
/// Ownership: of nothing; managers live as long as the process.
struct SZolRoute
{
    EnumZolWay m_eWay;
    CZolTaskMgr *m_poTaskMgr; ///< for WAY_LOCAL, else null

    /// Sends the message on its way: at once to a manager, for a pipe after a wait while the send list is full. For
    /// WAY_LOCAL and WAY_PIPE only. At any result but ZOL_OK the message stays the caller's.
    int send(CZolMsgPdu *poMsg) const;
};

/// By the destination of the message alone: the manager that it names, if it names this very process, else the pipe to
/// the other one or to the gateway. Lines, counters and refusals are the caller's. Any thread.
SZolRoute zolRoute(const CZolMsgPdu &oMsg);

#endif
