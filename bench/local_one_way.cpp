// L1: how many messages a second go from a plain thread to a task.
//
//     local_one_way [messages]

#include "BenchSupport.h"

#include <atomic>

using namespace zolbench;

namespace
{

constexpr unsigned char MANAGER = 1;
constexpr unsigned short TASK = 1;

std::atomic<std::uint64_t> g_ulEndNs{0};

class CSink : public CZolTask
{
public:
    explicit CSink(unsigned int uiCount) : m_uiCount(uiCount) {}
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        check(*poMsg, m_uiSeen);
        if (++m_uiSeen == m_uiCount)
        {
            g_ulEndNs = nowNs();
        }
    }

private:
    const unsigned int m_uiCount;
    unsigned int m_uiSeen = 0;
};

} // namespace

int main(int argc, char **argv)
{
    const unsigned int uiCount = argument(argc, argv, 1, 2000000);
    CProcess oProcess(60);
    auto *poMgr = new CZolTaskMgr(MANAGER, 1);
    CProcess::add(poMgr);
    poMgr->addStaticTask(new CSink(uiCount), TASK);
    oProcess.run(
        [uiCount]
        {
            const std::uint64_t ulBegin = nowNs();
            for (unsigned int uiNumber = 0; uiNumber < uiCount; ++uiNumber)
            {
                send(makeMsg(CZolMsgPdu::MSG_REQUEST, MANAGER, TASK, uiNumber));
            }
            while (g_ulEndNs == 0)
            {
                usleep(200);
            }
            report("L1/zol", "rate", uiCount * 1e9 / static_cast<double>(g_ulEndNs - ulBegin), "msg/s");
        });
    return 0;
}
