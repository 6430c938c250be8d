#ifndef ZOL_TRANSPORT_ZOLFIELDTAIL_H
#define ZOL_TRANSPORT_ZOLFIELDTAIL_H

#include "ZolMsgPdu.h"
#include "ZolRunLog.h"

#include <string>

/// All fields of a header in host order, as the log lines of the receive path end.
std::string zolFieldTail(const CZolMsgPdu &oPdu);

/// A line of pcText and the fields at the level fnLevel, composed only if the log can take it.
void logWithFields(void (CZolDebugInfo::*fnLevel)(const char *) const, const char *pcScope, const char *pcText,
                   const CZolMsgPdu &oPdu);

#endif
