// R1: messages a second from a task's process to a task of another one, over a direct pipe.
//
//     pipe_one_way [payload bytes messages]        without them: 100 B, 1 KiB, 64 KiB and 1 MiB, each for itself

#include "PipePair.h"

using namespace zolbench;

namespace
{

class CSink : public CZolTask
{
public:
    CSink(unsigned int uiPayload, unsigned int uiCount, const CSideChannel &oDone)
        : m_uiPayload(uiPayload), m_uiCount(uiCount), m_oDone(oDone)
    {
    }
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        checkPipeMsg(*poMsg, m_uiPayload, m_uiSeen++);
        if (m_uiSeen == m_uiCount)
        {
            m_oDone.put(nowNs());
        }
    }

private:
    const unsigned int m_uiPayload;
    const unsigned int m_uiCount;
    const CSideChannel &m_oDone;
    unsigned int m_uiSeen = 0;
};

std::string nameOf(unsigned int uiPayload)
{
    if (uiPayload >= 1 << 20)
    {
        return "R1 " + std::to_string(uiPayload >> 20) + "MiB/zol";
    }
    return "R1 " + (uiPayload >= 1024 ? std::to_string(uiPayload >> 10) + "KiB" : std::to_string(uiPayload) + "B") +
           "/zol";
}

// This program once for each size, since the library starts once in a process.
int runAllSizes()
{
    const char *const aSizes[][2] = {{"100", "2000000"}, {"1024", "500000"}, {"65536", "20000"}, {"1048576", "1000"}};
    for (const auto &aSize : aSizes)
    {
        joinChild(startChild(
            [&aSize]
            {
                execl("/proc/self/exe", "bench_pipe_one_way", aSize[0], aSize[1], nullptr);
                need(false, "running this program again");
            }));
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
    {
        return runAllSizes();
    }
    const unsigned int uiPayload = argument(argc, argv, 1, PAYLOAD_BYTES);
    const unsigned int uiCount = argument(argc, argv, 2, 2000000);
    const unsigned short usPort = freePort();
    payload();
    const CSideChannel oReady;
    const CSideChannel oBegun;
    const CSideChannel oDone;
    const CSideChannel oLeave;
    const pid_t iSender = startChild(
        [&]
        {
            oReady.get();
            CProcess oProcess(60, CLIENT);
            oProcess.run(
                [&]
                {
                    connectTo(usPort);
                    oBegun.put(nowNs());
                    for (unsigned int uiNumber = 0; uiNumber < uiCount; ++uiNumber)
                    {
                        CZolMsgPdu *poMsg = makePipeMsg(CZolMsgPdu::MSG_REQUEST, CLIENT, SERVER, uiPayload, uiNumber);
                        need(CZolAppMgr::instance()->sendAsynMsg(poMsg) == ZOL_OK, "sending");
                    }
                    oLeave.get(); // nothing is flushed at the end of a process
                });
        });
    CProcess oProcess(60, SERVER);
    auto *poMgr = new CZolTaskMgr(MANAGER, 1);
    CProcess::add(poMgr);
    poMgr->addStaticTask(new CSink(uiPayload, uiCount, oDone), TASK);
    need(zol::bindPort(usPort) == ZOL_OK, "the port");
    oProcess.run(
        [&]
        {
            oReady.put(1);
            const std::uint64_t ulBegun = oBegun.get();
            const double dSeconds = static_cast<double>(oDone.get() - ulBegun) / 1e9;
            oLeave.put(1);
            joinChild(iSender);
            report(nameOf(uiPayload), "rate", uiCount / dSeconds, "msg/s");
            if (uiPayload >= 65536)
            {
                report(nameOf(uiPayload), "bandwidth", (HEADER_BYTES + double(uiPayload)) * uiCount / dSeconds / 1e6,
                       "MB/s");
            }
        });
    return 0;
}
