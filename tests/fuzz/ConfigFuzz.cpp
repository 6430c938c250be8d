// Any text as a configuration: it is read or refused. What is accepted says the same when its effective values are read
// again.

#include "gateway/config/ZolVekSettings.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize)
{
    CZolVekSettingsReader oReader;
    oReader.addText("fuzz", std::string(reinterpret_cast<const char *>(pucData), ulSize));
    if (!oReader.check())
    {
        if (oReader.faults().empty())
        {
            std::abort();
        }
        return 0;
    }
    CZolVekSettingsReader oAgain;
    for (const SZolVekKeyInfo &oKey : zolVekKeys())
    {
        const std::string strKey = oKey.m_pcKey;
        const std::string strValue = oKey.m_fnPrint(oReader.settings());
        if (strKey.find('<') == std::string::npos && !strValue.empty())
        {
            oAgain.add({strKey, strValue, "again"});
        }
    }
    if (!oAgain.check())
    {
        std::abort();
    }
    for (const SZolVekKeyInfo &oKey : zolVekKeys())
    {
        const std::string strKey = oKey.m_pcKey;
        if (strKey.find('<') == std::string::npos &&
            oKey.m_fnPrint(oReader.settings()) != oKey.m_fnPrint(oAgain.settings()))
        {
            std::abort();
        }
    }
    return 0;
}
