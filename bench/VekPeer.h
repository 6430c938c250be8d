#ifndef ZOL_BENCH_VEK_PEER_H
#define ZOL_BENCH_VEK_PEER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

/// What the benchmarks of the gateway share: a gateway of their own, raw sockets that speak the pipe protocol, frames
/// whose order, length and last byte are checked. Whatever goes wrong ends the program with a line on standard error.
namespace vekbench
{

const std::size_t HEADER_BYTES = 28;
const std::uint16_t RECEIVER = 100; ///< process id of the first receiver
const std::uint16_t SENDER = 50;
const std::uint32_t COMMAND = 7; ///< of every frame

std::uint64_t nowNs();
void require(bool bHolds, const char *pcWhat);
std::size_t argument(int argc, char **argv, int iAt, std::size_t ulDefault);

/// One line "GROUP/zol<TAB>metric<TAB>value<TAB>unit".
void report(const std::string &strGroup, const char *pcMetric, double dValue, const char *pcUnit);

/// The gateway under test: build/bin/vek beside this program, or what VEK names, on a free port; ended by the
/// destructor.
class CGateway
{
public:
    explicit CGateway(const std::vector<std::string> &oOptions = {});
    ~CGateway();
    CGateway(const CGateway &) = delete;
    CGateway &operator=(const CGateway &) = delete;
    unsigned short port() const { return m_usPort; }
    pid_t pid() const { return m_iPid; }

private:
    pid_t m_iPid = -1;
    unsigned short m_usPort = 0;
};

/// A child process that runs fnMain and must leave with 0. It dies with its parent.
pid_t spawn(const std::function<void()> &fnMain);
void waitFor(pid_t iPid);

int connectTo(unsigned short usPort);
void writeAll(int iSocket, const void *pvData, std::size_t ulLength);
void readAll(int iSocket, void *pvData, std::size_t ulLength);

/// A registered pipe with this id and no handle of its own.
int connectAs(unsigned short usPort, std::uint16_t usProcID);
void subscribe(int iSocket, std::uint16_t usProcID, std::uint32_t uiCommand);

struct SAddress
{
    std::uint8_t m_ucType = 1; ///< MSG_REQUEST
    std::uint16_t m_usFrom = SENDER;
    std::uint16_t m_usTo = RECEIVER;
};

/// A whole frame of uiPayload bytes behind the header. The payload begins with uiSequence and the time ulStampNs.
void fillFrame(char *pcFrame, const SAddress &oAddress, std::uint32_t uiPayload, std::uint32_t uiSequence,
               std::uint64_t ulStampNs);

/// Checks a whole frame and returns its stamp.
std::uint64_t checkFrame(const char *pcFrame, std::uint32_t uiPayload, std::uint32_t uiSequence);

/// uiCount frames in writes of 64 KiB, the first one stamped.
void sendFrames(int iSocket, const SAddress &oAddress, std::uint32_t uiPayload, std::uint32_t uiCount);

/// Takes uiCount frames and returns the nanoseconds from the stamp of the first one to the last byte.
std::uint64_t receiveFrames(int iSocket, std::uint32_t uiPayload, std::uint32_t uiCount);

} // namespace vekbench

#endif
