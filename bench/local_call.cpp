// L3: how long a plain thread waits for the answer of a task.
//
//     local_call [calls]

#include "BenchSupport.h"

using namespace zolbench;

namespace
{

constexpr unsigned char MANAGER = 1;
constexpr unsigned short TASK = 1;

class CServer : public CZolTask
{
public:
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        check(*poMsg, m_uiSeen);
        CZolMsgPdu *poAnswer =
            makeMsg(CZolMsgPdu::MSG_RESPONSE, poMsg->m_ucSrcModule, poMsg->m_usSrcSubModuleId, m_uiSeen++);
        need(sendAsynMsg(poAnswer) == ZOL_OK, "the answer");
    }

private:
    unsigned int m_uiSeen = 0;
};

} // namespace

int main(int argc, char **argv)
{
    const unsigned int uiCount = argument(argc, argv, 1, 100000);
    CProcess oProcess(60);
    auto *poMgr = new CZolTaskMgr(MANAGER, 1);
    CProcess::add(poMgr);
    poMgr->addStaticTask(new CServer, TASK);
    oProcess.run(
        [uiCount]
        {
            const std::uint64_t ulBegin = nowNs();
            for (unsigned int uiNumber = 0; uiNumber < uiCount; ++uiNumber)
            {
                CZolMsgPdu *poRequest = makeMsg(CZolMsgPdu::MSG_REQUEST, MANAGER, TASK, uiNumber);
                CZolMsgPdu *poResponse = nullptr;
                need(CZolAppMgr::instance()->sendSynMsg(poRequest, poResponse, 10) == ZOL_OK, "a call");
                check(*poResponse, uiNumber);
                delete poResponse;
            }
            report("L3/zol", "call mean", static_cast<double>(nowNs() - ulBegin) / uiCount, "ns");
        });
    return 0;
}
