#include "gateway/route/ZolVekSubscriptions.h"

bool CZolVekSubscriptions::add(std::uint32_t uiCommand, const SZolVekSubscriber &oSubscriber)
{
    std::vector<SZolVekSubscriber> &oList = m_oByCommand[uiCommand];
    TPlaces &oPlaces = m_oBySession[oSubscriber.m_poSession];
    if (!oPlaces.insert({nameOf(uiCommand, oSubscriber), static_cast<std::uint32_t>(oList.size())}).second)
    {
        return false;
    }
    oList.push_back(oSubscriber);
    ++m_ulCount;
    return true;
}

bool CZolVekSubscriptions::remove(std::uint32_t uiCommand, const SZolVekSubscriber &oSubscriber)
{
    const auto oOwner = m_oBySession.find(oSubscriber.m_poSession);
    if (oOwner == m_oBySession.end())
    {
        return false;
    }
    const auto oPlace = oOwner->second.find(nameOf(uiCommand, oSubscriber));
    if (oPlace == oOwner->second.end())
    {
        return false;
    }
    takeOut(uiCommand, oPlace->second);
    oOwner->second.erase(oPlace);
    if (oOwner->second.empty())
    {
        m_oBySession.erase(oOwner);
    }
    return true;
}

void CZolVekSubscriptions::takeOut(std::uint32_t uiCommand, std::uint32_t uiPlace)
{
    const auto oFound = m_oByCommand.find(uiCommand);
    std::vector<SZolVekSubscriber> &oList = oFound->second;
    // the last one takes its place
    const SZolVekSubscriber oLast = oList.back();
    oList[uiPlace] = oLast;
    m_oBySession[oLast.m_poSession][nameOf(uiCommand, oLast)] = uiPlace;
    oList.pop_back();
    --m_ulCount;
    if (oList.empty())
    {
        m_oByCommand.erase(oFound);
    }
}

void CZolVekSubscriptions::removeAll(const CZolVekSession *poSession)
{
    const auto oOwner = m_oBySession.find(poSession);
    if (oOwner == m_oBySession.end())
    {
        return;
    }
    for (const auto &oPair : oOwner->second)
    {
        takeOut(static_cast<std::uint32_t>(oPair.first >> 24), oPair.second);
    }
    m_oBySession.erase(oOwner);
}

std::size_t CZolVekSubscriptions::countOf(const CZolVekSession *poSession) const
{
    const auto oFound = m_oBySession.find(poSession);
    return oFound == m_oBySession.end() ? 0 : oFound->second.size();
}

const std::vector<SZolVekSubscriber> *CZolVekSubscriptions::find(std::uint32_t uiCommand) const
{
    const auto oFound = m_oByCommand.find(uiCommand);
    return oFound == m_oByCommand.end() ? nullptr : &oFound->second;
}
