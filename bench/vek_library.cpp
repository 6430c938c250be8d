// R3 library: messages a second, and calls, between two processes of the library through the gateway. The groups R3 and
// R3 rtt have raw sockets at both ends; here both ends are tasks.
//
//     vek_library [messages calls]

#include "PipePair.h"
#include "VekPeer.h"

#include <algorithm>
#include <vector>

using namespace zolbench;

namespace
{

/// Counts requests; answers those that a caller waits for.
class CServer : public CZolTask
{
public:
    CServer(unsigned int uiCount, const CSideChannel &oDone) : m_uiCount(uiCount), m_oDone(oDone) {}
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        checkPipeMsg(*poMsg, PAYLOAD_BYTES, m_uiSeen++);
        if (m_uiSeen == m_uiCount)
        {
            m_oDone.put(nowNs());
        }
        if (m_uiSeen > m_uiCount)
        {
            CZolMsgPdu *poAnswer = makePipeMsg(CZolMsgPdu::MSG_RESPONSE, SERVER, CLIENT, PAYLOAD_BYTES, m_uiSeen - 1);
            poAnswer->m_ucDestModule = poMsg->m_ucSrcModule;
            poAnswer->m_usDestSubModuleId = poMsg->m_usSrcSubModuleId;
            need(sendAsynMsg(poAnswer) == ZOL_OK, "the answer");
        }
    }

private:
    const unsigned int m_uiCount; // messages without an answer, which come first
    const CSideChannel &m_oDone;
    unsigned int m_uiSeen = 0;
};

void joinGateway(unsigned short usPort)
{
    need(zol::setVEKAddress("127.0.0.1", usPort) == ZOL_OK && zol::connect2VEK() == ZOL_OK, "the gateway");
}

void callAll(unsigned int uiFirst, unsigned int uiCount)
{
    std::vector<std::uint64_t> oTimes;
    for (unsigned int uiNumber = uiFirst; uiNumber < uiFirst + uiCount; ++uiNumber)
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
    report("R3 library rtt/zol", "rtt median", static_cast<double>(oTimes[uiCount / 2]) / 1e3, "us");
    report("R3 library rtt/zol", "rtt p99", static_cast<double>(oTimes[uiCount * 99ULL / 100]) / 1e3, "us");
}

} // namespace

int main(int argc, char **argv)
{
    const unsigned int uiCount = argument(argc, argv, 1, 1000000);
    const unsigned int uiCalls = argument(argc, argv, 2, 10000);
    payload();
    const vekbench::CGateway oGateway;
    const CSideChannel oReady;
    const CSideChannel oDone;
    const CSideChannel oLeave;
    const pid_t iClient = startChild(
        [&]
        {
            oReady.get();
            CProcess oProcess(60, CLIENT);
            oProcess.run(
                [&]
                {
                    joinGateway(oGateway.port());
                    const std::uint64_t ulBegun = nowNs();
                    for (unsigned int uiNumber = 0; uiNumber < uiCount; ++uiNumber)
                    {
                        CZolMsgPdu *poMsg =
                            makePipeMsg(CZolMsgPdu::MSG_REQUEST, CLIENT, SERVER, PAYLOAD_BYTES, uiNumber);
                        need(CZolAppMgr::instance()->sendAsynMsg(poMsg) == ZOL_OK, "sending");
                    }
                    const double dSeconds = static_cast<double>(oDone.get() - ulBegun) / 1e9;
                    report("R3 library/zol", "rate", uiCount / dSeconds, "msg/s");
                    callAll(uiCount, uiCalls);
                    oLeave.put(1);
                });
        });
    CProcess oProcess(60, SERVER);
    auto *poMgr = new CZolTaskMgr(MANAGER, 1);
    CProcess::add(poMgr);
    poMgr->addStaticTask(new CServer(uiCount, oDone), TASK);
    oProcess.run(
        [&]
        {
            joinGateway(oGateway.port());
            oReady.put(1);
            oLeave.get();
            joinChild(iClient);
        });
    return 0;
}
