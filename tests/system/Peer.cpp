// A process for the tests: an application with one manager whose task 1 does what the commands of PeerProtocol.h say.
//
// usage: peer PROCID HANDLE [KEY=VALUE...]
//     HANDLE       none, or the process handle (0 asks the gateway for one)
//     port=N       listen there; direct requests come back as they are
//     code=N       what main returns after handleEvents
//     flood=PROCID send that process messages until the end; "stalled" is printed when a send has had to wait
//     slow=N       microseconds that each collected message takes
//
// Prints "running" and its handle when handlers run.

#include "PeerProtocol.h"
#include "zol.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>

using namespace peer;

namespace
{

bool isRunning()
{
    return CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING;
}

class CPeerTask : public CZolTask
{
public:
    explicit CPeerTask(unsigned int uiSlowUs) : m_uiSlowUs(uiSlowUs) {}

    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        const char *const pcBody = zolPayload(poMsg);
        if (poMsg->m_ulCmdID == CMD_ECHO)
        {
            zol::sendRespMsg(*poMsg, pcBody, poMsg->m_ulDataLength);
        }
        else if (poMsg->m_ulCmdID == CMD_COLLECT)
        {
            collect(pcBody, poMsg->m_ulDataLength);
        }
        else if (poMsg->m_ulCmdID == CMD_COLLECTED)
        {
            const std::string strText = std::to_string(m_uiCount) + " " + std::to_string(m_uiFaults);
            zol::sendRespMsg(*poMsg, strText.data(), static_cast<unsigned int>(strText.size()));
        }
    }

private:
    // The number in front, its last byte again at the end: a lost, doubled, moved or cut message is a fault.
    void collect(const char *pcBody, unsigned int uiLength)
    {
        unsigned int uiNumber = 0;
        if (uiLength < sizeof uiNumber + 1)
        {
            ++m_uiFaults;
            return;
        }
        std::memcpy(&uiNumber, pcBody, sizeof uiNumber);
        const bool bGood = uiNumber == m_uiCount && pcBody[uiLength - 1] == static_cast<char>(uiNumber);
        m_uiFaults += bGood ? 0 : 1;
        ++m_uiCount;
        if (m_uiSlowUs != 0)
        {
            std::this_thread::sleep_for(std::chrono::microseconds(m_uiSlowUs));
        }
    }

    const unsigned int m_uiSlowUs;
    unsigned int m_uiCount = 0;
    unsigned int m_uiFaults = 0;
};

class CEchoListener : public CZolListener
{
    int handleP2PMsg(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse) override
    {
        poResponse = zol::messageCopy(*poRequest);
        return 0;
    }
};

void flood(unsigned short usProcID)
{
    std::string strBody(1000, 'x');
    for (unsigned int uiNumber = 0; isRunning(); ++uiNumber)
    {
        const auto oBefore = std::chrono::steady_clock::now();
        std::memcpy(strBody.data(), &uiNumber, sizeof uiNumber);
        strBody.back() = static_cast<char>(uiNumber);
        zol::sendReqMsg(CMD_COLLECT, strBody.data(), static_cast<unsigned int>(strBody.size()), usProcID, MANAGER,
                        TASK);
        if (std::chrono::steady_clock::now() - oBefore > std::chrono::milliseconds(100))
        {
            std::puts("stalled");
            std::fflush(stdout);
        }
    }
}

/// What the process does besides its tasks, on a thread of its own.
void runBeside(unsigned short usFlood)
{
    while (CZolAppMgr::instance()->getStatus() == APPMGR_INITIAL)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::printf("running, handle %u\n", CZolAppMgr::instance()->getProcHandle());
    std::fflush(stdout);
    if (usFlood != 0)
    {
        flood(usFlood);
    }
}

} // namespace

int main(int argc, char **argv)
{
    std::map<std::string, unsigned int> oOptions;
    for (int iArg = 3; iArg < argc; ++iArg)
    {
        const std::string strArg = argv[iArg];
        const size_t uiEqual = strArg.find('=');
        oOptions[strArg.substr(0, uiEqual)] = static_cast<unsigned int>(std::stoul(strArg.substr(uiEqual + 1)));
    }
    const auto usProcID = static_cast<unsigned short>(std::atoi(argv[1]));
    const bool bNoHandle = std::strcmp(argv[2], "none") == 0;
    const auto usHandle = static_cast<unsigned short>(bNoHandle ? 0 : std::atoi(argv[2]));
    const std::string strLog = "peer" + std::to_string(usProcID) + "_" + std::to_string(usHandle);
    const int iResult = CZolAppMgr::instance()->initAppMgr(usProcID, usHandle, bNoHandle, strLog.c_str(), nullptr);
    if (iResult != ZOL_OK)
    {
        std::printf("not started: %d\n", iResult);
        return 1;
    }
    CZolRunLog::logLevel(CZolRunLog::LEVEL_WARNING);
    auto *const poMgr = new CZolTaskMgr(MANAGER, 2);
    CZolAppMgr::instance()->addTaskMgr(poMgr);
    poMgr->addStaticTask(new CPeerTask(oOptions["slow"]), TASK);
    static CEchoListener oListener;
    zol::setListener(oListener);
    if (oOptions["port"] != 0 && zol::bindPort(static_cast<unsigned short>(oOptions["port"])) != ZOL_OK)
    {
        return 1;
    }
    std::thread oBeside(runBeside, static_cast<unsigned short>(oOptions["flood"]));
    CZolAppMgr::instance()->handleEvents();
    oBeside.join();
    return static_cast<int>(oOptions["code"]);
}
