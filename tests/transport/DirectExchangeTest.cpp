// Direct requests, from both sides: the client against a server made by hand, the server against a client made by hand,
// and both together.

#include "ZolListener.h"
#include "transport/TransportTest.h"
#include "transport/ZolAcceptorHandler.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdexcept>

using namespace zoltest;

namespace
{

enum EnumListenerCommand : unsigned int
{
    ECHO = 1,
    STAY_SILENT = 2,
    THROW = 3,
    LARGE = 4, // more than the kernel takes, whether the caller reads it or not
    HOLD = 5   // until the test lets it go
};

class CEcho : public CZolListener
{
public:
    int handleP2PMsg(CZolMsgPdu *poRequest, CZolMsgPdu *&poResponse) override
    {
        if (poRequest->m_ulCmdID == THROW)
        {
            throw std::runtime_error("out of sorts");
        }
        if (poRequest->m_ulCmdID == HOLD)
        {
            const std::lock_guard<std::mutex> oPass(m_oGate);
        }
        if (poRequest->m_ulCmdID != STAY_SILENT)
        {
            const std::string strBody =
                poRequest->m_ulCmdID == LARGE ? std::string(2 * kernelBuffers(), 'l') : bodyOf(*poRequest);
            poResponse = newMessage(9, 1, poRequest->m_ulCmdID, strBody, CZolMsgPdu::MSG_RESPONSE);
        }
        return 0;
    }

    std::mutex m_oGate;
};

class DirectExchangeTest : public TransportTest
{
protected:
    // One exchange with the port usPort of this machine.
    static int exchange(unsigned short usPort, CZolMsgPdu *poRequest, std::string *pstrBody, int iConn = 60000,
                        int iRecv = 60000)
    {
        CZolMsgPdu *poResponse = nullptr;
        const int iResult = CZolConnMgr::instance()->sendP2PMsg(
            htonl(INADDR_LOOPBACK), usPort, poRequest, pstrBody != nullptr ? &poResponse : nullptr, iConn, iRecv);
        EXPECT_EQ(nullptr, poRequest);
        EXPECT_EQ(pstrBody != nullptr && iResult == 0, poResponse != nullptr);
        if (poResponse != nullptr)
        {
            *pstrBody = bodyOf(*poResponse);
            delete poResponse;
        }
        return iResult;
    }

    static CZolMsgPdu *request(unsigned int uiCmd, const std::string &strBody = "")
    {
        return newMessage(9, 1, uiCmd, strBody);
    }

    // An exchange against a server that does fnServe with the connection that comes.
    static int exchangeWith(const std::function<void(CRawPipe &)> &fnServe, std::string *pstrBody, int iRecv = 60000)
    {
        CRawListener oListener;
        std::thread oServer(
            [&]
            {
                CRawPipe oPipe = oListener.accept();
                fnServe(oPipe);
            });
        const int iResult = exchange(oListener.port(), request(ECHO, "question"), pstrBody, 60000, iRecv);
        oServer.join();
        return iResult;
    }

    void serveListener(const std::function<void()> &fnBody)
    {
        ASSERT_EQ(0, start());
        listen();
        CZolConnMgr::instance()->setListener(&m_oListener);
        run(fnBody);
    }

    CEcho m_oListener;
};

} // namespace

TEST_F(DirectExchangeTest, CarriesBodiesOfEverySizeBothWays)
{
    serveListener(
        [&]
        {
            for (const std::size_t uiLength : {0U, 1U, 8188U, 100000U, 5000000U})
            {
                const std::string strBody = pattern(uiLength);
                std::string strAnswer;
                EXPECT_EQ(ZOL_OK, exchange(m_usPort, request(ECHO, strBody), &strAnswer));
                EXPECT_TRUE(strAnswer == strBody) << uiLength << " bytes";
            }
            EXPECT_EQ(ZOL_OK, exchange(m_usPort, request(ECHO, "one way"), nullptr));
        });
}

TEST_F(DirectExchangeTest, FailsWhenTheListenerDoesNotAnswer)
{
    serveListener(
        [&]
        {
            std::string strAnswer;
            EXPECT_EQ(ZOL_ERR_FAILED, exchange(m_usPort, request(STAY_SILENT), &strAnswer));
            EXPECT_EQ(ZOL_ERR_FAILED, exchange(m_usPort, request(THROW), &strAnswer));
            EXPECT_TRUE(logHas("out of sorts"));
            EXPECT_EQ(ZOL_OK, exchange(m_usPort, request(ECHO), &strAnswer));
            CZolConnMgr::instance()->setListener(nullptr);
            EXPECT_EQ(ZOL_ERR_FAILED, exchange(m_usPort, request(ECHO), &strAnswer));
            EXPECT_TRUE(logHas("CZolConnMgr::recvP2PMsg there is no P2P listener."));
        });
}

TEST_F(DirectExchangeTest, RefusesWrongArguments)
{
    ASSERT_EQ(0, start());
    CZolConnMgr *poMgr = CZolConnMgr::instance();
    CZolMsgPdu *poNone = nullptr;
    EXPECT_EQ(ZOL_ERR_FAILED, poMgr->sendP2PMsg(htonl(INADDR_LOOPBACK), 1, poNone, nullptr, 1, 1));
    CZolMsgPdu *poKept = request(ECHO);
    EXPECT_EQ(ZOL_ERR_FAILED, poMgr->sendP2PMsg(htonl(INADDR_LOOPBACK), 1, poKept, nullptr, -1, 1));
    EXPECT_EQ(ZOL_ERR_FAILED, poMgr->sendP2PMsg(htonl(INADDR_LOOPBACK), 1, poKept, nullptr, 1, -1));
    ASSERT_NE(nullptr, poKept) << "refused arguments leave the request with the caller";
    delete poKept;
    CZolMsgPdu *poResponse = newMessage(9, 1, 1, "", CZolMsgPdu::MSG_RESPONSE);
    EXPECT_EQ(ZOL_ERR_FAILED, exchange(1, poResponse, nullptr));
    EXPECT_TRUE(logHas("the inputting message is not a request package."));
    EXPECT_EQ(2U, logCount("the inputting parameter is invalid.") - 1);
}

TEST_F(DirectExchangeTest, TellsTimeOutsFromFailures)
{
    ASSERT_EQ(0, start());
    std::string strAnswer;
    const unsigned short usClosed = freePort();
    EXPECT_EQ(ZOL_ERR_FAILED, exchange(usClosed, request(ECHO), &strAnswer));
    EXPECT_TRUE(logHas("connect to remote (16777343: " + std::to_string(usClosed) + ") failed, error: 111, "));
    const CRawListener oSilent;
    EXPECT_EQ(ZOL_ERR_TIMEOUT, exchange(oSilent.port(), request(ECHO), &strAnswer, 0, 100)) << "no time to connect";
    EXPECT_EQ(ZOL_ERR_TIMEOUT, exchange(oSilent.port(), request(ECHO), &strAnswer, 1500, 0)) << "no time to read";
    EXPECT_EQ(ZOL_ERR_TIMEOUT, exchange(oSilent.port(), request(ECHO), &strAnswer, 1500, 50));
    EXPECT_EQ(ZOL_OK, exchange(oSilent.port(), request(ECHO), nullptr, 1500, 0)) << "one way: sent is all";
    // more than two socket buffers take, to a peer that reads nothing
    EXPECT_EQ(ZOL_ERR_TIMEOUT,
              exchange(oSilent.port(), request(ECHO, std::string(2 * kernelBuffers(), 'x')), nullptr, 300, 0));
    EXPECT_TRUE(logHas("send msg to remote (16777343: " + std::to_string(oSilent.port()) + ") failed, error: 62, "));
}

TEST_F(DirectExchangeTest, LimitsTheAnswerByLengthAndTime)
{
    ASSERT_EQ(0, start());
    SFrame oAnswer = toSink(ECHO, "answer");
    oAnswer.m_ucType = 77; // nothing of it is checked but the length
    std::string strAnswer;
    for (const std::size_t uiCut : {0U, 27U, 28U, 33U, 34U})
    {
        const int iResult = exchangeWith(
            [&](CRawPipe &oPipe)
            {
                SFrame oRequest;
                EXPECT_TRUE(oPipe.readFrame(oRequest)); // unread, it would tear the connection
                oPipe.send(oAnswer.wire().substr(0, uiCut));
            },
            &strAnswer);
        EXPECT_EQ(uiCut == 34U ? ZOL_OK : ZOL_ERR_FAILED, iResult) << "cut at " << uiCut;
    }
    oAnswer.body("");
    const auto fnAnnounce = [&](unsigned int uiLength, int iRecv)
    {
        oAnswer.m_ulData = uiLength;
        return exchangeWith(
            [&](CRawPipe &oPipe)
            {
                SFrame oRequest;
                EXPECT_TRUE(oPipe.readFrame(oRequest));
                oPipe.send(oAnswer.wire());
                oPipe.waitClosed();
            },
            &strAnswer, iRecv);
    };
    EXPECT_EQ(ZOL_ERR_FAILED, fnAnnounce(536608769, 60000));
    EXPECT_TRUE(logHas("the message data size (536608769) is too big, which was received from (16777343: "));
    EXPECT_EQ(ZOL_ERR_TIMEOUT, fnAnnounce(536608768, 300)) << "announced at the limit, and never sent";
    // dripped: the limit is for the whole of it
    EXPECT_EQ(ZOL_ERR_TIMEOUT, exchangeWith(
                                   [&](CRawPipe &oPipe)
                                   {
                                       oAnswer.m_ulData = 1000;
                                       oPipe.send(oAnswer.wire());
                                       while (oPipe.send("x") && !oPipe.waitClosed(Milliseconds(20)))
                                       {
                                       }
                                   },
                                   &strAnswer, 300));
}

// A client that does not read its answer holds up the next direct request for a while, but nobody who opens a pipe.
TEST_F(DirectExchangeTest, RegistersPeersWhileAnAnswerIsNotRead)
{
    serveListener(
        [&]
        {
            CRawPipe oDeaf = CRawPipe::connectTo(m_usPort);
            ASSERT_TRUE(oDeaf.send(toSink(LARGE).wire()));
            ASSERT_EQ(1U, oDeaf.read(1).size()); // the answer is on its way, and stops there
            for (unsigned short usHandle = 1; usHandle <= 3; ++usHandle)
            {
                CRawPipe oPeer = peer(9, usHandle);
                ASSERT_TRUE(oPeer.send(toSink(usHandle).wire()));
                ASSERT_TRUE(m_oInbox.waitFor(usHandle));
            }
            EXPECT_EQ(0U, logCount("send response msg failed.")) << "nobody else waits for it to end";
            std::string strAnswer;
            EXPECT_EQ(ZOL_OK, exchange(m_usPort, request(ECHO, "next"), &strAnswer));
            EXPECT_TRUE(logHas("CZolAcceptorHandler::sendP2PResponse send response msg failed."));
        });
}

// Large requests wait with their senders while the listener is busy; small ones come in, and all are answered.
TEST_F(DirectExchangeTest, LeavesUnreadWhatItHasNoRoomFor)
{
    constexpr std::size_t LARGE_BODY = 50000;
    CZolP2PDesk &oDesk = CZolP2PDesk::instance();
    oDesk.setBytesBesidesLargest(LARGE_BODY + LARGE_BODY / 2);
    serveListener(
        [&]
        {
            std::unique_lock<std::mutex> oClosed(m_oListener.m_oGate);
            std::vector<std::thread> oClients;
            const auto fnClient = [&](unsigned int uiCmd, std::size_t uiBody)
            {
                oClients.emplace_back(
                    [=]
                    {
                        std::string strAnswer;
                        EXPECT_EQ(ZOL_OK, exchange(m_usPort, request(uiCmd, std::string(uiBody, 'b')), &strAnswer,
                                                   60000, 60000));
                        EXPECT_EQ(uiBody, strAnswer.size());
                    });
            };
            fnClient(HOLD, 0);
            EXPECT_TRUE(waitUntil([&] { return oDesk.countInHand() == 1; })) << "the others could be answered first";
            for (int i = 0; i < 5; ++i)
            {
                fnClient(ECHO, LARGE_BODY);
            }
            // one of them, and another beside it
            EXPECT_TRUE(waitUntil([&] { return oDesk.countWaiting() == 3; }));
            fnClient(ECHO, 1);
            EXPECT_TRUE(waitUntil([&] { return oDesk.countInHand() == 4; })) << "a small one had to wait as well";
            EXPECT_EQ(3U, oDesk.countWaiting());
            oClosed.unlock();
            for (std::thread &oClient : oClients)
            {
                oClient.join();
            }
            EXPECT_TRUE(waitUntil([&] { return oDesk.countInHand() == 0; }));
        });
}

// What is in hand decides what may come in beside it.
TEST_F(DirectExchangeTest, AdmitsOneOfAnySizeBesideSmallOnes)
{
    constexpr std::uint32_t MOST = 536608768;
    constexpr std::uint32_t BESIDES = CZolP2PDesk::BYTES_BESIDES_LARGEST;
    const struct
    {
        std::vector<std::uint32_t> m_oInHand;
        std::uint32_t m_uiNext;
        CZolP2PDesk::EnumAdmission m_eExpected;
    } aCases[] = {
        {{}, MOST, CZolP2PDesk::ADMITTED},
        {{BESIDES}, MOST, CZolP2PDesk::ADMITTED},
        {{BESIDES, 1}, MOST, CZolP2PDesk::WAITING},
        {{MOST}, BESIDES, CZolP2PDesk::ADMITTED},
        {{MOST}, BESIDES + 1, CZolP2PDesk::WAITING},
        {{MOST, BESIDES}, 0, CZolP2PDesk::ADMITTED},
        {{MOST, BESIDES}, 1, CZolP2PDesk::WAITING},
        {std::vector<std::uint32_t>(CZolP2PDesk::MAX_REQUESTS, 0), 0, CZolP2PDesk::REFUSED},
    };
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(&oCase - aCases);
        CZolP2PDesk oDesk;
        CZolMsgPdu oHeader;
        for (const std::uint32_t uiInHand : oCase.m_oInHand)
        {
            oHeader.m_ulDataLength = uiInHand;
            ASSERT_EQ(CZolP2PDesk::ADMITTED, oDesk.admit(CZolConnRef(), oHeader));
        }
        oHeader.m_ulDataLength = oCase.m_uiNext;
        ASSERT_EQ(oCase.m_eExpected, oDesk.admit(CZolConnRef(), oHeader));
        EXPECT_FALSE(oDesk.hasToWake());
        for (const std::uint32_t uiInHand : oCase.m_oInHand)
        {
            oDesk.end(uiInHand);
        }
        EXPECT_EQ(oCase.m_eExpected == CZolP2PDesk::WAITING, oDesk.hasToWake());
        CZolConnRef oConn;
        EXPECT_EQ(oCase.m_eExpected == CZolP2PDesk::WAITING, oDesk.next(oConn, oHeader));
    }
}
