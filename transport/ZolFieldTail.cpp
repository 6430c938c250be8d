#include "transport/ZolFieldTail.h"

#include <cstdio>

std::string zolFieldTail(const CZolMsgPdu &oPdu)
{
    char acText[256];
    snprintf(acText, sizeof acText,
             "Ver:%u, Type:%u, Cmd:%u, Seg:%u, SrcPID:%u, SrcPHDL:%u, SrcMod:%u, SrcSubMod:%u, DstMod:%u, "
             "DstSubMod:%u, HeadLen:%u, DataLen:%u",
             oPdu.m_ucVersion, oPdu.m_ucMsgType, oPdu.m_ulCmdID, oPdu.m_usSegmentNo, oPdu.m_usSrcProcID,
             oPdu.m_usSrcProcHandle, oPdu.m_ucSrcModule, oPdu.m_usSrcSubModuleId, oPdu.m_ucDestModule,
             oPdu.m_usDestSubModuleId, oPdu.m_usHeaderLength, oPdu.m_ulDataLength);
    return acText;
}

void logWithFields(void (CZolDebugInfo::*fnLevel)(const char *) const, const char *pcScope, const char *pcText,
                   const CZolMsgPdu &oPdu)
{
    if (CZolRunLog::isReady())
    {
        const CZolDebugInfo oDebug(pcScope);
        (oDebug.*fnLevel)((pcText + zolFieldTail(oPdu)).c_str());
    }
}
