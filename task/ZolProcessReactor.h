#ifndef ZOL_TASK_ZOLPROCESSREACTOR_H
#define ZOL_TASK_ZOLPROCESSREACTOR_H

class ACE_Reactor;

/// Makes the reactor of the process: on epoll, with room for as many descriptors as the process may open, which is
/// raised to what the system allows first. Its timers follow the monotonic clock, signals do not disturb its waits,
/// and its own descriptors are not inherited by programs that the process starts.
ACE_Reactor *zolMakeProcessReactor();

#endif
