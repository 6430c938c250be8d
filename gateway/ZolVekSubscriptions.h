#ifndef ZOL_VEK_SUBSCRIPTIONS_H
#define ZOL_VEK_SUBSCRIPTIONS_H

#include "ZolVekFrame.h"

#include <cstdint>
#include <unordered_map>
#include <vector>

class CZolVekSession;

/// Where a subscribed command goes.
struct SZolVekSubscriber
{
    CZolVekSession *m_poSession = nullptr;
    std::uint8_t m_ucModule = 0;
    std::uint16_t m_usTask = 0;

    bool operator==(const SZolVekSubscriber &oOther) const
    {
        return m_poSession == oOther.m_poSession && m_ucModule == oOther.m_ucModule && m_usTask == oOther.m_usTask;
    }
};

/// Who wants which command.
///
/// Threads: the routing thread only.
class CZolVekSubscriptions
{
public:
    /// A second subscription of the same task to the same command counts once. True if it is new.
    bool add(std::uint32_t uiCommand, const SZolVekSubscriber &oSubscriber);

    /// True if there was one.
    bool remove(std::uint32_t uiCommand, const SZolVekSubscriber &oSubscriber);

    /// Takes all subscriptions of a pipe out.
    void removeAll(const CZolVekSession *poSession);

    /// The subscribers of a command in the order of subscribing, or null. Valid until the next change.
    const std::vector<SZolVekSubscriber> *find(std::uint32_t uiCommand) const;

    std::size_t size() const { return m_ulCount; }

    /// Subscriptions of one pipe.
    std::size_t countOf(const CZolVekSession *poSession) const;

    /// fnEach(command, subscriber) for all of them.
    template <typename Function>
    void forEach(Function fnEach) const
    {
        for (const auto &oPair : m_oByCommand)
        {
            for (const SZolVekSubscriber &oSubscriber : oPair.second)
            {
                fnEach(oPair.first, oSubscriber);
            }
        }
    }

private:
    struct SOwner
    {
        std::unordered_map<std::uint32_t, unsigned int> m_oCommands; // and how many of its tasks want them
        std::size_t m_ulCount = 0;
    };

    std::unordered_map<std::uint32_t, std::vector<SZolVekSubscriber>> m_oByCommand;
    std::unordered_map<const CZolVekSession *, SOwner> m_oBySession;
    std::size_t m_ulCount = 0;
};

#endif
