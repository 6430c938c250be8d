#include "Reader.h"

#include "Protocol.h"
#include "Words.h"

#include <chrono>
#include <cstring>

namespace wordcount
{

namespace
{

const size_t READ_BYTES = 1 << 18;
const int READY_SECONDS = 20; // how long the counters may take to come up

bool isRunning()
{
    return CZolAppMgr::instance()->getStatus() == APPMGR_RUNNING;
}

bool isReady(std::uint16_t usProcess, std::uint16_t usTask)
{
    CZolMsgPdu *poResponse = nullptr;
    if (zol::sendSyncReq(CMD_READY, nullptr, 0, 1, poResponse, usProcess, COUNTER_MGR, usTask) != ZOL_OK)
    {
        return false;
    }
    delete poResponse;
    return true;
}

/// Where a piece of a line without an end may be cut: behind its last byte that is no letter, 0 if there is none.
size_t cutInside(const std::string &strText)
{
    size_t uiCut = strText.size();
    while (uiCut > 0 && isLetter(strText[uiCut - 1]))
    {
        --uiCut;
    }
    return uiCut;
}

} // namespace

CReader::~CReader()
{
    std::fclose(m_pFile);
}

void CReader::respMsgProcess(const CZolMsgPdu *poMsg)
{
    if (poMsg->m_ulCmdID != CMD_START)
    {
        return;
    }
    if (!waitForCounters() || !sendFile() || !sendFinish())
    {
        m_oRun.m_bFailed = true;
        CZolAppMgr::instance()->exitThreads();
    }
}

// The gateway drops what it cannot deliver, so nothing is sent before every counter has answered.
bool CReader::waitForCounters()
{
    const auto oEnd = std::chrono::steady_clock::now() + std::chrono::seconds(READY_SECONDS);
    for (std::uint16_t usCounter = 0; usCounter < COUNTER_PROCESSES; ++usCounter)
    {
        while (!isReady(FIRST_COUNTER_PROCESS + usCounter, 1))
        {
            if (!isRunning() || std::chrono::steady_clock::now() > oEnd)
            {
                std::fprintf(stderr, "wordcount: counter %u does not answer\n", FIRST_COUNTER_PROCESS + usCounter);
                return false;
            }
        }
    }
    m_oRun.m_oStart = std::chrono::steady_clock::now();
    return true;
}

bool CReader::sendFile()
{
    std::string strBuffer;
    std::string strRead(READ_BYTES, '\0');
    size_t uiRead = 0;
    while ((uiRead = std::fread(strRead.data(), 1, strRead.size(), m_pFile)) > 0)
    {
        strBuffer.append(strRead, 0, uiRead);
        m_oRun.m_ulBytes += uiRead;
        if (!sendLines(strBuffer, false))
        {
            return false;
        }
    }
    if (std::ferror(m_pFile) != 0)
    {
        std::fprintf(stderr, "wordcount: reading failed\n");
        return false;
    }
    return sendLines(strBuffer, true);
}

// Sends the whole lines of strBuffer and keeps the rest. A line that does not end for READ_BYTES is sent in pieces that
// divide no word, so that no input makes a message, or this buffer, larger than its longest word needs.
bool CReader::sendLines(std::string &strBuffer, bool bLast)
{
    size_t uiFrom = 0;
    size_t uiEnd = 0;
    while ((uiEnd = strBuffer.find('\n', uiFrom)) != std::string::npos)
    {
        if (!sendLine(strBuffer.data() + uiFrom, uiEnd - uiFrom, CMD_LINE))
        {
            return false;
        }
        uiFrom = uiEnd + 1;
    }
    strBuffer.erase(0, uiFrom);
    if (bLast && (!strBuffer.empty() || m_bInsideLine))
    {
        return sendLine(strBuffer.data(), strBuffer.size(), CMD_LINE);
    }
    const size_t uiCut = strBuffer.size() >= READ_BYTES ? cutInside(strBuffer) : 0;
    if (uiCut > 0)
    {
        const bool bSent = sendLine(strBuffer.data(), uiCut, CMD_PIECE);
        strBuffer.erase(0, uiCut);
        return bSent;
    }
    return true;
}

bool CReader::sendLine(const char *pcLine, size_t uiLength, std::uint32_t ulCmdID)
{
    const auto usCounter = static_cast<std::uint16_t>(m_ulDealt % COUNTER_PROCESSES);
    const auto usTask = static_cast<std::uint16_t>(1 + m_ulDealt / COUNTER_PROCESSES % COUNTER_TASKS);
    if (!isRunning() || zol::sendReqMsg(ulCmdID, pcLine, static_cast<std::uint32_t>(uiLength),
                                        FIRST_COUNTER_PROCESS + usCounter, COUNTER_MGR, usTask) != ZOL_OK)
    {
        std::fprintf(stderr, "wordcount: message %llu could not be sent\n",
                     static_cast<unsigned long long>(m_ulDealt) + 1);
        return false;
    }
    m_bInsideLine = ulCmdID == CMD_PIECE;
    m_oRun.m_ulSent = ++m_ulDealt;
    return true;
}

// Messages of one task to another keep their order, so this one is the last that a counter gets.
bool CReader::sendFinish()
{
    m_oRun.m_bAllSent = true;
    for (std::uint16_t usCounter = 0; usCounter < COUNTER_PROCESSES; ++usCounter)
    {
        for (std::uint16_t usTask = 1; usTask <= COUNTER_TASKS; ++usTask)
        {
            if (zol::sendReqMsg(CMD_FINISH, nullptr, 0, FIRST_COUNTER_PROCESS + usCounter, COUNTER_MGR, usTask) !=
                ZOL_OK)
            {
                return false;
            }
        }
    }
    return true;
}

} // namespace wordcount
