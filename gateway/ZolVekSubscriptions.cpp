#include "ZolVekSubscriptions.h"

#include <algorithm>

bool CZolVekSubscriptions::add(std::uint32_t uiCommand, const SZolVekSubscriber &oSubscriber)
{
    std::vector<SZolVekSubscriber> &oList = m_oByCommand[uiCommand];
    if (std::find(oList.begin(), oList.end(), oSubscriber) != oList.end())
    {
        return false;
    }
    oList.push_back(oSubscriber);
    std::vector<std::uint32_t> &oCommands = m_oBySession[oSubscriber.m_poSession];
    if (std::find(oCommands.begin(), oCommands.end(), uiCommand) == oCommands.end())
    {
        oCommands.push_back(uiCommand);
    }
    ++m_ulCount;
    return true;
}

bool CZolVekSubscriptions::remove(std::uint32_t uiCommand, const SZolVekSubscriber &oSubscriber)
{
    const auto oFound = m_oByCommand.find(uiCommand);
    if (oFound == m_oByCommand.end())
    {
        return false;
    }
    std::vector<SZolVekSubscriber> &oList = oFound->second;
    const auto oAt = std::find(oList.begin(), oList.end(), oSubscriber);
    if (oAt == oList.end())
    {
        return false;
    }
    oList.erase(oAt);
    --m_ulCount;
    if (oList.empty())
    {
        m_oByCommand.erase(oFound);
    }
    return true;
}

void CZolVekSubscriptions::removeAll(const CZolVekSession *poSession)
{
    const auto oFound = m_oBySession.find(poSession);
    if (oFound == m_oBySession.end())
    {
        return;
    }
    for (const std::uint32_t uiCommand : oFound->second)
    {
        const auto oList = m_oByCommand.find(uiCommand);
        if (oList == m_oByCommand.end())
        {
            continue;
        }
        auto &oSubscribers = oList->second;
        const auto oEnd = std::remove_if(oSubscribers.begin(), oSubscribers.end(),
                                         [=](const SZolVekSubscriber &o) { return o.m_poSession == poSession; });
        m_ulCount -= static_cast<std::size_t>(oSubscribers.end() - oEnd);
        oSubscribers.erase(oEnd, oSubscribers.end());
        if (oSubscribers.empty())
        {
            m_oByCommand.erase(oList);
        }
    }
    m_oBySession.erase(oFound);
}

const std::vector<SZolVekSubscriber> *CZolVekSubscriptions::find(std::uint32_t uiCommand) const
{
    const auto oFound = m_oByCommand.find(uiCommand);
    return oFound == m_oByCommand.end() ? nullptr : &oFound->second;
}
