#ifndef ZOL_VEK_FLOWS_H
#define ZOL_VEK_FLOWS_H

#include <cstdint>
#include <unordered_map>

/// How much went from one pipe to another one.
struct SZolVekFlow
{
    std::uint64_t m_ulFrames = 0;
    std::uint64_t m_ulBytes = 0;
};

/// What one pipe has sent to whom, by the serial of the receiver's session. Kept only while somebody looks.
///
/// Threads: the routing thread only.
class CZolVekFlows
{
public:
    void count(std::uint64_t ulSerial, std::uint32_t uiBytes)
    {
        if (ulSerial != m_ulLastSerial) // frames come in runs to one receiver
        {
            m_poLast = &m_oBySerial[ulSerial];
            m_ulLastSerial = ulSerial;
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

private:
    std::unordered_map<std::uint64_t, SZolVekFlow> m_oBySerial;
    std::uint64_t m_ulLastSerial = 0;
    SZolVekFlow *m_poLast = nullptr; // in m_oBySerial, whose elements do not move
};

#endif
