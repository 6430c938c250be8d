#ifndef ZOL_MESSAGE_ZOLANSWER_H
#define ZOL_MESSAGE_ZOLANSWER_H

#include "ZolMsgPdu.h"

/// Addresses an answer to a request, both in host order: version and command are the request's, and in each of the four
/// pairs source and destination change places. Type, lengths and payload are left alone.
inline void zolAddressAnswer(CZolMsgPdu &oAnswer, const CZolMsgPdu &oRequest)
{
    oAnswer.m_ucVersion = oRequest.m_ucVersion;
    oAnswer.m_ulCmdID = oRequest.m_ulCmdID;
    oAnswer.m_usSrcProcID = oRequest.m_usDestProcID;
    oAnswer.m_usDestProcID = oRequest.m_usSrcProcID;
    oAnswer.m_usSrcProcHandle = oRequest.m_usDestProcHandle;
    oAnswer.m_usDestProcHandle = oRequest.m_usSrcProcHandle;
    oAnswer.m_ucSrcModule = oRequest.m_ucDestModule;
    oAnswer.m_ucDestModule = oRequest.m_ucSrcModule;
    oAnswer.m_usSrcSubModuleId = oRequest.m_usDestSubModuleId;
    oAnswer.m_usDestSubModuleId = oRequest.m_usSrcSubModuleId;
}

#endif
