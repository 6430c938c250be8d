#ifndef WORDCOUNT_COUNTER_H
#define WORDCOUNT_COUNTER_H

#include "Words.h"
#include "zol.h"

namespace wordcount
{

/// Counts the words of the lines it is sent, and gives its counts to the collector when the reader says that it is
/// done. A task runs on one thread at a time, so nothing here needs a lock, however many threads its manager has.
class CCounter : public CZolTask
{
public:
    void respMsgProcess(const CZolMsgPdu *poMsg) override;

private:
    void countLine(std::string_view strLine, bool bEnd);
    void finish();
    void reportProgress();

    CWords m_oWords;
    unsigned int m_uiUnreported = 0; // messages since the last report
};

} // namespace wordcount

#endif
