#include "transport/TransportTest.h"

#include "transport/ZolAcceptorHandler.h"

#include <cstring>

namespace zoltest
{

namespace
{

class CSink : public CZolTask
{
public:
    CSink(CInbox &oInbox, std::mutex &oGate) : m_oInbox(oInbox), m_oGate(oGate) {}
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        const std::lock_guard<std::mutex> oPass(m_oGate);
        m_oInbox.add(*poMsg);
    }

private:
    CInbox &m_oInbox;
    std::mutex &m_oGate;
};

} // namespace

SFrame frameOf(const CZolMsgPdu &oMsg)
{
    SFrame oFrame;
    oFrame.m_ucVersion = oMsg.m_ucVersion;
    oFrame.m_ucType = oMsg.m_ucMsgType;
    oFrame.m_usSegment = oMsg.m_usSegmentNo;
    oFrame.m_ulCmd = oMsg.m_ulCmdID;
    oFrame.m_usSrcProc = oMsg.m_usSrcProcID;
    oFrame.m_usDestProc = oMsg.m_usDestProcID;
    oFrame.m_usSrcHandle = oMsg.m_usSrcProcHandle;
    oFrame.m_usDestHandle = oMsg.m_usDestProcHandle;
    oFrame.m_ucSrcModule = oMsg.m_ucSrcModule;
    oFrame.m_ucDestModule = oMsg.m_ucDestModule;
    oFrame.m_usSrcTask = oMsg.m_usSrcSubModuleId;
    oFrame.m_usDestTask = oMsg.m_usDestSubModuleId;
    oFrame.m_usHeader = oMsg.m_usHeaderLength;
    oFrame.m_ulData = oMsg.m_ulDataLength;
    const char *pcBehind = reinterpret_cast<const char *>(&oMsg) + 28;
    oFrame.m_strBody.assign(pcBehind, oMsg.m_usHeaderLength - 28U + oMsg.m_ulDataLength);
    return oFrame;
}

void CInbox::add(const CZolMsgPdu &oMsg)
{
    SFrame oFrame = frameOf(oMsg);
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    m_oFrames.push_back(std::move(oFrame));
}

std::vector<SFrame> CInbox::all() const
{
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    return m_oFrames;
}

std::size_t CInbox::count() const
{
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    return m_oFrames.size();
}

bool CInbox::waitFor(std::size_t uiCount, Milliseconds oLimit) const
{
    return waitUntil([this, uiCount] { return count() >= uiCount; }, oLimit);
}

void CInbox::clear()
{
    const std::lock_guard<std::mutex> oGuard(m_oLock);
    m_oFrames.clear();
}

int TransportTest::start(const std::string &strConfig, unsigned short usHandle, bool bNoHandle)
{
    m_poInstallation = std::make_unique<CInstallation>(strConfig);
    const int iResult = CZolAppMgr::instance()->initAppMgr(OWN_PROC, usHandle, bNoHandle, nullptr, nullptr);
    if (iResult == 0)
    {
        auto *poManager = new CZolTaskMgr(COLLECTOR, 1);
        EXPECT_EQ(0, CZolAppMgr::instance()->addTaskMgr(poManager));
        EXPECT_EQ(0, poManager->addStaticTask(new CSink(m_oInbox, m_oGate), SINK));
    }
    return iResult;
}

void TransportTest::listen()
{
    m_usPort = freePort();
    ASSERT_EQ(0, CZolAcceptorHandler::instance()->bindPort(m_usPort));
}

void TransportTest::serve(const std::function<void()> &fnBody, const std::string &strConfig)
{
    ASSERT_EQ(0, start(strConfig));
    listen();
    run(fnBody);
}

CRawPipe TransportTest::peer(unsigned short usProc, unsigned short usHandle)
{
    CRawPipe oPipe = CRawPipe::connectTo(m_usPort);
    EXPECT_EQ(0, oPipe.registerAs(usProc, usHandle));
    return oPipe;
}

bool TransportTest::waitConnected(unsigned short usProc, unsigned short usHandle, bool bUp)
{
    return waitUntil([=] { return CZolConnMgr::instance()->isConnected(usProc, usHandle) == bUp; });
}

bool TransportTest::logHas(const std::string &strText)
{
    return waitUntil([&] { return logCount(strText) > 0; });
}

BareTest::BareTest()
{
    zolSetHost(*this);
    CZolLogTask::instance()->init(OWN_PROC, OWN_HANDLE, nullptr, m_oInstallation.logFolder().c_str());
    CZolIdentity::own().setProcID(OWN_PROC);
    CZolIdentity::own().setProcHandle(OWN_HANDLE);
}

unsigned int BareTest::logCount(const std::string &strText)
{
    CZolLogTask::instance()->writeLog();
    return countOf(m_oInstallation.logText(), strText);
}

SFrame toSink(unsigned int uiCmd, const std::string &strBody)
{
    SFrame oFrame;
    oFrame.m_ulCmd = uiCmd;
    oFrame.m_usSrcProc = 9;
    oFrame.m_usSrcHandle = 1;
    oFrame.m_usDestProc = OWN_PROC;
    oFrame.m_usDestHandle = OWN_HANDLE;
    oFrame.m_ucDestModule = COLLECTOR;
    oFrame.m_usDestTask = SINK;
    return oFrame.body(strBody);
}

CZolMsgPdu *newMessage(unsigned short usProc, unsigned short usHandle, unsigned int uiCmd, const std::string &strBody,
                       unsigned char ucType)
{
    CZolMsgPdu *poPdu = new (static_cast<unsigned int>(28 + strBody.size())) CZolMsgPdu;
    poPdu->init();
    poPdu->m_ucMsgType = ucType;
    poPdu->m_ulCmdID = uiCmd;
    poPdu->m_usSrcProcID = OWN_PROC;
    poPdu->m_usSrcProcHandle = OWN_HANDLE;
    poPdu->m_ucSrcModule = COLLECTOR;
    poPdu->m_usSrcSubModuleId = SINK;
    poPdu->m_usDestProcID = usProc;
    poPdu->m_usDestProcHandle = usHandle;
    poPdu->m_ucDestModule = COLLECTOR;
    poPdu->m_usDestSubModuleId = SINK;
    poPdu->m_ulDataLength = static_cast<ACE_UINT32>(strBody.size());
    std::memcpy(zolPayload(poPdu), strBody.data(), strBody.size());
    return poPdu;
}

std::string pattern(std::size_t uiLength)
{
    std::string strBytes(uiLength, '\0');
    unsigned int uiState = 12345U;
    for (char &cByte : strBytes)
    {
        uiState = uiState * 1103515245U + 12345U;
        cByte = static_cast<char>(uiState >> 16);
    }
    return strBytes;
}

} // namespace zoltest
