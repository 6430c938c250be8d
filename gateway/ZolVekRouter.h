#ifndef ZOL_VEK_ROUTER_H
#define ZOL_VEK_ROUTER_H

#include "ZolVekAgenda.h"
#include "ZolVekLog.h"
#include "ZolVekPolicy.h"
#include "ZolVekRoutes.h"
#include "ZolVekSession.h"
#include "ZolVekSettings.h"
#include "ZolVekStatistics.h"
#include "ZolVekSubscriptions.h"

#include <algorithm>
#include <deque>

/// What became of a frame.
enum EnumZolVekVerdict
{
    VEK_TAKEN,  ///< queued, answered or dropped: its pipe goes on
    VEK_STALLED ///< its pipe waits for another one and is not read until then; the frame comes again
};

/// Decides where each frame of a registered pipe goes, and puts it there.
///
/// Threads:   the routing thread only; no lock.
/// Memory:    frames are not copied here. What outboxes still owe when a turn ends is kept by endTurn().
/// Order:     of frames from one pipe to another one: as they came.
class CZolVekRouter
{
public:
    CZolVekRouter(const SZolVekSettings &oSettings, SZolVekStatistics &oStatistics, SZolVekMemory &oMemory,
                  CZolVekRoutes &oRoutes, SZolVekAgenda &oAgenda)
        : m_oSettings(oSettings), m_oStatistics(oStatistics), m_oMemory(oMemory), m_oRoutes(oRoutes),
          m_oAgenda(oAgenda), m_oPolicy(oSettings)
    {
    }
    CZolVekRouter(const CZolVekRouter &) = delete;
    CZolVekRouter &operator=(const CZolVekRouter &) = delete;

    /// Publications are held back until then.
    void graceUntil(std::uint64_t ulUntilMs) { m_ulGraceUntilMs = ulUntilMs; }

    /// To be called before the frames of a turn.
    void beginTurn();

    /// What a large frame may still take of the total bound.
    std::uint64_t freeBytes() const
    {
        return m_oSettings.m_ulTotalQueueBytes - std::min(m_oSettings.m_ulTotalQueueBytes, m_oMemory.m_ulBytes);
    }

    /// oFrom is not read until memory may be free again.
    void waitForMemory(CZolVekSession &oFrom) { stall(oFrom, oFrom); }

    EnumZolVekVerdict route(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
    {
        // the common case: a run of whole messages to one receiver that takes them
        const TZolVekKey uiKey = oFrame.destination();
        if (uiKey == oFrom.m_uiLastKey && oFrom.m_ulLastGeneration == m_oRoutes.generation() &&
            (oFrame.type() == CZolMsgPdu::MSG_REQUEST || oFrame.type() == CZolMsgPdu::MSG_RESPONSE) &&
            m_oPolicy.isOrdinary(oFrame, oFrom.m_uiKey))
        {
            CZolVekSession &oTarget = *oFrom.m_poLastTarget;
            if (oTarget.m_poRuns == nullptr && oTarget.m_oOutbox.bytes() < m_ulLimit)
            {
                queue(oFrom, oTarget, oFrame);
                return VEK_TAKEN;
            }
        }
        return routeByType(oFrom, oFrame);
    }

    /// To be called when the outboxes of the turn have been flushed and before the read buffer is used again.
    void endTurn();

    /// Wakes the pipes that wait for oSession if it can take frames again.
    void wakeWaiters(CZolVekSession &oSession);

    /// A pipe that was up has gone: frees what others keep of it.
    void gone(CZolVekSession &oSession);

    /// Once a second or more often: the end of the grace, and runs that have stood still for too long.
    void tick();

    /// Whether sessions keep whom they send to.
    void countFlows(bool bCount) { m_bCountFlows = bCount; }

    const CZolVekSubscriptions &subscriptions() const { return m_oSubscriptions; }

private:
    enum EnumRoom
    {
        ROOM_YES,
        ROOM_WAIT, ///< the source is to wait for the target
        ROOM_DROP  ///< the frame is lost for this target
    };
    struct SHeld
    {
        CZolVekSession *m_poFrom; // null when it has gone
        SZolVekRecord *m_poRecord;
    };

    void queue(CZolVekSession &oFrom, CZolVekSession &oTarget, const CZolVekFrame &oFrame)
    {
        if (oFrame.m_poRecord != nullptr)
        {
            oTarget.m_oOutbox.addRecord(oFrame.m_poRecord, SZolVekAddress());
        }
        else
        {
            oTarget.m_oOutbox.addBytes(oFrame.data(), oFrame.length());
        }
        queued(&oFrom, oTarget, oFrame.length());
    }

    /// A frame has been added to the outbox of oTarget; poFrom is null when its source has gone.
    void queued(CZolVekSession *poFrom, CZolVekSession &oTarget, std::uint32_t uiBytes)
    {
        ++m_oStatistics.m_ulFramesOut;
        ++oTarget.m_ulFramesOut;
        m_oAgenda.dirty(oTarget);
        if (m_bCountFlows && poFrom != nullptr)
        {
            poFrom->flows().count(oTarget.m_ulSerial, uiBytes);
        }
    }

    bool mayPass(const CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    void dropSlow(CZolVekSession &oTarget, const CZolVekFrame &oFrame);
    EnumZolVekVerdict routeByType(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict toProcess(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict toAll(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict toSubscribers(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict publishBlock(CZolVekSession &oFrom, const CZolVekFrame &oFrame, bool bHeld);
    EnumZolVekVerdict publishTo(CZolVekSession *poFrom, const CZolVekFrame &oFrame,
                                const std::vector<SZolVekSubscriber> &oSubscribers, bool bHeld);
    EnumZolVekVerdict hold(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    void releaseHeld();
    void finishPublication(CZolVekSession &oFrom, TZolVekKey uiSource, SZolVekPublication &oPublication);
    void keepBlock(CZolVekSession &oFrom, SZolVekPublication &oPublication, SZolVekRecord *poRecord);

    EnumZolVekVerdict answerHello(CZolVekSession &oFrom);
    EnumZolVekVerdict answerSubscribe(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict answerAddress(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict answer(CZolVekSession &oFrom, const CZolVekFrame &oFrame, const char *pcPayload,
                             std::uint32_t uiLength);
    std::uint16_t portOf(TZolVekKey uiKey) const;

    CZolVekSession *resolve(CZolVekSession &oFrom, TZolVekKey uiKey);
    CZolVekSession *resolveById(CZolVekSession &oFrom, std::uint16_t usProcID);

    EnumRoom roomAt(CZolVekSession &oTarget, const CZolVekSession *poFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict stall(CZolVekSession &oFrom, CZolVekSession &oTarget);
    void noteBlock(CZolVekSession &oTarget, CZolVekSession &oFrom, const CZolVekFrame &oFrame,
                   const SZolVekAddress *poAddress);
    void loseBlock(CZolVekSession &oTarget, CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    void endRun(CZolVekSession &oTarget, TZolVekKey uiSource);
    void abortRun(CZolVekSession &oTarget, const SZolVekRun &oRun);
    void abortRunsOf(const CZolVekSession &oOwner);
    void forget(const CZolVekSession &oSession, std::vector<SZolVekSubscriber> &oSubscribers) const;
    void drop(std::uint64_t &ulCounter, const CZolVekFrame &oFrame, const char *pcWhy);
    SZolVekRecord *recordOf(const CZolVekFrame &oFrame);

    const SZolVekSettings &m_oSettings;
    SZolVekStatistics &m_oStatistics;
    SZolVekMemory &m_oMemory;
    CZolVekRoutes &m_oRoutes;
    SZolVekAgenda &m_oAgenda;
    const CZolVekPolicy m_oPolicy;

    CZolVekSubscriptions m_oSubscriptions;
    std::uint64_t m_ulLimit = 0;                 // bytes of an outbox from which on sources wait; of this turn
    std::vector<SZolVekRecord *> m_oTurnRecords; // made in this turn from the read buffer, each with our reference
    bool m_bCountFlows = false;
    unsigned int m_uiPublications = 0; // big ones under way
    std::uint64_t m_ulGraceUntilMs = 0;
    std::deque<SHeld> m_oHeld; // publications of the grace, oldest first
    std::uint64_t m_ulHeldBytes = 0;
    CZolVekRateLimit m_oDropLines; // by destination
    CZolVekRateLimit m_oSlowLines; // by the pipe that is slow
};

#endif
