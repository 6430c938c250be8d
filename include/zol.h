#ifndef ZOL_H
#define ZOL_H

/// The whole public interface. One header stands for each family of classes; ZolApi.h holds the free operations.

#include "ZolApi.h"
#include "ZolAppMgr.h"
#include "ZolDateUtil.h"
#include "ZolErrors.h"
#include "ZolListener.h"
#include "ZolLock.h"
#include "ZolLogTask.h"
#include "ZolMemMan.h"
#include "ZolMsgPdu.h"
#include "ZolQueueSize.h"
#include "ZolResMgr.h"
#include "ZolRunLog.h"
#include "ZolTask.h"
#include "ZolTaskMgr.h"
#include "ZolTimer.h"
#include "ZolUtil.h"

#endif
