#ifndef ZOL_VEK_PUBLISHER_H
#define ZOL_VEK_PUBLISHER_H

#include "gateway/route/ZolVekRuns.h"
#include "gateway/route/ZolVekSubscriptions.h"

#include <deque>
#include <vector>

/// Frames for many receivers: broadcasts, and publications to the subscribers of their command. The payload of each is
/// in memory once. A frame goes to all its receivers or, while one of them has no room, to none yet.
///
/// Threads: the routing thread only.
class CZolVekPublisher
{
public:
    CZolVekPublisher(const SZolVekSettings &oSettings, SZolVekStatistics &oStatistics, const CZolVekRoutes &oRoutes,
                     SZolVekAgenda &oAgenda, CZolVekDelivery &oDelivery, CZolVekBackPressure &oBackPressure,
                     CZolVekRuns &oRuns, const CZolVekSubscriptions &oSubscriptions)
        : m_oSettings(oSettings), m_oStatistics(oStatistics), m_oRoutes(oRoutes), m_oAgenda(oAgenda),
          m_oDelivery(oDelivery), m_oBackPressure(oBackPressure), m_oRuns(oRuns), m_oSubscriptions(oSubscriptions)
    {
    }
    CZolVekPublisher(const CZolVekPublisher &) = delete;
    CZolVekPublisher &operator=(const CZolVekPublisher &) = delete;

    /// Publications are held back until then, so that subscribers that come back after a start miss nothing.
    void graceUntil(std::uint64_t ulUntilMs) { m_ulGraceUntilMs = ulUntilMs; }

    /// Those that are held back go to the subscribers that there are; what reaches nobody is counted.
    void endGrace();

    EnumZolVekVerdict toAll(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict toSubscribers(CZolVekSession &oFrom, const CZolVekFrame &oFrame);

    /// Looks whether the grace is over.
    void tick();

    /// A pipe has gone: nothing is published to it any more, and what it had begun is forgotten with it.
    void gone(CZolVekSession &oSession);

private:
    struct SHeld
    {
        CZolVekSession *m_poFrom; // null when it has gone
        SZolVekRecord *m_poRecord;
    };

    EnumZolVekVerdict publishBlock(CZolVekSession &oFrom, const CZolVekFrame &oFrame, bool bHeld);
    EnumZolVekVerdict publishTo(CZolVekSession *poFrom, const CZolVekFrame &oFrame,
                                const std::vector<SZolVekSubscriber> &oSubscribers, bool bHeld);
    CZolVekSession *findFull(const CZolVekSession *poFrom, const CZolVekFrame &oFrame,
                             const std::vector<SZolVekSubscriber> &oSubscribers);
    void begin(CZolVekSession &oFrom, const CZolVekFrame &oFrame, SZolVekPublication &oPublication);
    void keepBlock(CZolVekSession &oFrom, SZolVekPublication &oPublication, SZolVekRecord *poRecord);
    void finish(CZolVekSession &oFrom, TZolVekKey uiSource, SZolVekPublication &oPublication);
    EnumZolVekVerdict hold(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    void releaseHeld(std::uint64_t *pulUnheard);
    static void forget(const CZolVekSession &oSession, std::vector<SZolVekSubscriber> &oSubscribers);

    const SZolVekSettings &m_oSettings;
    SZolVekStatistics &m_oStatistics;
    const CZolVekRoutes &m_oRoutes;
    SZolVekAgenda &m_oAgenda;
    CZolVekDelivery &m_oDelivery;
    CZolVekBackPressure &m_oBackPressure;
    CZolVekRuns &m_oRuns;
    const CZolVekSubscriptions &m_oSubscriptions;

    unsigned int m_uiPublications = 0; // big ones under way
    std::uint64_t m_ulGraceUntilMs = 0;
    std::deque<SHeld> m_oHeld; // publications of the grace, oldest first
    std::uint64_t m_ulHeldBytes = 0;
};

#endif
