// The table of pipes, its poll and the subscriptions, without a process: ends of socket pairs for pipes, and a clock
// that the test moves.

#include "transport/TransportTest.h"
#include "transport/ZolPipePoll.h"
#include "transport/ZolSubscriptions.h"

#include <map>
#include <sys/socket.h>

using namespace zoltest;

namespace
{

using Type = CZolConnection::EnumPipeType;

class PipeTableTest : public BareTest
{
protected:
    // Gives a connection a socket, whose other end is kept here.
    void open(const CZolConnRef &oConn)
    {
        int aiEnds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, aiEnds));
        oConn->getStream().set_handle(aiEnds[0]);
        oConn->setPipeStatus(true);
        m_oFarEnds[oConn.get()] = CRawPipe(aiEnds[1]);
    }

    CZolConnRef add(Type eType, unsigned short usProc = 0, unsigned short usHandle = 0)
    {
        const CZolConnRef oConn = CZolConnRef::adopt(new CZolConnection(eType));
        open(oConn);
        oConn->setOppProc(usProc, usHandle);
        m_oTable.add(oConn, true);
        return oConn;
    }

    CZolConnRef choose(unsigned short usProc, unsigned short usHandle, unsigned char ucType = 1)
    {
        const std::unique_ptr<CZolMsgPdu> poPdu(newMessage(usProc, usHandle, 0, "", ucType));
        return m_oTable.choose(*poPdu);
    }

    // One cycle lSeconds after the last one.
    void cycle(long lSeconds)
    {
        m_lNow += lSeconds;
        m_oHellos.clear();
        m_oReconnected.clear();
        m_oDead.clear();
        m_oPoll.run(m_oReconnected, m_oDead, m_lNow, m_lLastPoll);
    }

    int subscribe(unsigned int uiCmd, unsigned char ucModule, unsigned short usTask) override
    {
        m_oReplayed.push_back({uiCmd, ucModule, usTask});
        return uiCmd == 20 ? m_iResultOf20 : ZOL_OK;
    }

    std::map<CZolConnection *, CRawPipe> m_oFarEnds;
    CZolPipeTable m_oTable;
    long m_lNow = 1000000;
    long m_lLastPoll = 0;
    std::vector<unsigned int> m_oHellos; // process ids
    std::vector<CZolConnRef> m_oTried, m_oReconnected;
    std::vector<SZolPipeLife> m_oDead;
    CZolPipePoll m_oPoll{m_oTable,
                         {[this] { return m_bRunning; },
                          [this](unsigned short usProc, unsigned short) { m_oHellos.push_back(usProc); },
                          [this](const std::vector<CZolConnRef> &oDown)
                          {
                              m_oTried = oDown;
                              return std::vector<CZolConnRef>{oDown.back()};
                          }},
                         m_lNow};
    std::vector<std::vector<unsigned int>> m_oReplayed;
    int m_iResultOf20 = ZOL_OK;
};

} // namespace

TEST_F(PipeTableTest, PrefersADirectPipeAndFallsBackToTheGateway)
{
    EXPECT_FALSE(choose(9, 1));
    EXPECT_FALSE(m_oTable.isConnected(9, 1));
    const CZolConnRef oGateway = add(Type::CONN_VEK);
    const CZolConnRef oDirect = add(Type::CONN_PASSIVE, 9, 1);
    EXPECT_EQ(oDirect.get(), choose(9, 1).get());
    EXPECT_EQ(oGateway.get(), choose(9, 0).get()) << "handle 0 is another key";
    EXPECT_EQ(oGateway.get(), choose(10, 1).get());
    EXPECT_EQ(oDirect.get(), choose(9, 1, 10).get());
    for (unsigned char ucType = 11; ucType <= 15; ++ucType)
    {
        EXPECT_EQ(oGateway.get(), choose(9, 1, ucType).get()) << int(ucType);
    }
    oGateway->setPipeStatus(false);
    EXPECT_TRUE(m_oTable.isConnected(9, 1));
    EXPECT_FALSE(m_oTable.isConnected(9, 0));
    EXPECT_EQ(oGateway.get(), choose(9, 0).get()) << "there is no other way";
    oDirect->setPipeStatus(false);
    EXPECT_EQ(oGateway.get(), choose(9, 1).get());
    EXPECT_FALSE(m_oTable.isConnected(9, 1));
}

// A peer's pipe is forgotten with its key; one of our own keeps it and comes back under its new descriptor.
TEST_F(PipeTableTest, KeepsWhatThisProcessOpened)
{
    const CZolConnRef oPassive = add(Type::CONN_PASSIVE, 9, 1);
    const CZolConnRef oOwn = add(Type::CONN_INITIATIVE, 8, 1);
    const std::uint64_t ulVersion = m_oTable.getVersion();
    m_oTable.close(oPassive.get(), oPassive->getLife() + 1);
    EXPECT_TRUE(oPassive->getPipeStatus()) << "closed for another life";
    ACE_HANDLE oOldHandle = oPassive->getHandle();
    m_oTable.close(oPassive.get(), oPassive->getLife());
    m_oTable.close(oOwn->getHandle());
    for (const CZolConnRef &oConn : {oPassive, oOwn})
    {
        EXPECT_FALSE(oConn->getPipeStatus());
        EXPECT_TRUE(m_oFarEnds[oConn.get()].waitClosed());
        m_oTable.close(oConn.get(), oConn->getLife()); // once more is no harm
    }
    EXPECT_LT(ulVersion, m_oTable.getVersion());
    EXPECT_FALSE(m_oTable.find(9, 1));
    EXPECT_EQ(oOwn.get(), m_oTable.find(8, 1).get());
    EXPECT_FALSE(m_oTable.find(oOldHandle));
    EXPECT_EQ(0U, logCount("can not find connection by handle.")) << "an error line for a close of our own";
    EXPECT_FALSE(m_oTable.find(65000));
    EXPECT_TRUE(logHas("CZolConnection::findConnection can not find connection by handle. Handle: 65000"));
    EXPECT_FALSE(m_oTable.rekey(oOwn.get())) << "it is still down";
    open(oOwn);
    EXPECT_TRUE(m_oTable.rekey(oOwn.get()));
    EXPECT_FALSE(m_oTable.rekey(oOwn.get())) << "entered twice";
    EXPECT_EQ(oOwn.get(), m_oTable.find(oOwn->getHandle()).get());
    EXPECT_EQ("\nzOL Connection List: \n    OppProcID: 8, OppProcHandle: 1, PipeType: 1, OppAddr: 0.0.0.0, "
              "OppPortNumber: 0, PipeStatus: 1\n",
              m_oTable.dump());
}

// A key that a pipe of our own has taken meanwhile is not taken from it by the end of its former owner.
TEST_F(PipeTableTest, LeavesTheKeyToItsLastOwner)
{
    const CZolConnRef oPassive = add(Type::CONN_PASSIVE, 9, 1);
    const CZolConnRef oOwn = add(Type::CONN_INITIATIVE, 9, 1);
    m_oTable.close(oPassive.get(), oPassive->getLife());
    EXPECT_EQ(oOwn.get(), m_oTable.find(9, 1).get());
    m_oTable.removeGateway(); // there is none
    const CZolConnRef oGateway = add(Type::CONN_VEK);
    m_oTable.removeGateway();
    EXPECT_TRUE(m_oFarEnds[oGateway.get()].waitClosed());
    EXPECT_FALSE(m_oTable.find(0, 0));
    EXPECT_EQ(1U, m_oTable.getAll().size());
}

TEST_F(PipeTableTest, EntersNothingThatWasNotAnswered)
{
    const CZolConnRef oConn = CZolConnRef::adopt(new CZolConnection(Type::CONN_PASSIVE));
    open(oConn);
    EXPECT_EQ(-1, m_oTable.addAnswered(oConn, 9, 1, [] { return -1; }));
    EXPECT_FALSE(m_oTable.find(9, 1));
    const std::uint64_t ulVersion = m_oTable.getVersion();
    EXPECT_EQ(0, m_oTable.addAnswered(oConn, 9, 1,
                                      [&]
                                      {
                                          EXPECT_LT(ulVersion, m_oTable.getVersion()) << "kept answers outlive it";
                                          return 0;
                                      }));
    EXPECT_EQ(oConn.get(), m_oTable.find(9, 1).get());
    EXPECT_EQ(oConn.get(), m_oTable.find(oConn->getHandle()).get());
}

// The hello goes to the first active pipe, once in a period for the whole process; a passive end never begins.
TEST_F(PipeTableTest, SendsOneHelloInAPeriod)
{
    using Procs = std::vector<unsigned int>;
    add(Type::CONN_PASSIVE, 9, 1);
    const CZolConnRef oGateway = add(Type::CONN_VEK);
    add(Type::CONN_INITIATIVE, 8, 1);
    const struct
    {
        long lSeconds;
        Procs oHellos;
    } aSteps[] = {
        {0, {}},      {20, {}}, {39, {}}, {1, {0}}, {59, {}}, {1, {0}}, // 60 s after the start, and after the last
        {-3600, {0}}, {20, {}}, // a clock set back does not end the hellos for an hour
    };
    for (const auto &oStep : aSteps)
    {
        cycle(oStep.lSeconds);
        EXPECT_EQ(oStep.oHellos, m_oHellos) << "step " << &oStep - aSteps;
    }
    m_oTable.close(oGateway.get(), oGateway->getLife());
    cycle(60);
    EXPECT_EQ(Procs{8}, m_oHellos);
}

TEST_F(PipeTableTest, FindsSilentPipesByATrustedClock)
{
    const struct
    {
        const char *pcName;
        long lSeconds; // since the last cycle
        long lSilence;
        bool bRunning;
        bool bDead;
        bool bStamped;
    } aSteps[] = {
        {"the first cycle", 0, 500, true, false, true},        {"short of the limit", 20, 179, true, false, false},
        {"at the limit", 20, 180, true, true, false},          {"a clock set forward", 7200, 500, true, false, true},
        {"trusted again", 59, 500, true, true, false},         {"a slow cycle", 60, 500, true, false, true},
        {"a clock set back", -3600, 500, true, false, true},   {"the same second", 0, 500, true, false, true},
        {"received in the future", 20, -1, true, false, true}, {"nobody reads", 20, 500, false, false, false},
    };
    const CZolConnRef oConn = add(Type::CONN_PASSIVE, 9, 1);
    for (const auto &oStep : aSteps)
    {
        SCOPED_TRACE(oStep.pcName);
        m_bRunning = oStep.bRunning;
        const long lLast = m_lNow + oStep.lSeconds - oStep.lSilence;
        oConn->setLastRecvTime(lLast);
        cycle(oStep.lSeconds);
        ASSERT_EQ(oStep.bDead ? 1U : 0U, m_oDead.size());
        EXPECT_EQ(oStep.bStamped ? m_lNow : lLast, oConn->getLastRecvTime());
    }
    EXPECT_EQ(4U,
              logCount("CZolConnMgr::pollConnectons the system time maybe had been adjusted, the last poll time: "));
}

TEST_F(PipeTableTest, TriesAllThatAreDownAtOnce)
{
    std::vector<CZolConnRef> oOwn{add(Type::CONN_VEK), add(Type::CONN_INITIATIVE, 8, 1),
                                  add(Type::CONN_INITIATIVE, 7, 1)};
    cycle(0);
    EXPECT_TRUE(m_oTried.empty());
    const CZolConnRef oPassive = add(Type::CONN_PASSIVE, 9, 1);
    for (const CZolConnRef &oConn : {oOwn[0], oOwn[1], oPassive})
    {
        m_oTable.close(oConn.get(), oConn->getLife());
    }
    cycle(20);
    ASSERT_EQ(2U, m_oTried.size());
    ASSERT_EQ(1U, m_oReconnected.size());
    EXPECT_EQ(m_oTried.back().get(), m_oReconnected[0].get());
}

TEST_F(PipeTableTest, ReplaysSubscriptionsInOrder)
{
    CZolSubscriptions oSubscriptions;
    for (const unsigned int uiCmd : {30U, 10U, 20U, 10U, 40U})
    {
        oSubscriptions.add(uiCmd, 1, 1);
    }
    oSubscriptions.add(10, 200, 60000);
    oSubscriptions.remove(40, 1, 1);
    oSubscriptions.remove(50, 1, 1);
    const decltype(m_oReplayed) oAll{{10, 1, 1}, {10, 200, 60000}, {20, 1, 1}, {30, 1, 1}};
    const struct
    {
        int iResult;
        bool bStop;
        std::size_t uiExpected;
    } aCases[] = {{ZOL_OK, true, 4}, {ZOL_ERR_TIMEOUT, true, 4}, {ZOL_ERR_STAGE, true, 3}, {ZOL_ERR_STAGE, false, 4}};
    for (const auto &oCase : aCases)
    {
        m_oReplayed.clear();
        m_iResultOf20 = oCase.iResult;
        oSubscriptions.replay(*this, oCase.bStop);
        EXPECT_EQ(decltype(m_oReplayed)(oAll.begin(), oAll.begin() + static_cast<long>(oCase.uiExpected)), m_oReplayed);
    }
}
