#ifndef ZOL_TESTS_SUPPORT_APPLICATION_H
#define ZOL_TESTS_SUPPORT_APPLICATION_H

#include "support/WaitUntil.h"
#include "zol.h"

#include <functional>
#include <thread>

namespace zoltest
{

/// Runs the library in this process until fnBody returns: handleEvents on the calling thread, fnBody on a thread of its
/// own, which begins when the process is running. To be called once in a process, after initAppMgr.
inline void runApplication(const std::function<void()> &fnBody)
{
    std::thread oBody(
        [&fnBody]
        {
            if (waitUntil([] { return CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING; }))
            {
                fnBody();
            }
            CZolAppMgr::instance()->exitThreads();
        });
    CZolAppMgr::instance()->handleEvents();
    oBody.join();
}

/// The payload of a message as text.
inline std::string bodyOf(const CZolMsgPdu &oMsg)
{
    return {zolPayload(&oMsg), oMsg.m_ulDataLength};
}

} // namespace zoltest

#endif
