// R2: how long a plain thread waits for the answer of a task in another process, over a direct pipe.
//
//     pipe_call [calls]

#include "PipePair.h"

#include <algorithm>
#include <vector>

using namespace zolbench;

namespace
{

class CServer : public CZolTask
{
public:
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        checkPipeMsg(*poMsg, PAYLOAD_BYTES, m_uiSeen);
        CZolMsgPdu *poAnswer = makePipeMsg(CZolMsgPdu::MSG_RESPONSE, SERVER, CLIENT, PAYLOAD_BYTES, m_uiSeen++);
        poAnswer->m_ucDestModule = poMsg->m_ucSrcModule;
        poAnswer->m_usDestSubModuleId = poMsg->m_usSrcSubModuleId;
        need(sendAsynMsg(poAnswer) == ZOL_OK, "the answer");
    }

private:
    unsigned int m_uiSeen = 0;
};

void callAll(unsigned int uiCount)
{
    std::vector<std::uint64_t> oTimes;
    oTimes.reserve(uiCount);
    for (unsigned int uiNumber = 0; uiNumber < uiCount; ++uiNumber)
    {
        const std::uint64_t ulBegin = nowNs();
        CZolMsgPdu *poRequest = makePipeMsg(CZolMsgPdu::MSG_REQUEST, CLIENT, SERVER, PAYLOAD_BYTES, uiNumber);
        CZolMsgPdu *poResponse = nullptr;
        need(CZolAppMgr::instance()->sendSynMsg(poRequest, poResponse, 10) == ZOL_OK, "a call");
        checkPipeMsg(*poResponse, PAYLOAD_BYTES, uiNumber);
        delete poResponse;
        oTimes.push_back(nowNs() - ulBegin);
    }
    std::sort(oTimes.begin(), oTimes.end());
    report("R2/zol", "rtt median", static_cast<double>(oTimes[uiCount / 2]) / 1e3, "us");
    report("R2/zol", "rtt p99", static_cast<double>(oTimes[uiCount * 99ULL / 100]) / 1e3, "us");
}

} // namespace

int main(int argc, char **argv)
{
    const unsigned int uiCount = argument(argc, argv, 1, 10000);
    const unsigned short usPort = freePort();
    payload();
    const CSideChannel oReady;
    const CSideChannel oDone;
    const pid_t iClient = startChild(
        [&]
        {
            oReady.get();
            CProcess oProcess(60, CLIENT);
            oProcess.run(
                [&]
                {
                    connectTo(usPort);
                    callAll(uiCount);
                    oDone.put(1);
                });
        });
    CProcess oProcess(60, SERVER);
    auto *poMgr = new CZolTaskMgr(MANAGER, 1);
    CProcess::add(poMgr);
    poMgr->addStaticTask(new CServer, TASK);
    need(zol::bindPort(usPort) == ZOL_OK, "the port");
    oProcess.run(
        [&]
        {
            oReady.put(1);
            oDone.get();
            joinChild(iClient);
        });
    return 0;
}
