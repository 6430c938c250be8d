#ifndef ZOL_TRANSPORT_ZOLSUBSCRIPTIONS_H
#define ZOL_TRANSPORT_ZOLSUBSCRIPTIONS_H

#include <ace/Thread_Mutex.h>
#include <cstdint>
#include <map>
#include <set>

class IZolHost;

/// What this process has subscribed to at the gateway, which forgets it with each pipe.
///
/// Threads: any.
class CZolSubscriptions
{
public:
    void add(unsigned long ulCmd, unsigned char ucModule, unsigned short usTask);
    void remove(unsigned long ulCmd, unsigned char ucModule, unsigned short usTask);

    /// Has oHost subscribe to all of it, in ascending order of command, module and task, and waits for each answer.
    /// With bStopAtFailure up to the first result that is neither ZOL_OK nor ZOL_ERR_TIMEOUT. No lock is held
    /// meanwhile.
    void replay(IZolHost &oHost, bool bStopAtFailure);

private:
    using SubscribeMap = std::map<std::uint32_t, std::set<std::uint32_t>>; // command: module << 16 | task

    ACE_Thread_Mutex m_oSubscribeLock; // leaf
    SubscribeMap m_oSubscribeMap;      // guarded by m_oSubscribeLock
};

#endif
