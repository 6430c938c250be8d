#ifndef ZOL_TRANSPORT_ZOLTEXT_H
#define ZOL_TRANSPORT_ZOLTEXT_H

#include "ZolUtil.h"

#include <ace/INET_Addr.h>
#include <sstream>
#include <string>

/// A text from its pieces, numbers in decimal.
template <typename... Pieces>
std::string zoltext(const Pieces &...oPieces)
{
    std::ostringstream oText;
    (oText << ... << oPieces);
    return oText.str();
}

/// The system's text for a socket error.
inline std::string zolerror(int iError)
{
    std::string strText;
    zol::strError(iError, strText);
    return strText;
}

/// The dotted form.
inline std::string zoladdress(const ACE_INET_Addr &oAddr)
{
    char acText[64] = "";
    oAddr.get_host_addr(acText, sizeof acText);
    return acText;
}

#endif
