#include "transport/ZolRegisterExchange.h"

#include "ZolRunLog.h"
#include "transport/ZolPipeProtocol.h"
#include "transport/ZolText.h"

bool CZolRegisterExchange::begin(unsigned short usProcID, unsigned short usProcHandle, bool bNoHandle)
{
    m_uiDone = 0;
    m_poPdu.reset(zolpipe::newRegisterRequest(usProcID, usProcHandle, bNoHandle));
    if (m_poPdu)
    {
        htonPdu(m_poPdu.get());
    }
    return static_cast<bool>(m_poPdu);
}

unsigned int CZolRegisterExchange::getLeft() const
{
    return zolpipe::REGISTER_LENGTH - m_uiDone;
}

bool CZolRegisterExchange::advance(unsigned int uiBytes)
{
    m_uiDone += uiBytes;
    if (m_uiDone < zolpipe::REGISTER_LENGTH)
    {
        return false;
    }
    m_uiDone = 0;
    return true;
}

int CZolRegisterExchange::conclude()
{
    CZolDebugInfo oDebug("CZolConnection::connect");
    ntohPdu(m_poPdu.get());
    if (m_poPdu->m_ucMsgType != CZolMsgPdu::MSG_REGISTER)
    {
        oDebug.error("Unknown type of response message for register process!");
        return -1;
    }
    const char *pcBody = reinterpret_cast<const char *>(m_poPdu.get()) + zolpipe::HEADER_LENGTH;
    const auto iStatus = static_cast<int>(zolpipe::load32(pcBody));
    if (iStatus != 0)
    {
        oDebug.info(zoltext("Register failed! Error: ", iStatus).c_str());
    }
    return iStatus;
}
