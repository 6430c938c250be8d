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
    SOwner &oOwner = m_oBySession[oSubscriber.m_poSession];
    ++oOwner.m_oCommands[uiCommand];
    ++oOwner.m_ulCount;
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
    SOwner &oOwner = m_oBySession[oSubscriber.m_poSession];
    --oOwner.m_ulCount;
    if (--oOwner.m_oCommands[uiCommand] == 0)
    {
        oOwner.m_oCommands.erase(uiCommand);
    }
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
    for (const auto &oPair : oFound->second.m_oCommands)
    {
        const auto oList = m_oByCommand.find(oPair.first);
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

std::size_t CZolVekSubscriptions::countOf(const CZolVekSession *poSession) const
{
    const auto oFound = m_oBySession.find(poSession);
    return oFound == m_oBySession.end() ? 0 : oFound->second.m_ulCount;
}

const std::vector<SZolVekSubscriber> *CZolVekSubscriptions::find(std::uint32_t uiCommand) const
{
    const auto oFound = m_oByCommand.find(uiCommand);
    return oFound == m_oByCommand.end() ? nullptr : &oFound->second;
}
