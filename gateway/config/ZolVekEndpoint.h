#ifndef ZOL_VEK_ENDPOINT_H
#define ZOL_VEK_ENDPOINT_H

#include <arpa/inet.h>
#include <charconv>
#include <cstdint>
#include <string>

/// A port, which is one of the loopback interface, or an IPv4 address and a port with a colon between. Host order;
/// false for any other text.
inline bool zolVekEndpointFrom(const std::string &strText, std::uint32_t &uiAddress, std::uint16_t &usPort)
{
    const std::size_t ulColon = strText.rfind(':');
    in_addr oAddress = {htonl(INADDR_LOOPBACK)};
    if (ulColon != std::string::npos && inet_pton(AF_INET, strText.substr(0, ulColon).c_str(), &oAddress) != 1)
    {
        return false;
    }
    const char *const pcPort = strText.c_str() + (ulColon == std::string::npos ? 0 : ulColon + 1);
    const char *const pcEnd = strText.c_str() + strText.size();
    const auto oResult = std::from_chars(pcPort, pcEnd, usPort);
    uiAddress = ntohl(oAddress.s_addr);
    return oResult.ec == std::errc() && oResult.ptr == pcEnd;
}

#endif
