#ifndef ZOL_VEK_DELIVERY_H
#define ZOL_VEK_DELIVERY_H

#include "gateway/pipe/ZolVekSession.h"
#include "gateway/route/ZolVekAgenda.h"
#include "gateway/watch/ZolVekLog.h"

#include <unordered_map>
#include <vector>

/// What became of a frame.
enum EnumZolVekVerdict
{
    VEK_TAKEN,  ///< queued, answered or dropped: its pipe goes on
    VEK_STALLED ///< its pipe waits for another one and is not read until then; the frame comes again
};

/// Puts frames into outboxes, and counts them: the last step of all roads. Whether a frame may go there others have
/// decided.
///
/// Threads: the routing thread only.
class CZolVekDelivery
{
public:
    CZolVekDelivery(SZolVekMemory &oMemory, SZolVekAgenda &oAgenda) : m_oMemory(oMemory), m_oAgenda(oAgenda) {}
    CZolVekDelivery(const CZolVekDelivery &) = delete;
    CZolVekDelivery &operator=(const CZolVekDelivery &) = delete;

    /// The frame as it is, from where it was read.
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

    /// A frame has been added to the outbox of oTarget; poFrom is null when it is the gateway's own or its source has
    /// gone.
    void queued(CZolVekSession *poFrom, CZolVekSession &oTarget, std::uint32_t uiBytes)
    {
        ++oTarget.m_ulFramesQueued;
        m_oAgenda.dirty(oTarget);
        if (m_bCountFlows && poFrom != nullptr)
        {
            poFrom->flows().count(oTarget.m_ulSerial, uiBytes, m_oFlowBudget);
        }
    }

    /// The frame as a record that many outboxes may share; without a reference of the caller's.
    SZolVekRecord *recordOf(const CZolVekFrame &oFrame);

    /// Keeps what outboxes still owe of the records of this turn. To be called before the read buffer is used again.
    void endTurn();

    /// Counts a frame that goes no further, or a remark about it. Lines of one counter come at most once a second for
    /// each destination, and ten times in all.
    void drop(std::uint64_t &ulCounter, const CZolVekFrame &oFrame, const char *pcWhy);

    /// Whether sessions keep whom they send to.
    void countFlows(bool bCount) { m_bCountFlows = bCount; }

    /// Of the flows that sessions keep. Pipes that go take theirs along, so whoever walks over them corrects the
    /// number.
    SZolVekFlowBudget &flowBudget() { return m_oFlowBudget; }

private:
    SZolVekMemory &m_oMemory;
    SZolVekAgenda &m_oAgenda;

    std::vector<SZolVekRecord *> m_oTurnRecords; // made in this turn from the read buffer, each with our reference
    bool m_bCountFlows = false;
    SZolVekFlowBudget m_oFlowBudget;
    std::unordered_map<const std::uint64_t *, CZolVekRateLimit> m_oDropLines; // by counter; in each by destination
};

#endif
