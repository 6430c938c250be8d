#include "ZolMemMan.h"
#include "ZolMsgPdu.h"
#include "ZolRunLog.h"
#include "message/ZolPduLog.h"
#include "support/Installation.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>

namespace
{

// A header with another value in every byte.
CZolMsgPdu countingHeader()
{
    CZolMsgPdu oPdu;
    oPdu.m_ucVersion = 1;
    oPdu.m_ucMsgType = 2;
    oPdu.m_usSegmentNo = 0x0304;
    oPdu.m_ulCmdID = 0x05060708;
    oPdu.m_usSrcProcID = 0x090A;
    oPdu.m_usDestProcID = 0x0B0C;
    oPdu.m_usSrcProcHandle = 0x0D0E;
    oPdu.m_usDestProcHandle = 0x0F10;
    oPdu.m_ucSrcModule = 0x11;
    oPdu.m_ucDestModule = 0x12;
    oPdu.m_usSrcSubModuleId = 0x1314;
    oPdu.m_usDestSubModuleId = 0x1516;
    oPdu.m_usHeaderLength = 0x1718;
    oPdu.m_ulDataLength = 0x191A1B1C;
    return oPdu;
}

} // namespace

// The wire carries the most significant byte first; header buffers lie at any address of a stream.
TEST(MsgPduTest, WireOrderAtEveryAlignment)
{
    const CZolMsgPdu oPdu = countingHeader();
    for (size_t uiOffset = 0; uiOffset < 8; ++uiOffset)
    {
        SCOPED_TRACE(uiOffset);
        unsigned char acBuffer[sizeof(CZolMsgPdu) + 16];
        memset(acBuffer, 0xEE, sizeof acBuffer);
        memcpy(acBuffer + uiOffset, &oPdu, sizeof oPdu);

        htonPdu(acBuffer + uiOffset);
        for (unsigned char ucByte = 0; ucByte < sizeof oPdu; ++ucByte)
        {
            ASSERT_EQ(ucByte + 1, acBuffer[uiOffset + ucByte]) << "byte " << int{ucByte};
        }
        EXPECT_EQ(0xEE, acBuffer[uiOffset + sizeof oPdu]) << "the payload was touched";

        ntohPdu(acBuffer + uiOffset);
        EXPECT_EQ(0, memcmp(&oPdu, acBuffer + uiOffset, sizeof oPdu));
    }
}

TEST(MsgPduTest, ExtremesOfTheArithmetic)
{
    // Queues test for the block that belongs to a null PDU, and an optimiser must not take that test away.
    CZolMsgPdu *volatile poNull = nullptr;
    CZolMemBlock *const poBlock = zolBlockOf(poNull);
    EXPECT_NE(nullptr, poBlock);
    EXPECT_EQ(nullptr, zolPduOf(poBlock));

    CZolMsgPdu oPdu;
    oPdu.init();
    EXPECT_EQ(28u, zolTotalLength(&oPdu));
    oPdu.m_usHeaderLength = 0xFFFF;
    oPdu.m_ulDataLength = 0xFFFFFFFF;
    EXPECT_EQ(0x10000FFFEull, zolTotalLength(&oPdu)) << "the sum wrapped";

    const std::unique_ptr<CZolMsgPdu> poLong(new (64) CZolMsgPdu);
    const CZolMsgPdu *const poRead = poLong.get();
    poLong->init();
    poLong->m_usHeaderLength = 40;
    EXPECT_EQ(40, zolPayload(poLong.get()) - reinterpret_cast<char *>(poLong.get()));
    EXPECT_EQ(zolPayload(poLong.get()), zolPayload(poRead));
}

TEST(MsgPduTest, LongDumpReplacesTheText)
{
    std::string strOut = "what was there before";
    countingHeader().printf(strOut);
    EXPECT_EQ("        version: 1\n"
              "      srcProcID: 2314\n"
              "  srcProcHandle: 3342\n"
              "     destProcID: 2828\n"
              " destProcHandle: 3856\n"
              "        cmdCode: 84281096\n"
              "        msgType: 2\n"
              "   headerLength: 5912\n"
              "     dataLength: 421141276\n"
              "      srcModule: 17\n"
              " srcSubModuleId: 4884\n"
              "     destModule: 18\n"
              "destSubModuleId: 5398\n"
              "      segmentNo: 772\n",
              strOut);
}

// One line for each type, with the label that operators search for; a type of none has a label as well.
TEST(MsgPduTest, OneLineDumpOfEveryType)
{
    zoltest::CInstallation oInstallation;
    ASSERT_EQ(0, CZolLogTask::instance()->init(1, 0, "dump", oInstallation.logFolder().c_str()));
    const char *const aLabels[] = {"UNKNOWN",  "REQ",       "RESP",         "REG",     "HELLO",   "UNKNOWN",
                                   "BIGREQ",   "BIGRESP",   "DBG",          "EXIT",    "UNKNOWN", "SUBSCR",
                                   "UNSUBSCR", "MULTICAST", "BIGMULTICAST", "GETADDR", "UNKNOWN"};
    std::string strExpected;
    CZolMsgPdu oPdu = countingHeader();
    oPdu.m_ulDataLength = 7;
    oPdu.m_ulCmdID = 0xFFFFFFFE;
    for (unsigned char ucType = 0; ucType < sizeof aLabels / sizeof aLabels[0]; ++ucType)
    {
        oPdu.m_ucMsgType = ucType;
        zolLogHeader(oPdu);
        strExpected += std::string("MSGTYPE: ") + aLabels[ucType] +
                       ", SPID = 2314 SPHdl = 3342 SMdlID = 17 SSMdlID = 4884 RPID = 2828 RPHdl = 3856 RMdlID = 18 "
                       "RSMdlID = 5398 CmdID = -2, Len = 7\n";
    }
    CZolRunLog::logLevel(CZolRunLog::LEVEL_OFF);
    zolLogHeader(oPdu); // nothing at this level
    CZolLogTask::instance()->writeLog();

    std::string strFound;
    std::istringstream oLog(oInstallation.logText());
    for (std::string strLine; std::getline(oLog, strLine);)
    {
        strFound += strLine.substr(24) + "\n";
    }
    EXPECT_EQ(strExpected, strFound);
}
