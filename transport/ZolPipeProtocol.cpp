#include "transport/ZolPipeProtocol.h"

#include "message/ZolAnswer.h"

namespace zolpipe
{

namespace
{

CZolMsgPdu *newPdu(unsigned int uiLength, unsigned char ucType)
{
    CZolMsgPdu *poPdu = new (uiLength) CZolMsgPdu;
    if (poPdu != nullptr)
    {
        poPdu->init();
        poPdu->m_ucMsgType = ucType;
        poPdu->m_ulDataLength = uiLength - HEADER_LENGTH;
    }
    return poPdu;
}

void writeBody(CZolMsgPdu *poPdu, std::uint32_t uiWord)
{
    store32(reinterpret_cast<char *>(poPdu) + HEADER_LENGTH, uiWord);
}

} // namespace

CZolMsgPdu *newRegisterRequest(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle)
{
    CZolMsgPdu *poPdu = newPdu(REGISTER_LENGTH, CZolMsgPdu::MSG_REGISTER);
    if (poPdu != nullptr)
    {
        poPdu->m_usSrcProcID = usProcID;
        poPdu->m_usSrcProcHandle = usProcHandle;
        writeBody(poPdu, bNoHandle ? 1 : 0);
    }
    return poPdu;
}

CZolMsgPdu *newRegisterResponse(const CZolMsgPdu &oRequest, unsigned short usProcID, unsigned short usProcHandle,
                                int iStatus)
{
    CZolMsgPdu *poPdu = newPdu(REGISTER_LENGTH, CZolMsgPdu::MSG_REGISTER);
    if (poPdu != nullptr)
    {
        zolAddressAnswer(*poPdu, oRequest);
        poPdu->m_usSrcProcID = usProcID;
        poPdu->m_usSrcProcHandle = usProcHandle;
        writeBody(poPdu, static_cast<std::uint32_t>(iStatus));
    }
    return poPdu;
}

CZolMsgPdu *newHello(unsigned short usSrcProcID, unsigned short usSrcProcHandle, unsigned short usDestProcID,
                     unsigned short usDestProcHandle)
{
    CZolMsgPdu *poPdu = newPdu(HEADER_LENGTH, CZolMsgPdu::MSG_HELLO);
    if (poPdu != nullptr)
    {
        poPdu->m_usSrcProcID = usSrcProcID;
        poPdu->m_usSrcProcHandle = usSrcProcHandle;
        poPdu->m_usDestProcID = usDestProcID;
        poPdu->m_usDestProcHandle = usDestProcHandle;
    }
    return poPdu;
}

} // namespace zolpipe
