#ifndef ZOL_TESTS_TRANSPORT_TRANSPORTTEST_H
#define ZOL_TESTS_TRANSPORT_TRANSPORTTEST_H

#include "support/Application.h"
#include "support/Installation.h"
#include "support/RawGateway.h"
#include "support/RawPipe.h"
#include "transport/ZolConnMgr.h"
#include "transport/ZolHost.h"

#include <ace/Reactor.h>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zoltest
{

constexpr unsigned short OWN_PROC = 7;
constexpr unsigned short OWN_HANDLE = 3;
constexpr unsigned char COLLECTOR = 1; ///< the task manager that notes what it gets
constexpr unsigned short SINK = 1;     ///< its task

/// What the collector got, as frames.
class CInbox
{
public:
    void add(const CZolMsgPdu &oMsg);
    std::vector<SFrame> all() const;
    std::size_t count() const;
    bool waitFor(std::size_t uiCount, Milliseconds oLimit = PATIENCE) const;
    void clear();

private:
    mutable std::mutex m_oLock;
    std::vector<SFrame> m_oFrames; // guarded by m_oLock
};

/// This process as a process of the library: one task that notes its messages, and a port for peers made by hand.
class TransportTest : public testing::Test
{
protected:
    /// Starts the library with that zol.cfg; the process is 7 with handle 3.
    int start(const std::string &strConfig = "", unsigned short usHandle = OWN_HANDLE, bool bNoHandle = false);

    /// Listens for peers.
    void listen();

    /// handleEvents until fnBody returns.
    void run(const std::function<void()> &fnBody) { runApplication(fnBody); }

    /// Starts, listens and runs.
    void serve(const std::function<void()> &fnBody, const std::string &strConfig = "");

    CRawPipe peer(unsigned short usProc = 9, unsigned short usHandle = 1); ///< a registered passive pipe
    bool waitConnected(unsigned short usProc, unsigned short usHandle, bool bUp = true);
    bool logHas(const std::string &strText); ///< soon
    unsigned int logCount(const std::string &strText) { return countOf(m_poInstallation->logText(), strText); }

    std::unique_ptr<CInstallation> m_poInstallation;
    unsigned short m_usPort = 0;
    CInbox m_oInbox;
    std::mutex m_oGate; ///< whoever holds it keeps the collector's task in its handler
};

/// The transport without a process: no library is started and nothing listens. The log is there, and whatever a class
/// asks of the layers above it is answered here.
class BareTest : public testing::Test, public IZolHost
{
protected:
    BareTest();

    bool logHas(const std::string &strText) { return logCount(strText) > 0; }
    unsigned int logCount(const std::string &strText); ///< all that was logged so far counts

    ACE_Reactor *getReactor() override { return &m_oReactor; }
    bool isRunning() const override { return m_bRunning; }
    bool isExiting() const override { return false; }
    bool takeInitialResponse(CZolMsgPdu *) override { return false; }
    int sendLocal(CZolMsgPdu *&poPdu, unsigned char) override
    {
        delete poPdu;
        return ZOL_ERR_STAGE;
    }
    bool hasQueued(unsigned char) override { return false; }
    int subscribe(unsigned int, unsigned char, unsigned short) override { return ZOL_OK; }

    CInstallation m_oInstallation;
    ACE_Reactor m_oReactor;
    bool m_bRunning = true;
};

/// A message to the collector, from process 9 with handle 1.
SFrame toSink(unsigned int uiCmd, const std::string &strBody = "");

/// A message as the library makes it, to (usProc, usHandle).
CZolMsgPdu *newMessage(unsigned short usProc, unsigned short usHandle, unsigned int uiCmd, const std::string &strBody,
                       unsigned char ucType = CZolMsgPdu::MSG_REQUEST);

/// A message of the library as a frame; what its header has beyond 28 bytes heads the body.
SFrame frameOf(const CZolMsgPdu &oMsg);

/// Bytes of which no two neighbouring stretches are alike.
std::string pattern(std::size_t uiLength);

} // namespace zoltest

#endif
