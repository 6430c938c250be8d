#ifndef ZOL_VEK_FLOWS_H
#define ZOL_VEK_FLOWS_H

#include <cstddef>
#include <cstdint>
#include <unordered_map>

/// How much went from one pipe to another one.
struct SZolVekFlow
{
    std::uint64_t m_ulFrames = 0;
    std::uint64_t m_ulBytes = 0;
};

/// How many flows all pipes together keep, and what had no place any more.
struct SZolVekFlowBudget
{
    static constexpr std::size_t MOST_FLOWS = 20000;
    std::size_t m_ulFlows = 0;
    std::uint64_t m_ulFramesLeftOut = 0;
};

/// What one pipe has sent to whom, by the serial of the receiver's session. Kept only while somebody looks.
///
/// Threads: the routing thread only.
class CZolVekFlows
{
public:
    void count(std::uint64_t ulSerial, std::uint32_t uiBytes, SZolVekFlowBudget &oBudget)
    {
        if (ulSerial != m_ulLastSerial && !find(ulSerial, oBudget)) // frames come in runs to one receiver
        {
            ++oBudget.m_ulFramesLeftOut;
            return;
        }
        ++m_poLast->m_ulFrames;
        m_poLast->m_ulBytes += uiBytes;
    }

    /// Calls fnEach(serial, flow) for each; one for which it returns false is forgotten.
    template <typename Function>
    void forEach(Function fnEach)
    {
        for (auto oAt = m_oBySerial.begin(); oAt != m_oBySerial.end();)
        {
            oAt = fnEach(oAt->first, oAt->second) ? std::next(oAt) : m_oBySerial.erase(oAt);
        }
        m_ulLastSerial = 0; // no session has it
    }

    std::size_t size() const { return m_oBySerial.size(); }

private:
    bool find(std::uint64_t ulSerial, SZolVekFlowBudget &oBudget)
    {
        auto oFound = m_oBySerial.find(ulSerial);
        if (oFound == m_oBySerial.end())
        {
            if (oBudget.m_ulFlows >= SZolVekFlowBudget::MOST_FLOWS)
            {
                return false;
            }
            ++oBudget.m_ulFlows;
            oFound = m_oBySerial.insert({ulSerial, SZolVekFlow()}).first;
        }
        m_poLast = &oFound->second;
        m_ulLastSerial = ulSerial;
        return true;
    }

    std::unordered_map<std::uint64_t, SZolVekFlow> m_oBySerial;
    std::uint64_t m_ulLastSerial = 0;
    SZolVekFlow *m_poLast = nullptr; // in m_oBySerial, whose elements do not move
};

#endif
