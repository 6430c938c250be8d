#ifndef ZOL_GATEWAY_HTTP_ZOLSTATUSPAGE_H
#define ZOL_GATEWAY_HTTP_ZOLSTATUSPAGE_H

#include <string_view>

/// The file page/status.html, which the build puts into the program.
std::string_view zolStatusPage();

#endif
