#ifndef ZOL_TRANSPORT_ZOLSOCKET_H
#define ZOL_TRANSPORT_ZOLSOCKET_H

#include <ace/OS_NS_sys_socket.h>
#include <chrono>
#include <cstddef>

class ACE_INET_Addr;

/// Transfers with one deadline for the whole of it, whatever the peer drips in between. Sockets are used without
/// blocking and without SIGPIPE, whatever flags they have; nothing here changes a flag that another thread relies on.
///
/// Threads: any; the caller sees to it that the descriptor stays open.
/// Errors:  -1 with errno, ETIME when the deadline has passed.
namespace zolsocket
{

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

inline Deadline in(std::chrono::milliseconds oFromNow)
{
    return Clock::now() + oFromNow;
}

/// A TCP socket of the internet family that is non-blocking, without delay and closed on exec. Invalid on failure.
ACE_HANDLE open();

/// Makes an accepted socket as open() makes one.
void prepare(ACE_HANDLE oHandle);

/// Starts to connect. 0: connected; 1: under way; -1: failed.
int startConnect(ACE_HANDLE oHandle, const ACE_INET_Addr &oAddr);

/// Outcome of a connect that was under way and whose socket has become writable: 0, or -1 with its errno.
int finishConnect(ACE_HANDLE oHandle);

/// Whether a connected socket has met itself: a connect to a port of this machine that nobody serves may be given that
/// very port as its own, and then it succeeds, with nobody at the other end.
bool isOwnEcho(ACE_HANDLE oHandle);

/// Waits for readiness. 1: ready (or in error, which the next call tells); 0: the deadline has passed, errno ETIME.
int wait(ACE_HANDLE oHandle, short sEvents, Deadline oDeadline);

/// Sends all uiLength bytes and returns 0. On failure uiSent tells how many had gone out.
int sendAll(ACE_HANDLE oHandle, const void *pvData, std::size_t uiLength, Deadline oDeadline, std::size_t &uiSent);

/// Bytes that were sent and that the peer has not taken yet.
std::size_t unacknowledged(ACE_HANDLE oHandle);

/// Reads exactly uiLength bytes and returns 0. An end of the stream before that is -1 with ECONNRESET.
int recvAll(ACE_HANDLE oHandle, void *pvData, std::size_t uiLength, Deadline oDeadline);

/// Seconds of the wall clock. Not time(), whose coarse clock may still show the previous second.
long wallSeconds();

} // namespace zolsocket

#endif
