#ifndef ZOL_VEK_SUBSCRIPTIONS_H
#define ZOL_VEK_SUBSCRIPTIONS_H

#include "gateway/pipe/ZolVekFrame.h"

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
};

/// Who wants which command. Adding and removing cost the same however many subscribers a command has.
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

    /// The subscribers of a command, in no particular order, or null. Valid until the next change.
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
    /// The places of a pipe's subscriptions in the lists of m_oByCommand, by command and task.
    using TPlaces = std::unordered_map<std::uint64_t, std::uint32_t>;

    static std::uint64_t nameOf(std::uint32_t uiCommand, const SZolVekSubscriber &oSubscriber)
    {
        return std::uint64_t{uiCommand} << 24 | std::uint64_t{oSubscriber.m_ucModule} << 16 | oSubscriber.m_usTask;
    }
    void takeOut(std::uint32_t uiCommand, std::uint32_t uiPlace);

    std::unordered_map<std::uint32_t, std::vector<SZolVekSubscriber>> m_oByCommand;
    std::unordered_map<const CZolVekSession *, TPlaces> m_oBySession;
    std::size_t m_ulCount = 0;
};

#endif
