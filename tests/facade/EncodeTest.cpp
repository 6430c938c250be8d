// Encoding and decoding without a running library: the calling thread has no current task and process id 0.

#include "zol.h"

#include <asn-incl.h>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace
{

using Pdu = std::unique_ptr<CZolMsgPdu>;

/// A value whose encoding ends in an exception of a type that no runtime documents.
class CThrowing : public SNACC::AsnType
{
public:
    SNACC::AsnType *Clone() const override { return new CThrowing; }
    const char *typeName() const override { return "CThrowing"; }
    void BDec(const SNACC::AsnBuf &, SNACC::AsnLen &) override { throw 42; } // NOLINT: any type must be stopped
    SNACC::AsnLen BEnc(SNACC::AsnBuf &) const override { throw 42; }         // NOLINT
    void Print(std::ostream &, unsigned short) const override {}
};

/// A request as it might have arrived, with every field different.
Pdu arrivedRequest()
{
    Pdu oRequest(new (28) CZolMsgPdu);
    oRequest->init();
    oRequest->m_ucVersion = 3;
    oRequest->m_ucMsgType = CZolMsgPdu::MSG_REQUEST;
    oRequest->m_usSegmentNo = 9;
    oRequest->m_ulCmdID = 0xCAFE0001;
    oRequest->m_usSrcProcID = 11;
    oRequest->m_usSrcProcHandle = 12;
    oRequest->m_ucSrcModule = 13;
    oRequest->m_usSrcSubModuleId = 14;
    oRequest->m_usDestProcID = 21;
    oRequest->m_usDestProcHandle = 22;
    oRequest->m_ucDestModule = 23;
    oRequest->m_usDestSubModuleId = 24;
    return oRequest;
}

} // namespace

// Neither names a handle or a segment by chance: every byte of the header counts. Without a current task a request has
// no source task, and the destination of the request is the source of its response.
TEST(EncodeTest, FillsEveryByteOfTheHeader)
{
    const Pdu oRequest(zol::encodeReq(0x12345678, "body", 4, 7, 200, 60000));
    const Pdu oResponse(zol::encodeResp(*arrivedRequest(), "ok", 2));
    const struct
    {
        CZolMsgPdu *poPdu;
        std::string strWire;
    } aCases[] = {
        {oRequest.get(), std::string("\1\1\0\0\x12\x34\x56\x78\0\0\0\7\0\0\0\0\0\310\0\0\xEA\x60\0\x1C\0\0\0\4"
                                     "body",
                                     32)},
        {oResponse.get(), std::string("\3\2\0\0\xCA\xFE\0\1\0\0\0\13\0\0\0\14\27\15\0\30\0\16\0\x1C\0\0\0\2"
                                      "ok",
                                      30)},
    };
    for (const auto &oCase : aCases)
    {
        ASSERT_NE(nullptr, oCase.poPdu);
        htonPdu(oCase.poPdu);
        EXPECT_EQ(oCase.strWire, std::string(reinterpret_cast<const char *>(oCase.poPdu), oCase.strWire.size()));
    }
}

TEST(EncodeTest, RefusesAResponseThatWouldReachNobody)
{
    const struct
    {
        const char *pcName;
        unsigned short usDestProc, usDestHandle, usSrcTask;
        bool bRefused;
    } aCases[] = {
        {"stayed in its process, no sender task", 11, 12, 0, true},
        {"stayed in its process, sender task", 11, 12, 14, false},
        {"another process, no sender task", 21, 12, 0, false},
        {"another handle, no sender task", 11, 22, 0, false},
    };
    const SNACC::AsnInt oBody(5);
    for (const auto &oCase : aCases)
    {
        SCOPED_TRACE(oCase.pcName);
        const Pdu oRequest = arrivedRequest();
        oRequest->m_usDestProcID = oCase.usDestProc;
        oRequest->m_usDestProcHandle = oCase.usDestHandle;
        oRequest->m_usSrcSubModuleId = oCase.usSrcTask;
        const Pdu oRaw(zol::encodeResp(*oRequest, nullptr, 0));
        const Pdu oAsn(zol::encodeResp(*oRequest, &oBody));
        EXPECT_EQ(oCase.bRefused, oRaw == nullptr);
        EXPECT_EQ(oCase.bRefused, oAsn == nullptr);
    }
}

TEST(EncodeTest, TakesNullAsAnEmptyBody)
{
    const Pdu oRequest = arrivedRequest();
    const Pdu aPdus[] = {Pdu(zol::encodeReq(1, nullptr, 100, 1, 1, 1)), Pdu(zol::encodeReq(1, "text", 0, 1, 1, 1)),
                         Pdu(zol::encodeReq(1, nullptr, 1, 1, 1)), Pdu(zol::encodeResp(*oRequest, nullptr, 100)),
                         Pdu(zol::encodeResp(*oRequest, nullptr))};
    for (const auto &oPdu : aPdus)
    {
        ASSERT_NE(nullptr, oPdu);
        EXPECT_EQ(0U, oPdu->m_ulDataLength);
    }
}

// The sum of header and body does not fit: nothing may be allocated short, and nothing of the body read.
TEST(EncodeTest, RefusesBodiesThatNoHeaderCanDescribe)
{
    const Pdu oRequest = arrivedRequest();
    for (const unsigned int uiLength : {0xFFFFFFFFU, 0xFFFFFFFFU - 27, 0xFFFFFFFFU - 35})
    {
        EXPECT_EQ(nullptr, zol::encodeReq(1, "x", uiLength, 1, 1, 1)) << uiLength;
        EXPECT_EQ(nullptr, zol::encodeResp(*oRequest, "x", uiLength)) << uiLength;
    }
}

TEST(EncodeTest, StopsWhateverTheRuntimeThrows)
{
    const Pdu oRequest = arrivedRequest();
    CThrowing oThrowing;
    EXPECT_EQ(nullptr, zol::encodeReq(1, &oThrowing, 1, 1, 1));
    EXPECT_EQ(nullptr, zol::encodeResp(*oRequest, &oThrowing));
    EXPECT_EQ(ZOL_ERR_DECODE, zol::decodeAsn(*oRequest, oThrowing));
}

TEST(EncodeTest, CopiesLongHeadersAndBodiesWhole)
{
    const unsigned int uiHeader = 40;
    const std::string strBody("\x02\x01\x2A\x00", 4); // an integer, and a byte behind it that does not count
    const Pdu oMsg(new (uiHeader + 4) CZolMsgPdu);
    std::memset(static_cast<void *>(oMsg.get()), 0x5A, uiHeader);
    oMsg->m_usHeaderLength = uiHeader;
    oMsg->m_ulDataLength = 4;
    std::memcpy(reinterpret_cast<char *>(oMsg.get()) + uiHeader, strBody.data(), 4);

    const Pdu oCopy(zol::messageCopy(*oMsg));
    ASSERT_NE(nullptr, oCopy);
    EXPECT_EQ(0,
              std::memcmp(static_cast<const void *>(oMsg.get()), static_cast<const void *>(oCopy.get()), uiHeader + 4));
    SNACC::AsnInt oValue;
    EXPECT_EQ(ZOL_OK, zol::decodeAsn(*oCopy, oValue)) << "the payload begins where the header ends";
    EXPECT_EQ(42, static_cast<int>(oValue));
}
