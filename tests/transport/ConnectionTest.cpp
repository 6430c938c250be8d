// The active end of a pipe: the register exchange, its refusals and its limits, and the life of a connection.

#include "transport/TransportTest.h"
#include "transport/ZolConnection.h"
#include "transport/ZolSocket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

using namespace zoltest;

namespace
{

class ConnectionTest : public TransportTest
{
protected:
    // Runs connect() against a listener that does fnServe with the connection that comes.
    int connectTo(const std::function<void(CRawListener &)> &fnServe,
                  CZolConnection::EnumPipeType eType = CZolConnection::CONN_INITIATIVE)
    {
        CRawListener oListener;
        m_oConn = CZolConnRef::adopt(new CZolConnection(eType, "127.0.0.1", oListener.port()));
        std::thread oServer([&] { fnServe(oListener); });
        const int iResult = m_oConn->connect();
        oServer.join();
        return iResult;
    }

    // The request of a process that started in one of the three modes.
    void expectRegister(unsigned short usHandle, bool bNoHandle, const std::string &strHandles,
                        const std::string &strBody);

    CZolConnRef m_oConn;
};

std::string hex(const std::string &strBytes)
{
    std::string strText;
    for (const char cByte : strBytes)
    {
        char acText[4];
        snprintf(acText, sizeof acText, "%02X ", static_cast<unsigned char>(cByte));
        strText += acText;
    }
    return strText;
}

void ConnectionTest::expectRegister(unsigned short usHandle, bool bNoHandle, const std::string &strHandles,
                                    const std::string &strBody)
{
    ASSERT_EQ(0, start("", usHandle, bNoHandle));
    SFrame oRequest;
    EXPECT_EQ(0, connectTo([&](CRawListener &oListener) { oListener.acceptPipe(oRequest, 9, 4); }));
    EXPECT_EQ("01 03 00 00 00 00 00 00 00 07 00 00 " + strHandles + "00 00 00 00 00 00 00 1C 00 00 00 04 " + strBody,
              hex(oRequest.wire()));
    EXPECT_TRUE(m_oConn->getPipeStatus());
    EXPECT_EQ(9, m_oConn->getOppProcID());
    EXPECT_EQ(4, m_oConn->getOppProcHandle());
}

} // namespace

TEST_F(ConnectionTest, RegistersByteForByteWithItsOwnHandle)
{
    expectRegister(3, false, "00 03 00 00 ", "00 00 00 00 ");
}

TEST_F(ConnectionTest, RegistersByteForByteWithoutAHandle)
{
    expectRegister(3, true, "00 00 00 00 ", "00 00 00 01 ");
}

TEST_F(ConnectionTest, RegistersByteForByteForAHandleToBeAllocated)
{
    expectRegister(0, false, "00 00 00 00 ", "00 00 00 00 ");
}

TEST_F(ConnectionTest, PassesARefusalOn)
{
    ASSERT_EQ(0, start());
    for (const int iStatus : {-9, 7})
    {
        SFrame oRequest;
        bool bClosed = false;
        EXPECT_EQ(iStatus, connectTo([&](CRawListener &oListener)
                                     { bClosed = oListener.acceptPipe(oRequest, 9, 4, iStatus).waitClosed(); }));
        EXPECT_TRUE(bClosed);
        EXPECT_FALSE(m_oConn->getPipeStatus());
        EXPECT_TRUE(logHas("CZolConnection::connect Register failed! Error: " + std::to_string(iStatus)));
    }
}

// Whatever else comes instead of an answer, the pipe is not up, and the socket is closed.
TEST_F(ConnectionTest, FailsWithoutAProperAnswer)
{
    ASSERT_EQ(0, start());
    SFrame oOtherType = registerFrame(9, 4);
    oOtherType.m_ucType = 2;
    const std::string strAnswer = registerFrame(9, 4).wire();
    EXPECT_EQ(-1, connectTo(
                      [&](CRawListener &oListener)
                      {
                          CRawPipe oPipe = oListener.accept();
                          oPipe.read(32);
                          oPipe.send(oOtherType.wire());
                          EXPECT_TRUE(oPipe.waitClosed());
                      }));
    EXPECT_TRUE(logHas("Unknown type of response message for register process!"));
    for (const std::size_t uiCut : {0U, 31U})
    {
        EXPECT_EQ(-1, connectTo(
                          [&](CRawListener &oListener)
                          {
                              CRawPipe oPipe = oListener.accept();
                              oPipe.read(32);
                              oPipe.send(strAnswer.substr(0, uiCut));
                          }))
            << "cut at " << uiCut;
    }
    EXPECT_FALSE(m_oConn->getPipeStatus());
    EXPECT_TRUE(logHas("recv response of register failed, error: 104, "));
    EXPECT_EQ(-1, m_oConn->connect()) << "nothing listens any more";
    EXPECT_TRUE(logHas("connect failed, error: 111, "));
}

// A socket that connects to the port that is its own meets itself, and its request comes back like an answer. The
// system brings that about now and then for a port that nobody serves; bound to it beforehand, it always happens.
TEST_F(ConnectionTest, TellsASocketThatHasMetItself)
{
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    CRawPipe oSelf(iSocket);
    sockaddr_in oAddr{};
    oAddr.sin_family = AF_INET;
    oAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    oAddr.sin_port = htons(freePort());
    ASSERT_EQ(0, bind(iSocket, reinterpret_cast<sockaddr *>(&oAddr), sizeof oAddr));
    EXPECT_FALSE(zolsocket::isOwnEcho(iSocket));
    ASSERT_EQ(0, connect(iSocket, reinterpret_cast<sockaddr *>(&oAddr), sizeof oAddr));
    EXPECT_TRUE(zolsocket::isOwnEcho(iSocket));
    CRawListener oListener;
    const CRawPipe oPipe = CRawPipe::connectTo(oListener.port());
    EXPECT_FALSE(zolsocket::isOwnEcho(oPipe.socket()));
}

// A far end that accepts and then drips has 5 s for the whole exchange, not 5 s for each byte.
TEST_F(ConnectionTest, GivesASilentListenerFiveSeconds)
{
    ASSERT_EQ(0, start());
    std::atomic<bool> bDone{false};
    std::atomic<int> iBytes{0};
    const auto oBegin = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, connectTo(
                      [&](CRawListener &oListener)
                      {
                          CRawPipe oPipe = oListener.accept();
                          while (!bDone && oPipe.send("x"))
                          {
                              ++iBytes;
                              bDone =
                                  oPipe.read(33, Milliseconds(500)).size() == 0 && oPipe.waitClosed(Milliseconds(0));
                          }
                      }));
    const auto oTook = std::chrono::steady_clock::now() - oBegin;
    EXPECT_GE(oTook, std::chrono::milliseconds(4900));
    EXPECT_LT(iBytes, 32) << "the whole of a response, at two bytes a second";
    EXPECT_TRUE(logHas("recv response of register failed, error: 62, "));
}

TEST_F(ConnectionTest, BeginsEachLifeWithNothingReceived)
{
    ASSERT_EQ(0, start());
    SFrame oPart = toSink(1, "half a message");
    SFrame oBlock = toSink(2, "block");
    oBlock.m_ucType = 6;
    oBlock.m_usSegment = 1;
    CRawListener oListener;
    m_oConn = CZolConnRef::adopt(new CZolConnection(CZolConnection::CONN_INITIATIVE, "127.0.0.1", oListener.port()));
    for (int iLife = 0; iLife < 3; ++iLife)
    {
        CRawPipe oPipe;
        SFrame oRequest;
        std::thread oServer([&] { oPipe = oListener.acceptPipe(oRequest, 9, 4); });
        ASSERT_EQ(0, m_oConn->connect());
        oServer.join();
        ASSERT_TRUE(oPipe.send(oBlock.wire() + oPart.wire().substr(0, 31)));
        EXPECT_EQ(0, m_oConn->receive());
        m_oConn->disconnect();
        EXPECT_TRUE(oPipe.waitClosed());
        EXPECT_EQ(-1, m_oConn->send("x", 1));
        EXPECT_EQ(-1, m_oConn->receive());
    }
    EXPECT_TRUE(waitUntil([&] { return logCount("big message block receive, ") == 3; }))
        << "a block of an earlier life was still there";
    EXPECT_EQ(0U, logCount("disordered"));
    EXPECT_TRUE(logHas("CZolConnection::disconnect disconnect finished. OppProcID: 9 OppProcHandle: 4 OppAddr: "
                       "127.0.0.1 OppPortNumber: "));
}
