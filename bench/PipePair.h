#ifndef ZOL_BENCH_PIPE_PAIR_H
#define ZOL_BENCH_PIPE_PAIR_H

#include "BenchSupport.h"

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

/// Two processes of the library with a direct pipe between them: SERVER listens, CLIENT opens the pipe. They are forked
/// before either starts the library.
namespace zolbench
{

constexpr unsigned short SERVER = 1;
constexpr unsigned short CLIENT = 2;
constexpr unsigned char MANAGER = 1;
constexpr unsigned short TASK = 1;

/// A word at a time between the two, beside the pipe that is measured.
class CSideChannel
{
public:
    CSideChannel() { need(pipe(m_aEnds) == 0, "a side channel"); }
    void put(std::uint64_t ulWord) const
    {
        need(write(m_aEnds[1], &ulWord, sizeof ulWord) == sizeof ulWord, "writing");
    }
    std::uint64_t get() const
    {
        std::uint64_t ulWord = 0;
        need(read(m_aEnds[0], &ulWord, sizeof ulWord) == sizeof ulWord, "the other process");
        return ulWord;
    }

private:
    int m_aEnds[2] = {-1, -1};
};

inline unsigned short freePort()
{
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in oAddr{};
    oAddr.sin_family = AF_INET;
    oAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t uiLength = sizeof oAddr;
    need(bind(iSocket, reinterpret_cast<sockaddr *>(&oAddr), sizeof oAddr) == 0 &&
             getsockname(iSocket, reinterpret_cast<sockaddr *>(&oAddr), &uiLength) == 0,
         "a free port");
    close(iSocket);
    return ntohs(oAddr.sin_port);
}

/// Runs fnBody in a child process, which dies with its parent.
template <typename Body>
pid_t startChild(Body fnBody)
{
    const pid_t iChild = fork();
    need(iChild >= 0, "a second process");
    if (iChild == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        fnBody();
        std::exit(0); // NOLINT(concurrency-mt-unsafe): its threads are those of the library, which expects it
    }
    return iChild;
}

inline void joinChild(pid_t iChild)
{
    int iStatus = 0;
    need(waitpid(iChild, &iStatus, 0) == iChild && WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0,
         "the other process");
}

inline void connectTo(unsigned short usPort)
{
    need(zol::connect("127.0.0.1", usPort) == ZOL_OK, "the pipe");
}

/// 1 MiB of payload to copy from.
inline const std::string &payload()
{
    static const std::string s_strPayload = []
    {
        std::string strPayload(1 << 20, '\0');
        for (unsigned int uiAt = 0; uiAt < strPayload.size(); ++uiAt)
        {
            strPayload[uiAt] = payloadByte(uiAt);
        }
        return strPayload;
    }();
    return s_strPayload;
}

/// A message over the pipe, written whole, with its number as command.
inline CZolMsgPdu *makePipeMsg(CZolMsgPdu::EnumZolPduType eType, unsigned short usFrom, unsigned short usTo,
                               unsigned int uiPayload, unsigned int uiNumber)
{
    CZolMsgPdu *poMsg = new (HEADER_BYTES + uiPayload) CZolMsgPdu;
    need(poMsg != nullptr, "memory for a message");
    poMsg->init();
    poMsg->m_ucMsgType = static_cast<ACE_Byte>(eType);
    poMsg->m_ulCmdID = uiNumber;
    poMsg->m_usSrcProcID = usFrom;
    poMsg->m_usDestProcID = usTo;
    poMsg->m_ucDestModule = MANAGER;
    poMsg->m_usDestSubModuleId = TASK;
    poMsg->m_ulDataLength = uiPayload;
    std::memcpy(zolPayload(poMsg), payload().data(), uiPayload);
    return poMsg;
}

/// Order, length and a byte at each end.
inline void checkPipeMsg(const CZolMsgPdu &oMsg, unsigned int uiPayload, unsigned int uiNumber)
{
    const char *pcPayload = zolPayload(&oMsg);
    need(oMsg.m_ulCmdID == uiNumber && oMsg.m_ulDataLength == uiPayload && pcPayload[0] == payload()[0] &&
             pcPayload[uiPayload - 1] == payload()[uiPayload - 1],
         "order or content of a message");
}

} // namespace zolbench

#endif
