// L2: how long a message takes from one task to another and back, each on a manager of its own.
//
//     local_ping_pong [round trips]

#include "BenchSupport.h"

#include <atomic>

using namespace zolbench;

namespace
{

constexpr unsigned char PING = 1, PONG = 2;
constexpr unsigned short TASK = 1;

std::atomic<std::uint64_t> g_ulEndNs{0};

class CPong : public CZolTask
{
public:
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        check(*poMsg, m_uiSeen);
        CZolMsgPdu *poAnswer = makeMsg(CZolMsgPdu::MSG_REQUEST, PING, TASK, m_uiSeen++);
        need(sendAsynMsg(poAnswer) == ZOL_OK, "the answer");
    }

private:
    unsigned int m_uiSeen = 0;
};

class CPing : public CZolTask
{
public:
    explicit CPing(unsigned int uiCount) : m_uiCount(uiCount) {}
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        check(*poMsg, m_uiSeen);
        if (++m_uiSeen == m_uiCount)
        {
            g_ulEndNs = nowNs();
            return;
        }
        CZolMsgPdu *poNext = makeMsg(CZolMsgPdu::MSG_REQUEST, PONG, TASK, m_uiSeen);
        need(sendAsynMsg(poNext) == ZOL_OK, "the next one");
    }

private:
    const unsigned int m_uiCount;
    unsigned int m_uiSeen = 0;
};

} // namespace

int main(int argc, char **argv)
{
    const unsigned int uiCount = argument(argc, argv, 1, 100000);
    CProcess oProcess(60);
    auto *poPingMgr = new CZolTaskMgr(PING, 1);
    auto *poPongMgr = new CZolTaskMgr(PONG, 1);
    CProcess::add(poPingMgr);
    CProcess::add(poPongMgr);
    poPingMgr->addStaticTask(new CPing(uiCount), TASK);
    poPongMgr->addStaticTask(new CPong, TASK);
    oProcess.run(
        [uiCount]
        {
            const std::uint64_t ulBegin = nowNs();
            send(makeMsg(CZolMsgPdu::MSG_REQUEST, PONG, TASK, 0));
            while (g_ulEndNs == 0)
            {
                usleep(200);
            }
            report("L2/zol", "rtt mean", static_cast<double>(g_ulEndNs - ulBegin) / uiCount, "ns");
        });
    return 0;
}
