#ifndef ZOL_TASK_ZOLINLINETASK_H
#define ZOL_TASK_ZOLINLINETASK_H

#include "ZolTask.h"
#include "ZolTaskMgr.h"

#include <atomic>
#include <initializer_list>
#include <string>

/// The task manager that every process has, id 254, one thread. It serves the debug commands of any peer, runs the
/// application's listener for direct requests, and holds the assist tasks of synchronous calls from outside of tasks.
class CZolInlineTaskMgr : public CZolTaskMgr
{
public:
    static constexpr unsigned char TASK_MGR_ID = 254;

    CZolInlineTaskMgr() : CZolTaskMgr(TASK_MGR_ID, 1) {}

    CZolTask *createTask(CZolMsgPdu *poMsg) override;

    /// From now on, for good, a dump command goes on to task manager 0 of the application, which owes the answer.
    void setCmdResend() { m_bCmdResend.store(true, std::memory_order_relaxed); }

private:
    std::atomic<bool> m_bCmdResend{false}; // new tasks take a copy
};

/// Serves one command and ends.
class CZolInlineTask : public CZolTask
{
public:
    explicit CZolInlineTask(bool bCmdResend) : m_bCmdResend(bCmdResend) {}

    void reqMsgProcess(const CZolMsgPdu *poReqMsg) override;

private:
    void getLogLevel(const CZolMsgPdu &oPdu);
    void setLogLevel(const CZolMsgPdu &oPdu);
    void printVariable(const CZolMsgPdu &oPdu);
    void serveDirectRequest(const CZolMsgPdu &oPdu);

    int dumpTo(const std::string &strFile);
    void resendToApplication(const CZolMsgPdu &oPdu);

    int sendResults(const CZolMsgPdu &oRequest, std::initializer_list<int> oResults, const char *pcScope);

    const bool m_bCmdResend;
};

#endif
