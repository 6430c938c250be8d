// The send helpers in one process without a gateway and without a handle, so that a destination of this process's id is
// local and every other one is out of reach.

#include "support/Application.h"
#include "support/Installation.h"
#include "zol.h"

#include <arpa/inet.h>
#include <asn-incl.h>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

using namespace zoltest;

namespace
{

const unsigned short PROCESS = 1;
const unsigned char MANAGER = 1;
const unsigned short SERVER = 1;  // answers by command
const unsigned short FORWARD = 2; // forwards to SERVER

enum EnumCommand
{
    CMD_ECHO = 1,   // the body comes back
    CMD_ADD = 2,    // an ASN.1 integer comes back plus one
    CMD_SILENT = 3, // no answer
    CMD_NOTE = 4    // no answer, noted with its source
};

std::mutex g_oLock;
std::vector<std::string> g_oNotes; // guarded by g_oLock

void note(const CZolMsgPdu &oMsg)
{
    const std::lock_guard<std::mutex> oGuard(g_oLock);
    g_oNotes.push_back(bodyOf(oMsg) + " from " + std::to_string(oMsg.m_ucSrcModule) + "/" +
                       std::to_string(oMsg.m_usSrcSubModuleId));
}

std::vector<std::string> notes()
{
    const std::lock_guard<std::mutex> oGuard(g_oLock);
    return g_oNotes;
}

void answer(const CZolMsgPdu &oMsg)
{
    const std::string strBody = bodyOf(oMsg);
    SNACC::AsnInt oNumber;
    switch (oMsg.m_ulCmdID)
    {
    case CMD_ECHO:
        EXPECT_EQ(ZOL_OK, zol::sendRespMsg(oMsg, strBody.data(), static_cast<unsigned int>(strBody.size())));
        break;
    case CMD_ADD:
        EXPECT_EQ(ZOL_OK, zol::decodeAsn(oMsg, oNumber));
        oNumber.Set(static_cast<int>(oNumber) + 1);
        EXPECT_EQ(ZOL_OK, zol::sendRespMsg(oMsg, &oNumber));
        break;
    case CMD_NOTE:
        note(oMsg);
        break;
    default:
        break;
    }
}

class CServer : public CZolTask
{
    void respMsgProcess(const CZolMsgPdu *poMsg) override { answer(*poMsg); }
};

class CForwarder : public CZolTask
{
    void respMsgProcess(const CZolMsgPdu *poMsg) override
    {
        EXPECT_EQ(ZOL_OK, zol::resendMessage(*poMsg, PROCESS, MANAGER, SERVER));
    }
};

class CCreated : public CZolTask
{
    void reqMsgProcess(const CZolMsgPdu *poMsg) override
    {
        answer(*poMsg);
        exitTask();
    }
};

class CServerMgr : public CZolTaskMgr
{
public:
    CServerMgr() : CZolTaskMgr(MANAGER, 2) {}
    CZolTask *createTask(CZolMsgPdu *) override { return new CCreated; }
};

class SendTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->initAppMgr(PROCESS, 0, true, "send", nullptr));
        auto *const poMgr = new CServerMgr;
        ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->addTaskMgr(poMgr));
        ASSERT_EQ(ZOL_OK, poMgr->addStaticTask(new CServer, SERVER));
        ASSERT_EQ(ZOL_OK, poMgr->addStaticTask(new CForwarder, FORWARD));
    }

    CInstallation m_oInstallation;
};

} // namespace

TEST_F(SendTest, CallsInAllFourForms)
{
    runApplication(
        []
        {
            CZolMsgPdu *poResponse = nullptr;
            ASSERT_EQ(ZOL_OK, zol::sendSyncReq(CMD_ECHO, "abc", 3, 5, poResponse, PROCESS, MANAGER, SERVER));
            EXPECT_EQ("abc", bodyOf(*poResponse));
            delete poResponse;

            const SNACC::AsnInt oForty(40);
            ASSERT_EQ(ZOL_OK, zol::sendSyncReq(CMD_ADD, &oForty, 5, poResponse, PROCESS, MANAGER, SERVER));
            SNACC::AsnInt oNumber;
            EXPECT_EQ(ZOL_OK, zol::decodeAsn(*poResponse, oNumber));
            EXPECT_EQ(41, static_cast<int>(oNumber));
            delete poResponse;

            SNACC::AsnInt oDecoded;
            ASSERT_EQ(ZOL_OK, zol::sendSyncReq(CMD_ADD, &oNumber, 5, oDecoded, PROCESS, MANAGER, SERVER));
            EXPECT_EQ(42, static_cast<int>(oDecoded));
            ASSERT_EQ(ZOL_OK, zol::sendSyncReq(CMD_ECHO, "\x02\x01\x07", 3, 5, oDecoded, PROCESS, MANAGER, 0));
            EXPECT_EQ(7, static_cast<int>(oDecoded)) << "task 0: a task was created for it";
        });
}

TEST_F(SendTest, TellsATimeOutFromOtherFailures)
{
    runApplication(
        []
        {
            CZolMsgPdu *poResponse = nullptr;
            EXPECT_EQ(ZOL_ERR_TIMEOUT,
                      zol::sendSyncReq(CMD_SILENT, nullptr, 0, 1, poResponse, PROCESS, MANAGER, SERVER));
            EXPECT_EQ(ZOL_ERR_NO_DEST, zol::sendSyncReq(CMD_ECHO, nullptr, 0, 1, poResponse, PROCESS, 77, SERVER));
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, zol::sendSyncReq(CMD_ECHO, nullptr, 0, 1, poResponse, 999, MANAGER, SERVER));
            EXPECT_EQ(nullptr, poResponse);
            SNACC::AsnInt oNumber;
            EXPECT_EQ(ZOL_ERR_NO_DEST, zol::sendSyncReq(CMD_ECHO, nullptr, 0, 1, oNumber, PROCESS, 77, SERVER));
            EXPECT_EQ(ZOL_ERR_DECODE, zol::sendSyncReq(CMD_ECHO, "junk", 4, 5, oNumber, PROCESS, MANAGER, SERVER));
            EXPECT_EQ(ZOL_ERR_DECODE, zol::sendSyncReq(CMD_ECHO, nullptr, 5, oNumber, PROCESS, MANAGER, SERVER));
        });
}

TEST_F(SendTest, ReportsEachRefusalInItsOwnWords)
{
    runApplication(
        []
        {
            SNACC::AsnInt oNumber(1);
            CZolMsgPdu *poResponse = nullptr;
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendReqMsg(1, &oNumber, 999, 1, 1));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendReqMsg(1, "x", 1, 999, 1, 1));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendBroadCast(1, &oNumber));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendBroadCast(1, "x", 1));
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, zol::sendSyncReq(1, &oNumber, 1, poResponse, 999, 1, 1));
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, zol::sendSyncReq(1, &oNumber, 1, oNumber, 999, 1, 1));
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, zol::sendSyncReq(1, "x", 1, 1, poResponse, 999, 1, 1));
            EXPECT_EQ(ZOL_ERR_INTERRUPTED, zol::sendSyncReq(1, "x", 1, 1, oNumber, 999, 1, 1));
            const std::unique_ptr<CZolMsgPdu> oRequest(zol::encodeReq(1, nullptr, 0, PROCESS, 1, 1));
            oRequest->m_usSrcSubModuleId = 5;
            EXPECT_EQ(ZOL_ERR_FAILED, zol::resendMessage(*oRequest, 999, 7, 33));
            oRequest->m_usSrcProcID = 999;
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendRespMsg(*oRequest, &oNumber));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendRespMsg(*oRequest, "x", 1));
            oRequest->m_usSrcProcID = PROCESS;
            oRequest->m_usSrcSubModuleId = 0;
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendRespMsg(*oRequest, &oNumber));
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendRespMsg(*oRequest, "x", 1));
            CZolRunLog::error("last line");
        });
    ASSERT_TRUE(waitUntil([&] { return countOf(m_oInstallation.logText(), "last line") == 1; }));
    const std::string strLog = m_oInstallation.logText();
    for (const char *pcLine : {
             " zol::sendReqMsg failed to send message to remote.\n",
             " zol::sendReqMsg2 failed to send message to remote.\n",
             " zol::sendBroadCast failed to send broadcast message.\n",
             " zol::sendBroadCast2 failed to send broadcast message.\n",
             " zol::sendSyncReq failed to send message to remote.\n",
             " zol::sendSyncReq2 failed to send message to remote.\n",
             " zol::sendSyncReq3 failed to send message to remote.\n",
             " zol::sendSyncReq4 failed to send message to remote.\n",
             " zol::resendMessage failed to send message to remote, procid: 999, taskmgr: 7, task: 33\n",
             " zol::sendRespMsg failed to send message to remote.\n",
             " zol::sendRespMsg2 failed to send message to remote.\n",
             " zol::sendRespMsg failed to encode zol message.\n",
             " zol::sendRespMsg2 failed to encode zol message.\n",
         })
    {
        EXPECT_EQ(1U, countOf(strLog, pcLine)) << pcLine;
    }
}

// The forwarder does not show: the answer goes from the server to the first sender, and so does the source of a note.
TEST_F(SendTest, ForwardsWithTheFirstSendersAddress)
{
    runApplication(
        []
        {
            CZolMsgPdu *poResponse = nullptr;
            ASSERT_EQ(ZOL_OK, zol::sendSyncReq(CMD_ECHO, "around", 6, 5, poResponse, PROCESS, MANAGER, FORWARD));
            EXPECT_EQ("around", bodyOf(*poResponse));
            EXPECT_EQ(SERVER, poResponse->m_usSrcSubModuleId);
            delete poResponse;

            CZolMsgPdu *poNote = zol::encodeReq(CMD_NOTE, "note", 4, PROCESS, MANAGER, FORWARD);
            poNote->m_ucSrcModule = 9;
            poNote->m_usSrcSubModuleId = 99;
            ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->sendAsynMsg(poNote));
            EXPECT_EQ(nullptr, poNote);
            EXPECT_TRUE(waitUntil([] { return notes().size() == 1; }));
            EXPECT_EQ("note from 9/99", notes().at(0));
        });
}

// Inside a handler the current task is the source, so that an answer would find it.
TEST_F(SendTest, NamesTheCurrentTaskAsTheSource)
{
    class CSender : public CZolTask
    {
        void timerCallBack(unsigned long ulTimerID) override
        {
            cancelTimer(ulTimerID);
            EXPECT_EQ(ZOL_OK, zol::sendReqMsg(CMD_NOTE, "hi", 2, PROCESS, MANAGER, SERVER));
        }
    };
    auto *const poMgr = new CZolTaskMgr(55, 1);
    auto *const poSender = new CSender;
    ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->addTaskMgr(poMgr));
    ASSERT_EQ(ZOL_OK, poMgr->addStaticTask(poSender, 17));
    ASSERT_NE(0U, poSender->setTimer(1));
    runApplication([] { EXPECT_TRUE(waitUntil([] { return !notes().empty(); })); });
    ASSERT_EQ(1U, notes().size());
    EXPECT_EQ("hi from 55/17", notes()[0]);
}

TEST_F(SendTest, AnswersDirectRequests)
{
    class CEcho : public CZolListener
    {
        int handleP2PMsg(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse) override
        {
            poResponse = zol::messageCopy(*poRequest);
            return 0;
        }
    };
    static CEcho oEcho;
    zol::setListener(oEcho);
    const unsigned short usPort = freePort();
    ASSERT_EQ(ZOL_OK, zol::bindPort(usPort));
    runApplication(
        [usPort]
        {
            CZolMsgPdu *poRequest = zol::encodeReq(1, "direct", 6, 0, 0, 0);
            CZolMsgPdu *poResponse = nullptr;
            ASSERT_EQ(ZOL_OK, zol::sendP2PMsg("127.0.0.1", usPort, poRequest, &poResponse, 5));
            EXPECT_EQ("direct", bodyOf(*poResponse));
            delete poResponse;

            poRequest = zol::encodeReq(1, nullptr, 0, 0, 0, 0);
            EXPECT_EQ(ZOL_OK, zol::sendP2PMsg(inet_addr("127.0.0.1"), usPort, poRequest, nullptr, 5)) << "one way";
            poRequest = zol::encodeReq(1, nullptr, 0, 0, 0, 0);
            EXPECT_EQ(ZOL_ERR_FAILED, zol::sendP2PMsg("127.0.0.1", freePort(), poRequest, &poResponse, 5))
                << "nobody there";
            poRequest = zol::encodeReq(1, nullptr, 0, 0, 0, 0);
            EXPECT_EQ(ZOL_OK, zol::sendP2PMsg(inet_addr("127.0.0.1"), usPort, poRequest, &poResponse,
                                              std::numeric_limits<int>::max()))
                << "a time-out that does not fit in milliseconds is a long one";
            delete poResponse;
        });
}

TEST(ControlTest, RefusesBeforeTheStart)
{
    const CInstallation oInstallation;
    EXPECT_EQ(ZOL_ERR_FAILED, zol::debugCmdResend());
    ASSERT_EQ(ZOL_OK, CZolAppMgr::instance()->initAppMgr(PROCESS, 0, false, "control", nullptr));
    EXPECT_EQ(ZOL_OK, zol::debugCmdResend());
    zol::setProcIDAndHandle(5, 6);
    EXPECT_EQ(5, CZolAppMgr::instance()->getProcID());
    EXPECT_EQ(6, CZolAppMgr::instance()->getProcHandle());
}
