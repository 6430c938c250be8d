#ifndef ZOL_QUEUESIZE_H
#define ZOL_QUEUESIZE_H

#include "ZolExport.h"

#include <atomic>

/// Limit in bytes of one queue: of each task manager, and of the list of the send thread. Set by initAppMgr from
/// "ZOLQueueSize".
ZOL_EXPORT extern std::atomic<unsigned int> g_ulQueueSize;

#endif
