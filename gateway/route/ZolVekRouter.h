#ifndef ZOL_VEK_ROUTER_H
#define ZOL_VEK_ROUTER_H

#include "gateway/route/ZolVekAnswers.h"
#include "gateway/route/ZolVekBackPressure.h"
#include "gateway/route/ZolVekDelivery.h"
#include "gateway/route/ZolVekPolicy.h"
#include "gateway/route/ZolVekPublisher.h"
#include "gateway/route/ZolVekRoutes.h"
#include "gateway/route/ZolVekRuns.h"
#include "gateway/route/ZolVekSubscriptions.h"

#include <algorithm>

/// Decides where each frame of a registered pipe goes, and has it put there.
///
///     route --- one receiver ----- resolve ---- back-pressure: room? ---- delivery
///           |                                     no: drop, or stall        |
///           +-- many receivers --- publisher ------+                        v
///           +-- the gateway ------ answers --------+                     outboxes
///
/// Threads:   the routing thread only; no lock.
/// Memory:    frames are not copied here. What outboxes still owe when a turn ends is kept by endTurn().
/// Order:     of frames from one pipe to another one: as they came.
class CZolVekRouter
{
public:
    CZolVekRouter(const SZolVekSettings &oSettings, SZolVekStatistics &oStatistics, SZolVekMemory &oMemory,
                  CZolVekRoutes &oRoutes, SZolVekAgenda &oAgenda)
        : m_oStatistics(oStatistics), m_oRoutes(oRoutes), m_oPolicy(oSettings), m_oDelivery(oMemory, oAgenda),
          m_oBackPressure(oSettings, oStatistics, oMemory, oRoutes, oAgenda, m_oDelivery),
          m_oRuns(oSettings, oStatistics, oRoutes, oAgenda, m_oBackPressure),
          m_oPublisher(oSettings, oStatistics, oRoutes, oAgenda, m_oDelivery, m_oBackPressure, m_oRuns,
                       m_oSubscriptions),
          m_oAnswers(oSettings, oRoutes, m_oDelivery, m_oBackPressure, m_oSubscriptions)
    {
    }
    CZolVekRouter(const CZolVekRouter &) = delete;
    CZolVekRouter &operator=(const CZolVekRouter &) = delete;

    /// Publications are held back until then.
    void graceUntil(std::uint64_t ulUntilMs) { m_oPublisher.graceUntil(ulUntilMs); }

    /// Publications that are held back go to the subscribers that there are.
    void endGrace() { m_oPublisher.endGrace(); }

    /// To be called before the frames of a turn.
    void beginTurn() { m_oBackPressure.beginTurn(); }

    /// What is left of the total bound.
    std::uint64_t freeBytes() const { return m_oBackPressure.freeBytes(); }

    /// The most that a pipe may be read in this turn.
    std::size_t readBytes() const { return m_oBackPressure.readBytes(); }

    EnumZolVekVerdict route(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
    {
        // the common case: a run of whole messages to one receiver that takes them
        const TZolVekKey uiKey = oFrame.destination();
        if (uiKey == oFrom.m_uiLastKey && oFrom.m_ulLastGeneration == m_oRoutes.generation() &&
            (oFrame.type() == CZolMsgPdu::MSG_REQUEST || oFrame.type() == CZolMsgPdu::MSG_RESPONSE) &&
            m_oPolicy.isOrdinary(oFrame, oFrom.m_uiKey))
        {
            CZolVekSession &oTarget = *oFrom.m_poLastTarget;
            if (m_oBackPressure.isLow(oTarget))
            {
                m_oDelivery.queue(oFrom, oTarget, oFrame);
                return VEK_TAKEN;
            }
        }
        return routeByType(oFrom, oFrame);
    }

    /// To be called when the outboxes of the turn have been flushed and before the read buffer is used again.
    void endTurn() { m_oDelivery.endTurn(); }

    /// oSession waits for nobody any more.
    void release(CZolVekSession &oSession) { m_oBackPressure.release(oSession); }

    /// Wakes the pipes that wait for oSession if it can take frames again.
    void wakeWaiters(CZolVekSession &oSession) { m_oBackPressure.wakeWaiters(oSession); }

    /// A pipe that was up has gone: frees what others keep of it.
    void gone(CZolVekSession &oSession);

    /// Once a second or more often: the end of the grace, and runs that have stood still for too long.
    void tick();

    /// Whether sessions keep whom they send to. What they have kept is forgotten when that ends.
    void countFlows(bool bCount);
    SZolVekFlowBudget &flowBudget() { return m_oDelivery.flowBudget(); }

    const CZolVekSubscriptions &subscriptions() const { return m_oSubscriptions; }

private:
    EnumZolVekVerdict routeByType(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    bool mayPass(const CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict toProcess(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    CZolVekSession *resolve(CZolVekSession &oFrom, TZolVekKey uiKey);
    CZolVekSession *resolveById(CZolVekSession &oFrom, std::uint16_t usProcID, bool &bForNow);
    static bool hasRun(const CZolVekSession &oFrom, const CZolVekSession &oTarget);

    SZolVekStatistics &m_oStatistics;
    CZolVekRoutes &m_oRoutes;
    const CZolVekPolicy m_oPolicy;

    CZolVekSubscriptions m_oSubscriptions;
    CZolVekDelivery m_oDelivery;
    CZolVekBackPressure m_oBackPressure;
    CZolVekRuns m_oRuns;
    CZolVekPublisher m_oPublisher;
    CZolVekAnswers m_oAnswers;
};

#endif
