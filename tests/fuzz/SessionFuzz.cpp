// A whole gateway with four pipes that send what the input says, registered or not, with time passing and pipes closing
// in between: it never falls over, never cuts a frame for anybody, and frees everything when the pipes have gone.
//
// Input: steps of an operation byte (low 2 bits the pipe, the rest the operation) and what that needs.

#include "ZolRunLog.h"
#include "gateway/loop/ZolVekGateway.h"

#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const unsigned int PIPES = 4;

std::uint64_t s_ulNowMs = 0;

void require(bool bHolds)
{
    if (!bHolds)
    {
        std::abort();
    }
}

class CInput
{
public:
    CInput(const std::uint8_t *pucData, std::size_t ulSize) : m_pucAt(pucData), m_ulLeft(ulSize) {}

    bool isEmpty() const { return m_ulLeft == 0; }
    std::uint8_t byte()
    {
        if (m_ulLeft == 0)
        {
            return 0;
        }
        --m_ulLeft;
        return *m_pucAt++;
    }
    std::string bytes(std::size_t ulMost)
    {
        const std::size_t ulTaken = std::min(ulMost, m_ulLeft);
        std::string strBytes(reinterpret_cast<const char *>(m_pucAt), ulTaken);
        m_pucAt += ulTaken;
        m_ulLeft -= ulTaken;
        return strBytes;
    }

private:
    const std::uint8_t *m_pucAt;
    std::size_t m_ulLeft;
};

/// The far end of a pipe, which checks that it gets whole frames.
class CPeer
{
public:
    void open(CZolVekGateway &oGateway)
    {
        close();
        int aiSockets[2];
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, aiSockets) == 0);
        const int iSmall = 16384;
        setsockopt(aiSockets[0], SOL_SOCKET, SO_SNDBUF, &iSmall, sizeof iSmall);
        oGateway.adopt(aiSockets[0], 0x7F000001, 1);
        m_iSocket = aiSockets[1];
    }

    void close()
    {
        if (m_iSocket >= 0)
        {
            ::close(m_iSocket);
        }
        m_iSocket = -1;
        m_strUnread.clear();
    }

    void send(const std::string &strBytes)
    {
        if (m_iSocket >= 0)
        {
            (void)::send(m_iSocket, strBytes.data(), strBytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        }
    }

    void read(std::size_t ulMost)
    {
        if (m_iSocket < 0)
        {
            return;
        }
        std::string strPart(ulMost, '\0');
        const ssize_t lRead = recv(m_iSocket, strPart.data(), strPart.size(), MSG_DONTWAIT);
        m_strUnread.append(strPart, 0, lRead > 0 ? static_cast<std::size_t>(lRead) : 0);
        std::size_t ulAt = 0;
        while (m_strUnread.size() - ulAt >= zolwire::HEADER_BYTES)
        {
            const std::size_t ulHeader = zolwire::load16(m_strUnread.data() + ulAt + zolwire::AT_HEADER_LENGTH);
            const std::size_t ulTotal = ulHeader + zolwire::load32(m_strUnread.data() + ulAt + zolwire::AT_DATA_LENGTH);
            require(ulHeader >= zolwire::HEADER_BYTES && ulTotal < 1u << 24); // else a frame was cut
            if (m_strUnread.size() - ulAt < ulTotal)
            {
                break;
            }
            ulAt += ulTotal;
        }
        m_strUnread.erase(0, ulAt);
    }

private:
    int m_iSocket = -1;
    std::string m_strUnread;
};

/// A frame whose fields are likely ones, from nine bytes of input.
std::string frameOf(CInput &oInput)
{
    char acHeader[zolwire::HEADER_BYTES] = {1};
    const std::uint8_t ucKind = oInput.byte();
    acHeader[zolwire::AT_TYPE] = static_cast<char>(ucKind & 15);
    zolwire::store16(acHeader + zolwire::AT_SEGMENT, oInput.byte() % 5);
    zolwire::store32(acHeader + zolwire::AT_COMMAND, oInput.byte() % 3);
    const std::uint8_t ucTo = oInput.byte();
    zolwire::store16(acHeader + zolwire::AT_DEST_PROC, ucTo > 250 ? 65535 : ucTo % 3);
    zolwire::store16(acHeader + zolwire::AT_DEST_HANDLE, ucTo > 250 ? 65535 : ucTo / 3 % 3);
    const std::uint8_t ucFrom = oInput.byte();
    zolwire::store16(acHeader + zolwire::AT_SRC_PROC, ucFrom % 3);
    zolwire::store16(acHeader + zolwire::AT_SRC_HANDLE, ucFrom / 3 % 3);
    zolwire::store16(acHeader + zolwire::AT_HEADER_LENGTH, zolwire::HEADER_BYTES + (ucKind >> 6));
    std::string strBody = oInput.bytes(oInput.byte() % 32);
    if ((ucKind & 0x30) == 0x30)
    {
        strBody.resize(std::size_t{1} << (8 + oInput.byte() % 10), 'b');
    }
    zolwire::store32(acHeader + zolwire::AT_DATA_LENGTH, static_cast<std::uint32_t>(strBody.size()));
    return std::string(acHeader, sizeof acHeader) + std::string(ucKind >> 6, 'h') + strBody;
}

std::string registration(std::uint8_t ucWho)
{
    char acRequest[zolwire::HEADER_BYTES + 4] = {1, 3};
    zolwire::store16(acRequest + zolwire::AT_SRC_PROC, ucWho % 3);
    zolwire::store16(acRequest + zolwire::AT_SRC_HANDLE, ucWho / 3 % 3);
    zolwire::store16(acRequest + zolwire::AT_HEADER_LENGTH, zolwire::HEADER_BYTES);
    zolwire::store32(acRequest + zolwire::AT_DATA_LENGTH, 4);
    zolwire::store32(acRequest + zolwire::HEADER_BYTES, ucWho / 9 % 2);
    return std::string(acRequest, sizeof acRequest);
}

void step(CInput &oInput, CZolVekGateway &oGateway, CPeer *aoPeers)
{
    const std::uint8_t ucWhat = oInput.byte();
    CPeer &oPeer = aoPeers[ucWhat % PIPES];
    switch (ucWhat / PIPES % 8)
    {
    case 0:
        oPeer.open(oGateway);
        oPeer.send(registration(oInput.byte()));
        break;
    case 1:
        oPeer.open(oGateway);
        break;
    case 2:
        oPeer.send(oInput.bytes(oInput.byte()));
        break;
    case 3:
    case 4:
        oPeer.send(frameOf(oInput));
        break;
    case 5:
        oPeer.read(std::size_t{1} << oInput.byte() % 18);
        break;
    case 6:
        s_ulNowMs += std::uint64_t{1} << oInput.byte() % 18;
        break;
    default:
        oPeer.close();
        break;
    }
}

SZolVekSettings settingsOf(std::uint8_t ucChoice)
{
    SZolVekSettings oSettings;
    oSettings.m_ulPipeQueueBytes = 65536;
    oSettings.m_ulTotalQueueBytes = 1 << 20;
    oSettings.m_uiMaxFrameBytes = 1 << 19;
    oSettings.m_eSlowConsumer = static_cast<EnumZolVekSlowConsumer>(ucChoice % 3);
    oSettings.m_uiGraceSeconds = ucChoice / 3 % 2 * 10;
    oSettings.m_ulMaxBytesPerSecond = ucChoice / 6 % 2 * 1000;
    oSettings.m_oPortsById[1] = 1000;
    return oSettings;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize)
{
    CZolRunLog::logLevel(CZolRunLog::LEVEL_OFF);
    CInput oInput(pucData, ulSize);
    s_ulNowMs = 1000000;
    SZolVekSettings oSettings = settingsOf(oInput.byte());
    CZolVekGateway oGateway(oSettings, [] { return s_ulNowMs; });
    CPeer aoPeers[PIPES];
    while (!oInput.isEmpty())
    {
        step(oInput, oGateway, aoPeers);
        oGateway.runOnce(0);
    }
    for (CPeer &oPeer : aoPeers)
    {
        oPeer.read(1 << 20);
        oPeer.close();
    }
    for (int i = 0; i < 1000 && (oGateway.connections() > 0 || oGateway.memoryBytes() > 0); ++i)
    {
        s_ulNowMs += 2000; // the grace, and whatever else may hold them
        oGateway.runOnce(0);
    }
    require(oGateway.connections() == 0 && oGateway.memoryBytes() == 0);
    return 0;
}
