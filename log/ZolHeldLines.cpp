#include "log/ZolHeldLines.h"

#include "ZolRunLog.h"
#include "config/ZolCounters.h"

#include <exception>

namespace
{

// The outermost of the thread. Close at hand, since the dispatcher makes one for every message.
thread_local CZolHeldLines *t_poHeld __attribute__((tls_model("initial-exec"))) = nullptr;

} // namespace

CZolHeldLines::CZolHeldLines() : m_bOutermost(t_poHeld == nullptr)
{
    if (m_bOutermost)
    {
        t_poHeld = this;
    }
}

CZolHeldLines::~CZolHeldLines()
{
    if (!m_bOutermost)
    {
        return;
    }
    t_poHeld = nullptr;
    for (const std::string &strLine : m_oLines)
    {
        CZolLogTask::instance()->output(strLine.c_str());
    }
}

bool CZolHeldLines::keep(const char *pcScope, const char *pcText) noexcept
{
    if (t_poHeld == nullptr)
    {
        return false;
    }
    if (pcText == nullptr)
    {
        return true;
    }
    if (!CZolRunLog::isReady())
    {
        zolCount(zolCounters().m_ulLogLines);
        return true;
    }
    try
    {
        t_poHeld->m_oLines.push_back(pcScope == nullptr ? pcText : std::string(pcScope) + ' ' + pcText);
    }
    catch (const std::exception &)
    {
        zolCount(zolCounters().m_ulLogLines);
    }
    return true;
}
