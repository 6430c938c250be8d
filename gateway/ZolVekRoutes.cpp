#include "ZolVekRoutes.h"

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
    if (oFound == m_oProcesses.end() || oFound->second->m_oBySources.empty())
    {
        return nullptr;
    }
    return find(oFound->second->m_oBySources.begin()->second);
}

CZolVekRoutes::SProcess &CZolVekRoutes::process(std::uint16_t usProcID)
{
    std::unique_ptr<SProcess> &poProcess = m_oProcesses[usProcID];
    if (poProcess == nullptr)
    {
        poProcess = std::make_unique<SProcess>();
    }
    return *poProcess;
}

void CZolVekRoutes::setTaken(SProcess &oProcess, unsigned int uiHandle, bool bTaken)
{
    if (uiHandle >= oProcess.m_oTaken.size())
    {
        oProcess.m_oTaken.resize(uiHandle + 1);
    }
    oProcess.m_oTaken[uiHandle] = bTaken;
    if (!bTaken && uiHandle < oProcess.m_uiLowest)
    {
        oProcess.m_uiLowest = uiHandle;
    }
}

void CZolVekRoutes::add(TZolVekKey uiKey, CZolVekSession *poSession)
{
    m_oByKey[uiKey] = {poSession, 0};
    SProcess &oProcess = process(zolVekProcOf(uiKey));
    oProcess.m_oBySources.insert({0, uiKey});
    if (zolVekHandleOf(uiKey) != 0)
    {
        setTaken(oProcess, zolVekHandleOf(uiKey), true);
        oProcess.m_oFreedMs.erase(zolVekHandleOf(uiKey));
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
    SProcess &oProcess = process(zolVekProcOf(uiKey));
    oProcess.m_oBySources.erase({oFound->second.m_uiSources, uiKey});
    m_oByKey.erase(oFound);
    if (zolVekHandleOf(uiKey) != 0)
    {
        // its bit stays until it has rested
        oProcess.m_oResting.push_back({ulNowMs, zolVekHandleOf(uiKey)});
        oProcess.m_oFreedMs[zolVekHandleOf(uiKey)] = ulNowMs;
        wake(oProcess, ulNowMs);
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
    auto &oBySources = process(zolVekProcOf(uiKey)).m_oBySources;
    oBySources.erase({oFound->second.m_uiSources, uiKey});
    oFound->second.m_uiSources = static_cast<unsigned int>(static_cast<int>(oFound->second.m_uiSources) + iBy);
    oBySources.insert({oFound->second.m_uiSources, uiKey});
}

bool CZolVekRoutes::takeRested(SProcess &oProcess, std::uint64_t ulFreedBefore, std::uint16_t &usHandle)
{
    while (!oProcess.m_oResting.empty())
    {
        const auto oOldest = oProcess.m_oResting.front();
        const auto oFreed = oProcess.m_oFreedMs.find(oOldest.second);
        const bool bHolds = oFreed != oProcess.m_oFreedMs.end() && oFreed->second == oOldest.first;
        if (bHolds && oOldest.first > ulFreedBefore)
        {
            return false;
        }
        oProcess.m_oResting.pop_front();
        if (bHolds)
        {
            oProcess.m_oFreedMs.erase(oFreed);
            usHandle = oOldest.second;
            return true;
        }
    }
    return false;
}

void CZolVekRoutes::wake(SProcess &oProcess, std::uint64_t ulNowMs)
{
    std::uint16_t usHandle = 0;
    while (ulNowMs >= m_ulRestMs && takeRested(oProcess, ulNowMs - m_ulRestMs, usHandle))
    {
        setTaken(oProcess, usHandle, false);
    }
}

bool CZolVekRoutes::allocate(std::uint16_t usProcID, std::uint64_t ulNowMs, std::uint16_t &usHandle)
{
    SProcess &oProcess = process(usProcID);
    wake(oProcess, ulNowMs);
    unsigned int uiHandle = oProcess.m_uiLowest;
    while (uiHandle < oProcess.m_oTaken.size() && oProcess.m_oTaken[uiHandle])
    {
        ++uiHandle;
    }
    oProcess.m_uiLowest = uiHandle;
    if (uiHandle < HANDLES)
    {
        usHandle = static_cast<std::uint16_t>(uiHandle);
        return true;
    }
    return takeRested(oProcess, ulNowMs, usHandle);
}
