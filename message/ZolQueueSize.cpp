#include "ZolQueueSize.h"

std::atomic<unsigned int> g_ulQueueSize{52428800};
