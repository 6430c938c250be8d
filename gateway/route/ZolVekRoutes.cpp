#include "gateway/route/ZolVekRoutes.h"

#include <algorithm>
#include <iterator>

CZolVekSession *CZolVekRoutes::find(TZolVekKey uiKey) const
{
    const auto oFound = m_oByKey.find(uiKey);
    return oFound == m_oByKey.end() ? nullptr : oFound->second.m_poSession;
}

CZolVekSession *CZolVekRoutes::choose(std::uint16_t usProcID) const
{
    CZolVekSession *const poNoHandle = find(zolVekKey(usProcID, 0));
    if (poNoHandle != nullptr)
    {
        return poNoHandle;
    }
    const auto oFound = m_oProcesses.find(usProcID);
    if (oFound == m_oProcesses.end() || oFound->second.m_oBySources.empty())
    {
        return nullptr;
    }
    return find(oFound->second.m_oBySources.begin()->second);
}

void CZolVekRoutes::add(TZolVekKey uiKey, CZolVekSession *poSession)
{
    m_oByKey[uiKey] = {poSession, 0};
    SProcess &oProcess = m_oProcesses[zolVekProcOf(uiKey)];
    oProcess.m_oBySources.insert({0, uiKey});
    if (zolVekHandleOf(uiKey) != 0)
    {
        const auto oResult = oProcess.m_oHandles.insert({zolVekHandleOf(uiKey), IN_USE});
        if (!oResult.second) // a process that brings a handle of its own may take one that rests
        {
            oProcess.m_oResting.erase({oResult.first->second, zolVekHandleOf(uiKey)});
            oResult.first->second = IN_USE;
        }
        oProcess.m_oFree.erase(zolVekHandleOf(uiKey));
    }
    ++m_ulGeneration;
}

void CZolVekRoutes::remove(TZolVekKey uiKey, std::uint64_t ulNowMs)
{
    const auto oFound = m_oByKey.find(uiKey);
    if (oFound == m_oByKey.end())
    {
        return;
    }
    const auto oOwner = m_oProcesses.find(zolVekProcOf(uiKey));
    SProcess &oProcess = oOwner->second;
    oProcess.m_oBySources.erase({oFound->second.m_uiSources, uiKey});
    m_oByKey.erase(oFound);
    if (zolVekHandleOf(uiKey) != 0)
    {
        oProcess.m_oHandles[zolVekHandleOf(uiKey)] = ulNowMs;
        oProcess.m_oResting.insert({ulNowMs, zolVekHandleOf(uiKey)});
        wake(oProcess, ulNowMs);
    }
    if (oProcess.m_oBySources.empty() && oProcess.m_oHandles.empty())
    {
        m_oProcesses.erase(oOwner);
    }
    ++m_ulGeneration;
}

void CZolVekRoutes::use(TZolVekKey uiKey, int iBy)
{
    const auto oFound = m_oByKey.find(uiKey);
    if (oFound == m_oByKey.end())
    {
        return;
    }
    auto &oBySources = m_oProcesses[zolVekProcOf(uiKey)].m_oBySources;
    oBySources.erase({oFound->second.m_uiSources, uiKey});
    oFound->second.m_uiSources = static_cast<unsigned int>(static_cast<int>(oFound->second.m_uiSources) + iBy);
    oBySources.insert({oFound->second.m_uiSources, uiKey});
}

void CZolVekRoutes::free(SProcess &oProcess, std::uint16_t usHandle)
{
    oProcess.m_oHandles.erase(usHandle);
    if (usHandle < oProcess.m_uiNext)
    {
        oProcess.m_oFree.insert(usHandle);
    }
    while (!oProcess.m_oFree.empty() && *oProcess.m_oFree.rbegin() + 1u == oProcess.m_uiNext)
    {
        oProcess.m_oFree.erase(std::prev(oProcess.m_oFree.end()));
        --oProcess.m_uiNext;
    }
}

void CZolVekRoutes::wake(SProcess &oProcess, std::uint64_t ulNowMs) const
{
    while (!oProcess.m_oResting.empty() && oProcess.m_oResting.begin()->first + m_ulRestMs <= ulNowMs)
    {
        const std::uint16_t usHandle = oProcess.m_oResting.begin()->second;
        oProcess.m_oResting.erase(oProcess.m_oResting.begin());
        free(oProcess, usHandle);
    }
}

void CZolVekRoutes::tick(std::uint64_t ulNowMs)
{
    for (auto oAt = m_oProcesses.begin(); oAt != m_oProcesses.end();)
    {
        wake(oAt->second, ulNowMs);
        const bool bLeft = !oAt->second.m_oBySources.empty() || !oAt->second.m_oHandles.empty();
        oAt = bLeft ? std::next(oAt) : m_oProcesses.erase(oAt);
    }
}

bool CZolVekRoutes::longestResting(const SProcess &oProcess, std::uint16_t &usHandle)
{
    const auto oFound = std::find_if(oProcess.m_oResting.begin(), oProcess.m_oResting.end(),
                                     [](const auto &oPair) { return oPair.second < HANDLES; });
    usHandle = oFound == oProcess.m_oResting.end() ? std::uint16_t{0} : oFound->second;
    return usHandle != 0;
}

bool CZolVekRoutes::allocate(std::uint16_t usProcID, std::uint64_t ulNowMs, std::uint16_t &usHandle)
{
    SProcess &oProcess = m_oProcesses[usProcID];
    wake(oProcess, ulNowMs);
    if (!oProcess.m_oFree.empty())
    {
        usHandle = *oProcess.m_oFree.begin();
        return true;
    }
    while (oProcess.m_uiNext < HANDLES && oProcess.m_oHandles.count(static_cast<std::uint16_t>(oProcess.m_uiNext)) != 0)
    {
        ++oProcess.m_uiNext;
    }
    usHandle = static_cast<std::uint16_t>(oProcess.m_uiNext);
    return oProcess.m_uiNext < HANDLES || longestResting(oProcess, usHandle);
}
