// The debug commands of task manager 254, as any peer may send them.

#include "task/TaskFixture.h"

#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using namespace zoltest;

namespace
{

constexpr unsigned char BUILT_IN = 254;

class InlineTaskTest : public CTaskTest
{
protected:
    /// The payload of the answer to a command; "none" if none comes.
    static std::string command(unsigned int uiCmd, const std::string &strBody, int iSeconds = 10)
    {
        CZolMsgPdu *poRequest = makeMsg(CZolMsgPdu::MSG_REQUEST, BUILT_IN, 0, uiCmd, strBody);
        CZolMsgPdu *poResponse = nullptr;
        if (app().sendSynMsg(poRequest, poResponse, iSeconds) != ZOL_OK)
        {
            return "none";
        }
        const std::unique_ptr<CZolMsgPdu> oResponse(poResponse);
        EXPECT_EQ(uiCmd, oResponse->m_ulCmdID);
        EXPECT_EQ(BUILT_IN, oResponse->m_ucSrcModule);
        EXPECT_EQ(0, oResponse->m_usSrcSubModuleId);
        return {zolPayload(poResponse), poResponse->m_ulDataLength};
    }

    static std::string word(unsigned int uiValue)
    {
        return {static_cast<char>(uiValue >> 24), static_cast<char>(uiValue >> 16), static_cast<char>(uiValue >> 8),
                static_cast<char>(uiValue)};
    }
};

const std::string OK(4, '\0');
const std::string BAD_ARGUMENT = "\xFF\xFF\xFF\xFE";
const std::string NO_FILE = "\xFF\xFF\xFF\xF5";

} // namespace

TEST_F(InlineTaskTest, ReadsAndSetsTheLogLevel)
{
    start();
    EXPECT_EQ(OK + word(4), command(MSG_GET_LOG_LEVEL_CMDID, ""));
    const struct
    {
        const char *pcName;
        std::string strBody;
        std::string strResult;
        unsigned int uiLevel;
    } aCases[] = {
        {"debug", word(5), OK, 5},
        {"nothing", "", BAD_ARGUMENT, 5},
        {"too short", "\x02", BAD_ARGUMENT, 5},
        {"too long", word(0) + word(0), BAD_ARGUMENT, 5},
        {"above all", word(6), BAD_ARGUMENT, 5},
        {"below all", word(0xFFFFFFFF), BAD_ARGUMENT, 5},
        {"host order", std::string("\x03\0\0\0", 4), BAD_ARGUMENT, 5},
        {"off", word(0), OK, 0},
        {"info", word(4), OK, 4},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        EXPECT_EQ(oCase.strResult, command(MSG_SET_LOG_LEVEL_CMDID, oCase.strBody));
        EXPECT_EQ(OK + word(oCase.uiLevel), command(MSG_GET_LOG_LEVEL_CMDID, "not looked at"));
    }
}

TEST_F(InlineTaskTest, AppendsDumpsToAFile)
{
    start();
    const std::string strFile = m_oInstallation.root() + "/dump";
    EXPECT_EQ(OK, command(MSG_PRINT_VARIABLE_CMDID, strFile));
    const std::string strOnce = readFile(strFile);
    EXPECT_EQ(0U, strOnce.find("=== Zolvane Memory Dump ===\n\nCZolTaskMgr: 254\n    taskid = "));
    EXPECT_NE(std::string::npos, strOnce.find("\nCZolSendMsgTask.m_oMsgList:\n"));
    EXPECT_EQ(strOnce.size() - strlen("\n=== Zolvane Memory Dump Finished ===\n\n"),
              strOnce.find("\n=== Zolvane Memory Dump Finished ===\n\n"));
    EXPECT_EQ(OK, command(MSG_PRINT_VARIABLE_CMDID, strFile));
    EXPECT_EQ(2U, countOf(readFile(strFile), "=== Zolvane Memory Dump ===\n"));
    EXPECT_EQ(0U, readFile(strFile).find(strOnce));
    EXPECT_TRUE(logged("CZolInlineTask::printVariable ZOL variables has exported successfully.\n"));
}

// The name comes from a peer: nothing that it names may block the thread or be overwritten.
TEST_F(InlineTaskTest, RefusesWhatIsNoFile)
{
    start();
    const std::string strRoot = m_oInstallation.root();
    ASSERT_EQ(0, mkfifo((strRoot + "/fifo").c_str(), 0600));
    const struct
    {
        const char *pcName;
        std::string strFile;
        std::string strResult;
    } aCases[] = {
        {"no name", "", BAD_ARGUMENT},
        {"a folder that is not there", strRoot + "/none/dump", NO_FILE},
        {"a folder", strRoot, NO_FILE},
        {"a pipe without a reader", strRoot + "/fifo", NO_FILE},
        {"a NUL in the name", strRoot + "/du" + std::string(1, '\0') + "mp", NO_FILE},
        {"a name that is too long", strRoot + "/" + std::string(5000, 'x'), NO_FILE},
        {"a device that takes nothing", "/dev/full", OK},
        {"a device that takes all", "/dev/null", OK},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        EXPECT_EQ(oCase.strResult, command(MSG_PRINT_VARIABLE_CMDID, oCase.strFile));
    }
    EXPECT_NE(0, access((strRoot + "/du").c_str(), F_OK));
}

TEST_F(InlineTaskTest, PassesSuccessfulDumpsOnWhenTold)
{
    CTrace oTrace;
    add(new CScriptedMgr(0, 1,
                         [&](CZolMsgPdu *)
                         {
                             return new CScriptedTask(
                                 [&](CZolTask &oTask, const CZolMsgPdu &oMsg)
                                 {
                                     oTrace.add(std::string(zolPayload(&oMsg), oMsg.m_ulDataLength));
                                     sendLocal(makeAnswer(oMsg, oMsg.m_ulCmdID));
                                     oTask.exitTask();
                                 });
                         }));
    start();
    ASSERT_EQ(ZOL_OK, zol::debugCmdResend());
    const std::string strFile = m_oInstallation.root() + "/dump";
    CZolMsgPdu *poRequest = makeMsg(CZolMsgPdu::MSG_REQUEST, BUILT_IN, 0, MSG_PRINT_VARIABLE_CMDID, strFile);
    CZolMsgPdu *poResponse = nullptr;
    EXPECT_EQ(ZOL_OK, app().sendSynMsg(poRequest, poResponse, 10));
    ASSERT_NE(nullptr, poResponse);
    EXPECT_EQ(0U, poResponse->m_ulDataLength) << "the application's answer";
    delete poResponse;
    EXPECT_EQ((std::vector<std::string>{strFile}), oTrace.events());
    EXPECT_EQ(NO_FILE, command(MSG_PRINT_VARIABLE_CMDID, "/none/dump")) << "a failed one is answered at once";
    EXPECT_EQ(1U, oTrace.events().size());
    EXPECT_TRUE(logged("CZolInlineTask::printVariable The debug message has been resend to taskmgr 0.\n"));
}

TEST_F(InlineTaskTest, LosesAResentDumpWithoutAManagerForIt)
{
    start();
    ASSERT_EQ(ZOL_OK, zol::debugCmdResend());
    EXPECT_EQ("none", command(MSG_PRINT_VARIABLE_CMDID, m_oInstallation.root() + "/dump", 1));
    EXPECT_EQ(OK + word(4), command(MSG_GET_LOG_LEVEL_CMDID, ""));
}

// The address of a direct request never comes from outside: whatever a peer puts there is not followed.
TEST_F(InlineTaskTest, FollowsNoForgedAddress)
{
    CZolRunLog::logLevel(CZolRunLog::LEVEL_DEBUG);
    start();
    const std::string strMark(256, 'A');
    const char *pcReal = strMark.data();
    for (const std::string &strBody : {std::string(), std::string(4, 'A'), std::string(8, 'A'), std::string(8, '\0'),
                                       std::string(reinterpret_cast<const char *>(&pcReal), 8), std::string(9, 'A')})
    {
        SCOPED_TRACE(strBody.size());
        sendLocal(makeMsg(CZolMsgPdu::MSG_REQUEST, BUILT_IN, 0, MSG_DIRECT_REQUEST_CMDID, strBody));
        EXPECT_EQ(OK + word(5), command(MSG_GET_LOG_LEVEL_CMDID, "")) << "the one thread goes on";
    }
    EXPECT_TRUE(
        waitUntil([&] { return countOf(m_oInstallation.logText(), "receive a unknown command code: 65540\n") == 6; }));
    sendLocal(makeMsg(CZolMsgPdu::MSG_REQUEST, BUILT_IN, 0, 0x10005));
    EXPECT_TRUE(logged("CZolInlineTaskMgr::createTask receive a unknown command code: 65541\n"));
    EXPECT_EQ("CZolTaskMgr: 254\n", app().findTaskMgr(BUILT_IN)->dumpAllTask());
}
