#include "VekPeer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vekbench
{

namespace
{

const std::size_t WRITE_BYTES = 64 * 1024;
const std::size_t READ_BYTES = 128 * 1024;

void put16(char *pcAt, std::uint16_t usValue)
{
    usValue = htons(usValue);
    memcpy(pcAt, &usValue, sizeof usValue);
}

void put32(char *pcAt, std::uint32_t uiValue)
{
    uiValue = htonl(uiValue);
    memcpy(pcAt, &uiValue, sizeof uiValue);
}

std::uint32_t get32(const char *pcAt)
{
    std::uint32_t uiValue;
    memcpy(&uiValue, pcAt, sizeof uiValue);
    return ntohl(uiValue);
}

std::string besideThisProgram(const char *pcName)
{
    char acPath[4096];
    const ssize_t lLength = readlink("/proc/self/exe", acPath, sizeof acPath - 1);
    require(lLength > 0, "readlink");
    const std::string strPath(acPath, static_cast<std::size_t>(lLength));
    return strPath.substr(0, strPath.rfind('/') + 1) + pcName;
}

/// What payloads are made of, so that a displaced byte is seen.
const char *pattern()
{
    static const std::vector<char> *const poBytes = []
    {
        auto *poNew = new std::vector<char>(1 << 20);
        for (std::size_t i = 0; i < poNew->size(); ++i)
        {
            (*poNew)[i] = static_cast<char>(i * 31 + 7);
        }
        return poNew;
    }();
    return poBytes->data();
}

} // namespace

std::uint64_t nowNs()
{
    timespec oNow{};
    clock_gettime(CLOCK_MONOTONIC, &oNow);
    return static_cast<std::uint64_t>(oNow.tv_sec) * 1000000000u + static_cast<std::uint64_t>(oNow.tv_nsec);
}

void require(bool bHolds, const char *pcWhat)
{
    if (!bHolds)
    {
        fprintf(stderr, "FAILED: %s (errno %d)\n", pcWhat, errno);
        _exit(2);
    }
}

std::size_t argument(int argc, char **argv, int iAt, std::size_t ulDefault)
{
    return iAt < argc ? strtoull(argv[iAt], nullptr, 10) : ulDefault;
}

void report(const std::string &strGroup, const char *pcMetric, double dValue, const char *pcUnit)
{
    printf("%s\t%s\t%.6g\t%s\n", strGroup.c_str(), pcMetric, dValue, pcUnit);
    fflush(stdout);
}

CGateway::CGateway(const std::vector<std::string> &oOptions)
{
    signal(SIGPIPE, SIG_IGN);
    int aiPipe[2];
    require(pipe(aiPipe) == 0, "pipe");
    const char *const pcOther = getenv("VEK"); // NOLINT(concurrency-mt-unsafe): no thread runs yet
    const std::string strProgram = pcOther != nullptr ? pcOther : besideThisProgram("vek");
    m_iPid = fork();
    require(m_iPid >= 0, "fork");
    if (m_iPid == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(aiPipe[1], STDOUT_FILENO);
        std::vector<std::string> oArguments = {strProgram, "--listen", "127.0.0.1:0", "--log-level", "3"};
        oArguments.insert(oArguments.end(), oOptions.begin(), oOptions.end());
        std::vector<char *> oRaw;
        oRaw.reserve(oArguments.size() + 1);
        for (std::string &strArgument : oArguments)
        {
            oRaw.push_back(strArgument.data());
        }
        oRaw.push_back(nullptr);
        execv(oRaw[0], oRaw.data());
        require(false, "cannot start the gateway");
    }
    close(aiPipe[1]);
    std::string strLine;
    char cOne = 0;
    while (read(aiPipe[0], &cOne, 1) == 1 && cOne != '\n')
    {
        strLine += cOne;
    }
    close(aiPipe[0]);
    require(strLine.rfind(':') != std::string::npos, "the gateway did not start");
    m_usPort = static_cast<unsigned short>(atoi(strLine.c_str() + strLine.rfind(':') + 1));
}

CGateway::~CGateway()
{
    kill(m_iPid, SIGTERM);
    waitFor(m_iPid);
}

pid_t spawn(const std::function<void()> &fnMain)
{
    fflush(stdout);
    const pid_t iPid = fork();
    require(iPid >= 0, "fork");
    if (iPid == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        fnMain();
        _exit(0);
    }
    return iPid;
}

void waitFor(pid_t iPid)
{
    int iStatus = 0;
    require(waitpid(iPid, &iStatus, 0) == iPid && WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0, "a child failed");
}

int connectTo(unsigned short usPort)
{
    const int iSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in oAddress{};
    oAddress.sin_family = AF_INET;
    oAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    oAddress.sin_port = htons(usPort);
    const int iOn = 1;
    require(iSocket >= 0 && connect(iSocket, reinterpret_cast<sockaddr *>(&oAddress), sizeof oAddress) == 0 &&
                setsockopt(iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof iOn) == 0,
            "connect");
    return iSocket;
}

void writeAll(int iSocket, const void *pvData, std::size_t ulLength)
{
    const char *pcAt = static_cast<const char *>(pvData);
    while (ulLength > 0)
    {
        const ssize_t lSent = write(iSocket, pcAt, ulLength);
        require(lSent > 0 || errno == EINTR, "write");
        if (lSent > 0)
        {
            pcAt += lSent;
            ulLength -= static_cast<std::size_t>(lSent);
        }
    }
}

void readAll(int iSocket, void *pvData, std::size_t ulLength)
{
    char *pcAt = static_cast<char *>(pvData);
    while (ulLength > 0)
    {
        const ssize_t lRead = read(iSocket, pcAt, ulLength);
        require(lRead > 0 || (lRead < 0 && errno == EINTR), "read");
        if (lRead > 0)
        {
            pcAt += lRead;
            ulLength -= static_cast<std::size_t>(lRead);
        }
    }
}

int connectAs(unsigned short usPort, std::uint16_t usProcID)
{
    const int iSocket = connectTo(usPort);
    char acRegister[32] = {1, 3};
    put16(acRegister + 8, usProcID);
    put16(acRegister + 22, HEADER_BYTES);
    put32(acRegister + 24, 4);
    put32(acRegister + 28, 1);
    writeAll(iSocket, acRegister, sizeof acRegister);
    readAll(iSocket, acRegister, sizeof acRegister);
    require(acRegister[1] == 3 && get32(acRegister + 28) == 0, "registration refused");
    return iSocket;
}

void subscribe(int iSocket, std::uint16_t usProcID, std::uint32_t uiCommand)
{
    char acRequest[40] = {1, 11};
    put32(acRequest + 4, uiCommand);
    put16(acRequest + 8, usProcID);
    put16(acRequest + 22, HEADER_BYTES);
    put32(acRequest + 24, 12);
    put32(acRequest + 28, 1);
    put32(acRequest + 32, 1);
    put32(acRequest + 36, uiCommand);
    writeAll(iSocket, acRequest, sizeof acRequest);
    char acResponse[32];
    readAll(iSocket, acResponse, sizeof acResponse);
    require(acResponse[1] == 2 && get32(acResponse + 28) == 0, "subscription refused");
}

void fillFrame(char *pcFrame, const SAddress &oAddress, std::uint32_t uiPayload, std::uint32_t uiSequence,
               std::uint64_t ulStampNs)
{
    memset(pcFrame, 0, HEADER_BYTES);
    pcFrame[0] = 1;
    pcFrame[1] = static_cast<char>(oAddress.m_ucType);
    put32(pcFrame + 4, COMMAND);
    put16(pcFrame + 8, oAddress.m_usFrom);
    put16(pcFrame + 10, oAddress.m_usTo);
    put16(pcFrame + 22, HEADER_BYTES);
    put32(pcFrame + 24, uiPayload);
    char *const pcPayload = pcFrame + HEADER_BYTES;
    memcpy(pcPayload, pattern(), uiPayload);
    memcpy(pcPayload, &uiSequence, sizeof uiSequence);
    memcpy(pcPayload + sizeof uiSequence, &ulStampNs, sizeof ulStampNs);
}

std::uint64_t checkFrame(const char *pcFrame, std::uint32_t uiPayload, std::uint32_t uiSequence)
{
    const char *const pcPayload = pcFrame + HEADER_BYTES;
    std::uint32_t uiGot;
    std::uint64_t ulStampNs;
    memcpy(&uiGot, pcPayload, sizeof uiGot);
    memcpy(&ulStampNs, pcPayload + sizeof uiGot, sizeof ulStampNs);
    require(get32(pcFrame + 24) == uiPayload, "length of a frame");
    require(uiGot == uiSequence, "order of frames");
    require(pcPayload[uiPayload - 1] == pattern()[uiPayload - 1], "last byte of a frame");
    return ulStampNs;
}

void sendFrames(int iSocket, const SAddress &oAddress, std::uint32_t uiPayload, std::uint32_t uiCount)
{
    const std::size_t ulFrame = HEADER_BYTES + uiPayload;
    std::vector<char> oBuffer(std::max(WRITE_BYTES, ulFrame));
    std::size_t ulUsed = 0;
    for (std::uint32_t i = 0; i < uiCount; ++i)
    {
        if (ulUsed + ulFrame > oBuffer.size())
        {
            writeAll(iSocket, oBuffer.data(), ulUsed);
            ulUsed = 0;
        }
        fillFrame(oBuffer.data() + ulUsed, oAddress, uiPayload, i, i == 0 ? nowNs() : 0);
        ulUsed += ulFrame;
    }
    writeAll(iSocket, oBuffer.data(), ulUsed);
}

std::uint64_t receiveFrames(int iSocket, std::uint32_t uiPayload, std::uint32_t uiCount)
{
    const std::size_t ulFrame = HEADER_BYTES + uiPayload;
    std::vector<char> oBuffer(std::max(READ_BYTES, 2 * ulFrame));
    std::size_t ulHave = 0;
    std::uint64_t ulStartNs = 0;
    for (std::uint32_t i = 0; i < uiCount;)
    {
        const ssize_t lRead = read(iSocket, oBuffer.data() + ulHave, oBuffer.size() - ulHave);
        require(lRead > 0, "read");
        ulHave += static_cast<std::size_t>(lRead);
        std::size_t ulAt = 0;
        for (; i < uiCount && ulHave - ulAt >= ulFrame; ++i, ulAt += ulFrame)
        {
            const std::uint64_t ulStampNs = checkFrame(oBuffer.data() + ulAt, uiPayload, i);
            ulStartNs = i == 0 ? ulStampNs : ulStartNs;
        }
        memmove(oBuffer.data(), oBuffer.data() + ulAt, ulHave - ulAt);
        ulHave -= ulAt;
    }
    return nowNs() - ulStartNs;
}

} // namespace vekbench
