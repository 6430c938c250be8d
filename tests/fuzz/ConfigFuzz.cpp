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
        const std::string strValue = zolVekValueOf(oReader.settings(), strKey);
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
            zolVekValueOf(oReader.settings(), strKey) != zolVekValueOf(oAgain.settings(), strKey))
        {
            std::abort();
        }
    }
    return 0;
}
