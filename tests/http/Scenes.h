#ifndef ZOL_TESTS_HTTP_SCENES_H
#define ZOL_TESTS_HTTP_SCENES_H

#include "gateway/watch/http/ZolSnapshot.h"

#include <atomic>
#include <string>
#include <thread>

namespace zoltest
{

/// Fills a snapshot with a gateway that has run for dSeconds: "idle", "load" (50 processes), "slow" (one of 50 takes
/// nothing and holds its senders back), "many" (2,000 processes), "hostile" (texts made to break a page), "draining".
/// Returns false for another name.
bool fillScene(const std::string &strScene, double dSeconds, SZolGatewaySnapshot &oSnapshot);

/// A thread in the place of the routing thread, which answers an exchange with a scene until it is destroyed.
class CSceneThread
{
public:
    CSceneThread(CZolSnapshotExchange &oExchange, const std::string &strScene);
    ~CSceneThread();
    CSceneThread(const CSceneThread &) = delete;
    CSceneThread &operator=(const CSceneThread &) = delete;

    /// The thread takes no question until told otherwise: a routing thread that hangs.
    void setStuck(bool bStuck) { m_bStuck = bStuck; }

    unsigned int answered() const { return m_uiAnswered; }

private:
    void run(const std::string &strScene);

    CZolSnapshotExchange &m_oExchange;
    std::atomic<bool> m_bStuck{false};
    std::atomic<bool> m_bEnd{false};
    std::atomic<unsigned int> m_uiAnswered{0};
    std::thread m_oThread;
};

} // namespace zoltest

#endif
