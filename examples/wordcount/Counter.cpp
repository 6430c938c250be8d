#include "Counter.h"

#include "Protocol.h"

#include <cstdio>
#include <string>

namespace wordcount
{

// A message that names a task arrives here, requests too; reqMsgProcess is for messages that have a task created.
void CCounter::respMsgProcess(const CZolMsgPdu *poMsg)
{
    switch (poMsg->m_ulCmdID)
    {
    case CMD_READY:
        zol::sendRespMsg(*poMsg, nullptr, 0);
        break;
    case CMD_LINE:
    case CMD_PIECE:
        countLine({zolPayload(poMsg), poMsg->m_ulDataLength}, poMsg->m_ulCmdID == CMD_LINE);
        break;
    case CMD_FINISH:
        finish();
        break;
    default:
        break;
    }
}

void CCounter::countLine(std::string_view strLine, bool bEnd)
{
    m_oWords.addLine(strLine, bEnd);
    if (++m_uiUnreported == PROGRESS_STEP)
    {
        reportProgress();
    }
}

void CCounter::reportProgress()
{
    const std::string strCount = std::to_string(m_uiUnreported);
    m_uiUnreported = 0;
    zol::sendReqMsg(CMD_PROGRESS, strCount.data(), static_cast<std::uint32_t>(strCount.size()), READER_PROCESS,
                    COLLECTOR_MGR, COLLECTOR_TASK);
}

void CCounter::finish()
{
    reportProgress();
    // As large as the vocabulary is; the library cuts it into blocks and joins them at the collector.
    const std::string strText = m_oWords.toText();
    if (zol::sendReqMsg(CMD_COUNTS, strText.data(), static_cast<std::uint32_t>(strText.size()), READER_PROCESS,
                        COLLECTOR_MGR, COLLECTOR_TASK) != ZOL_OK)
    {
        std::fprintf(stderr, "wordcount: the counts of task %u could not be sent\n", getTaskID());
    }
}

} // namespace wordcount
