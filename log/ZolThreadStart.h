#ifndef ZOL_LOG_THREADSTART_H
#define ZOL_LOG_THREADSTART_H

#include <ace/Manual_Event.h>

/// Where the thread that starts a service meets the service's own thread. These threads live until the process ends,
/// and when main returns, ACE takes down what belongs to its threads while they are still there. Once both have met
/// here, all that ACE did for the start of the thread lies before whatever the end of the process does to it.
class CZolThreadStart
{
public:
    /// First act of the new thread.
    void arrived() { m_oArrived.signal(); }

    /// For the starting thread, after a successful activate().
    void await() { m_oArrived.wait(); }

private:
    ACE_Manual_Event m_oArrived;
};

#endif
