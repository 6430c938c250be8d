#ifndef ZOL_GATEWAY_HTTP_ZOLSTATUSTEXT_H
#define ZOL_GATEWAY_HTTP_ZOLSTATUSTEXT_H

#include "gateway/watch/http/ZolSnapshot.h"

#include <string>

/// The snapshot in the text format that Prometheus scrapes: families zol_vek_..., base units, counters in _total. Only
/// labels with few values: what one process does is in the JSON text, not here.
std::string zolMetricsText(const SZolGatewaySnapshot &oSnapshot);

/// The snapshot as one JSON object with all pipes, edges, subscriptions, events and settings. doc/monitoring.md lists
/// its members.
std::string zolStatusJson(const SZolGatewaySnapshot &oSnapshot);

/// Appends strText as a JSON string with its quotes. Any bytes are allowed: what is no UTF-8 becomes U+FFFD, and '<' is
/// escaped too, so that the text stays harmless wherever it is pasted.
void zolAppendJsonString(std::string &strOut, const std::string &strText);

#endif
