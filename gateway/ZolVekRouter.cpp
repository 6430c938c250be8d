#include "ZolVekRouter.h"

#include "ZolErrors.h"
#include "ZolRunLog.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace
{

const TZolVekKey TO_ALL = 0xFFFFFFFF;
const TZolVekKey TO_GATEWAY = 0;
// A process has one big message under way to another one. Whoever forwards messages of others may have more, and one
// that makes up sources would have as many as it likes.
const std::size_t MAX_SPARE_RUNS = 4096;
const std::size_t MAX_PUBLICATIONS = 1024;   // of one pipe, under way at once
const std::size_t MAX_SUBSCRIPTIONS = 65536; // of one pipe
const unsigned int MAX_WAITING_HELLOS = 64;  // a peer that sends more without reading gets no further echo

bool isWhole(const CZolVekFrame &oFrame)
{
    return oFrame.type() == CZolMsgPdu::MSG_REQUEST || oFrame.type() == CZolMsgPdu::MSG_MULTICAST;
}

} // namespace

void CZolVekRouter::beginTurn()
{
    // The last sixteenth of the total is shared out evenly, so that a healthy pipe moves on, if in smaller steps,
    // however much a few stopped ones hold.
    const std::uint64_t ulTotal = m_oSettings.m_ulTotalQueueBytes;
    const std::uint64_t ulReserve = ulTotal / 16;
    m_ulLimit = m_oSettings.m_ulPipeQueueBytes;
    if (m_oMemory.m_ulBytes >= ulTotal - ulReserve)
    {
        m_ulLimit = std::min(m_ulLimit, ulReserve / std::max<std::uint64_t>(1, m_oRoutes.size()));
    }
}

void CZolVekRouter::endTurn()
{
    for (SZolVekRecord *poRecord : m_oTurnRecords)
    {
        if (poRecord->m_uiRefs > 1)
        {
            poRecord->keep();
        }
        poRecord->drop();
    }
    m_oTurnRecords.clear();
}

SZolVekRecord *CZolVekRouter::recordOf(const CZolVekFrame &oFrame)
{
    if (oFrame.m_poRecord != nullptr)
    {
        return oFrame.m_poRecord;
    }
    m_oTurnRecords.push_back(SZolVekRecord::borrow(oFrame.data(), oFrame.length(), &m_oMemory));
    return m_oTurnRecords.back();
}

EnumZolVekVerdict CZolVekRouter::routeByType(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (!m_oPolicy.isOrdinary(oFrame, oFrom.m_uiKey) && !mayPass(oFrom, oFrame))
    {
        return VEK_TAKEN;
    }
    switch (oFrame.type())
    {
    case CZolMsgPdu::MSG_REQUEST:
    case CZolMsgPdu::MSG_RESPONSE:
    case CZolMsgPdu::MSG_BIG_REQUEST:
    case CZolMsgPdu::MSG_BIG_RESPONSE:
        return toProcess(oFrom, oFrame);
    case CZolMsgPdu::MSG_REGISTER:
    case CZolMsgPdu::MSG_TIMER:
        return VEK_TAKEN; // a receiver of a pipe drops these without a word, and so do we
    case CZolMsgPdu::MSG_HELLO:
        return answerHello(oFrom);
    case CZolMsgPdu::MSG_SUBSCRIBE:
    case CZolMsgPdu::MSG_SUBSCRIBE_CANCEL:
        return answerSubscribe(oFrom, oFrame);
    case CZolMsgPdu::MSG_MULTICAST:
    case CZolMsgPdu::MSG_BIG_MULTICAST:
        return toSubscribers(oFrom, oFrame);
    case CZolMsgPdu::MSG_GET_ADDRESS:
        return answerAddress(oFrom, oFrame);
    default:
        drop(m_oStatistics.m_ulDropType, oFrame, "invalid message type");
        return VEK_TAKEN;
    }
}

bool CZolVekRouter::mayPass(const CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    switch (m_oPolicy.inspect(oFrame, oFrom.m_uiKey))
    {
    case VEK_REFUSE_DIRECT:
        drop(m_oStatistics.m_ulDropForbidden, oFrame, "a command that no process takes from another one");
        return false;
    case VEK_REFUSE_DEBUG:
        drop(m_oStatistics.m_ulDropDebug, oFrame, "a debug command, and its sender is not in DebugFrom");
        return false;
    case VEK_REFUSE_FOREIGN:
        drop(m_oStatistics.m_ulDropSource, oFrame, ("its source is not that of " + oFrom.name()).c_str());
        return false;
    case VEK_PASS_FOREIGN:
        drop(m_oStatistics.m_ulForeignSource, oFrame,
             ("goes on, although its source is not that of " + oFrom.name()).c_str());
        return true;
    default:
        return true;
    }
}

void CZolVekRouter::drop(std::uint64_t &ulCounter, const CZolVekFrame &oFrame, const char *pcWhy)
{
    ++ulCounter;
    const TZolVekKey uiKey = oFrame.destination();
    std::uint64_t ulHeldBack = 0;
    if (!m_oDropLines.pass(uiKey, m_oAgenda.m_ulNowMs, ulHeldBack))
    {
        return;
    }
    CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekRouter::drop",
                     "%s, type %u, command %u, from process %u handle %u to process %u handle %u, and %" PRIu64
                     " more since the last line",
                     pcWhy, oFrame.type(), oFrame.command(), zolVekProcOf(oFrame.source()),
                     zolVekHandleOf(oFrame.source()), zolVekProcOf(uiKey), zolVekHandleOf(uiKey), ulHeldBack);
}

// ---- One receiver -------------------------------------------------------------------------------------------------

EnumZolVekVerdict CZolVekRouter::toProcess(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    const TZolVekKey uiKey = oFrame.destination();
    const bool bRequest = oFrame.type() == CZolMsgPdu::MSG_REQUEST || oFrame.type() == CZolMsgPdu::MSG_BIG_REQUEST;
    if (bRequest && uiKey == TO_ALL)
    {
        return toAll(oFrom, oFrame);
    }
    if (bRequest && uiKey == TO_GATEWAY)
    {
        return toSubscribers(oFrom, oFrame);
    }
    CZolVekSession *const poTarget = resolve(oFrom, uiKey);
    if (poTarget == nullptr)
    {
        drop(m_oStatistics.m_ulDropNoRoute, oFrame, "no pipe to the destination");
        return VEK_TAKEN;
    }
    switch (roomAt(*poTarget, &oFrom, oFrame))
    {
    case ROOM_WAIT:
        return stall(oFrom, *poTarget);
    case ROOM_DROP:
        loseBlock(*poTarget, oFrom, oFrame);
        return VEK_TAKEN;
    default:
        queue(oFrom, *poTarget, oFrame);
        noteBlock(*poTarget, oFrom, oFrame, nullptr);
        return VEK_TAKEN;
    }
}

CZolVekSession *CZolVekRouter::resolve(CZolVekSession &oFrom, TZolVekKey uiKey)
{
    if (oFrom.m_uiLastKey == uiKey && oFrom.m_ulLastGeneration == m_oRoutes.generation())
    {
        return oFrom.m_poLastTarget;
    }
    CZolVekSession *const poTarget =
        zolVekHandleOf(uiKey) != 0 ? m_oRoutes.find(uiKey) : resolveById(oFrom, zolVekProcOf(uiKey));
    if (poTarget != nullptr)
    {
        oFrom.m_uiLastKey = uiKey;
        oFrom.m_poLastTarget = poTarget;
        oFrom.m_ulLastGeneration = m_oRoutes.generation();
    }
    return poTarget;
}

CZolVekSession *CZolVekRouter::resolveById(CZolVekSession &oFrom, std::uint16_t usProcID)
{
    SZolVekChoice &oChoice = oFrom.m_oChosen[usProcID];
    CZolVekSession *const poChosen = oChoice.m_ulSerial == 0 ? nullptr : m_oRoutes.find(oChoice.m_uiKey);
    const bool bStands = poChosen != nullptr && poChosen->m_ulSerial == oChoice.m_ulSerial;
    if (bStands && (zolVekHandleOf(oChoice.m_uiKey) == 0 || m_oRoutes.find(zolVekKey(usProcID, 0)) == nullptr))
    {
        return poChosen;
    }
    if (bStands && poChosen->m_poRuns != nullptr)
    {
        for (const auto &oPair : *poChosen->m_poRuns)
        {
            if (oPair.second.m_poOwner == &oFrom)
            {
                oFrom.m_ulLastGeneration = 0;
                return poChosen; // a big message is under way: its blocks stay together
            }
        }
    }
    CZolVekSession *const poTarget = m_oRoutes.choose(usProcID);
    if (bStands)
    {
        m_oRoutes.use(oChoice.m_uiKey, -1);
    }
    if (poTarget == nullptr)
    {
        oFrom.m_oChosen.erase(usProcID);
        return nullptr;
    }
    oChoice = {poTarget->m_uiKey, poTarget->m_ulSerial};
    m_oRoutes.use(oChoice.m_uiKey, 1);
    return poTarget;
}

void CZolVekRouter::dropSlow(CZolVekSession &oTarget, const CZolVekFrame &oFrame)
{
    ++oTarget.m_ulFramesDropped;
    drop(m_oStatistics.m_ulDropSlow, oFrame, "the queue of the destination is full");
}

// ---- Back-pressure ------------------------------------------------------------------------------------------------

CZolVekRouter::EnumRoom CZolVekRouter::roomAt(CZolVekSession &oTarget, const CZolVekSession *poFrom,
                                              const CZolVekFrame &oFrame)
{
    const TZolVekKey uiSource = oFrame.source();
    if (!oTarget.isFree(uiSource, poFrom))
    {
        return ROOM_WAIT;
    }
    if (oTarget.m_poRuns != nullptr && oFrame.type() >= CZolMsgPdu::MSG_BIG_REQUEST)
    {
        const auto oFound = oTarget.m_poRuns->find(uiSource);
        if (oFound != oTarget.m_poRuns->end() && oFound->second.m_bLost)
        {
            dropSlow(oTarget, oFrame);
            return ROOM_DROP;
        }
    }
    if (oTarget.m_oOutbox.bytes() < m_ulLimit || oTarget.m_oOutbox.isEmpty())
    {
        return ROOM_YES;
    }
    switch (m_oSettings.m_eSlowConsumer)
    {
    case VEK_SLOW_DROP:
        dropSlow(oTarget, oFrame);
        return ROOM_DROP;
    case VEK_SLOW_CLOSE:
        m_oAgenda.doom(oTarget, "its queue is full");
        dropSlow(oTarget, oFrame);
        return ROOM_DROP;
    default:
        return ROOM_WAIT;
    }
}

EnumZolVekVerdict CZolVekRouter::stall(CZolVekSession &oFrom, CZolVekSession &oTarget)
{
    if (oFrom.m_poWaitsFor == nullptr)
    {
        oFrom.m_poWaitsFor = &oTarget;
        oFrom.m_ulWaitsSinceMs = m_oAgenda.m_ulNowMs;
        oTarget.m_oWaiters.push_back(&oFrom);
        ++m_oStatistics.m_ulStalls;
        std::uint64_t ulHeldBack = 0;
        if (&oFrom != &oTarget && m_oSlowLines.pass(oTarget.m_uiKey, m_oAgenda.m_ulNowMs, ulHeldBack))
        {
            CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekRouter::stall",
                             "%s is slow, %" PRIu64 " bytes wait for it; %s is not read until then, and %" PRIu64
                             " more since the last line",
                             oTarget.name().c_str(), oTarget.m_oOutbox.bytes(), oFrom.name().c_str(), ulHeldBack);
        }
    }
    return VEK_STALLED;
}

void CZolVekRouter::wakeWaiters(CZolVekSession &oSession)
{
    if (oSession.m_oWaiters.empty() || oSession.m_oOutbox.bytes() > m_ulLimit / 2)
    {
        return;
    }
    for (CZolVekSession *poWaiter : oSession.m_oWaiters)
    {
        poWaiter->m_poWaitsFor = nullptr;
        m_oAgenda.ready(*poWaiter);
    }
    oSession.m_oWaiters.clear();
}

// ---- Big messages -------------------------------------------------------------------------------------------------
//
// A run is a big message on its way to one pipe: blocks 1, 2, 3 and so on, then block 0. It stands in the table of that
// pipe, under its source, from block 1 until block 0, and belongs to the pipe that its blocks come from. Any other pipe
// that sends under the same source waits (roomAt). When its owner goes, the receiver holds a part that nothing would
// ever free: an empty block whose number does not follow makes it drop the part.

void CZolVekRouter::noteBlock(CZolVekSession &oTarget, CZolVekSession &oFrom, const CZolVekFrame &oFrame,
                              const SZolVekAddress *poAddress)
{
    if (oFrame.type() != CZolMsgPdu::MSG_BIG_REQUEST && oFrame.type() != CZolMsgPdu::MSG_BIG_RESPONSE &&
        oFrame.type() != CZolMsgPdu::MSG_BIG_MULTICAST)
    {
        return;
    }
    const TZolVekKey uiSource = oFrame.source();
    if (oFrame.segment() == 0)
    {
        endRun(oTarget, uiSource);
        return;
    }
    if (oTarget.m_poRuns == nullptr)
    {
        oTarget.m_poRuns = std::make_unique<std::unordered_map<TZolVekKey, SZolVekRun>>();
    }
    SZolVekRun &oRun = (*oTarget.m_poRuns)[uiSource];
    if (oRun.m_poOwner == nullptr)
    {
        oRun.m_poOwner = &oFrom;
        ++oFrom.m_uiRunsOwned;
        if (oTarget.m_poRuns->size() > m_oRoutes.size() + MAX_SPARE_RUNS)
        {
            m_oAgenda.doom(oFrom, "it has too many big messages under way");
        }
    }
    oRun.m_ulLastMs = m_oAgenda.m_ulNowMs;
    std::memcpy(oRun.m_acHeader, oFrame.data(), VEK_HEADER_BYTES);
    if (poAddress != nullptr)
    {
        zolVekPatch(oRun.m_acHeader, *poAddress);
    }
}

void CZolVekRouter::loseBlock(CZolVekSession &oTarget, CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (oFrame.type() < CZolMsgPdu::MSG_BIG_REQUEST)
    {
        return;
    }
    const TZolVekKey uiSource = oFrame.source();
    const bool bUnderWay = oTarget.m_poRuns != nullptr && oTarget.m_poRuns->count(uiSource) != 0;
    if (bUnderWay && !(*oTarget.m_poRuns)[uiSource].m_bLost)
    {
        abortRun(oTarget, (*oTarget.m_poRuns)[uiSource]);
    }
    noteBlock(oTarget, oFrom, oFrame, nullptr);
    if (oFrame.segment() != 0)
    {
        (*oTarget.m_poRuns)[uiSource].m_bLost = true;
    }
}

void CZolVekRouter::endRun(CZolVekSession &oTarget, TZolVekKey uiSource)
{
    if (oTarget.m_poRuns == nullptr)
    {
        return;
    }
    const auto oFound = oTarget.m_poRuns->find(uiSource);
    if (oFound == oTarget.m_poRuns->end())
    {
        return;
    }
    --oFound->second.m_poOwner->m_uiRunsOwned;
    oTarget.m_poRuns->erase(oFound);
    if (oTarget.m_poRuns->empty())
    {
        oTarget.m_poRuns.reset();
    }
    wakeWaiters(oTarget);
}

void CZolVekRouter::abortRun(CZolVekSession &oTarget, const SZolVekRun &oRun)
{
    char acBlock[VEK_HEADER_BYTES];
    std::memcpy(acBlock, oRun.m_acHeader, sizeof acBlock);
    const std::uint16_t usLast = zolVekRead16(acBlock + VEK_AT_SEGMENT);
    // neither the number that follows, nor 0 or 1, which would end or begin a message
    zolVekWrite16(acBlock + VEK_AT_SEGMENT, usLast == 65534 ? 65533 : 65535);
    zolVekWrite16(acBlock + VEK_AT_HEADER_LENGTH, VEK_HEADER_BYTES);
    zolVekWrite32(acBlock + VEK_AT_DATA_LENGTH, 0);
    oTarget.m_oOutbox.addCopy(acBlock, sizeof acBlock);
    m_oAgenda.dirty(oTarget);
    ++m_oStatistics.m_ulRunAborts;
}

void CZolVekRouter::abortRunsOf(const CZolVekSession &oOwner)
{
    m_oRoutes.forEach(
        [&](CZolVekSession *poTarget)
        {
            if (poTarget->m_poRuns == nullptr)
            {
                return;
            }
            for (auto oAt = poTarget->m_poRuns->begin(); oAt != poTarget->m_poRuns->end();)
            {
                if (oAt->second.m_poOwner != &oOwner)
                {
                    ++oAt;
                    continue;
                }
                if (!oAt->second.m_bLost)
                {
                    abortRun(*poTarget, oAt->second);
                }
                oAt = poTarget->m_poRuns->erase(oAt);
            }
            if (poTarget->m_poRuns->empty())
            {
                poTarget->m_poRuns.reset();
            }
            wakeWaiters(*poTarget);
        });
}

// ---- Many receivers -----------------------------------------------------------------------------------------------

EnumZolVekVerdict CZolVekRouter::toAll(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    CZolVekSession *poFull = nullptr;
    m_oRoutes.forEach(
        [&](CZolVekSession *poTarget)
        {
            if (poTarget != &oFrom && poFull == nullptr &&
                (!poTarget->isFree(oFrame.source(), &oFrom) ||
                 (m_oSettings.m_eSlowConsumer == VEK_SLOW_BLOCK && roomAt(*poTarget, &oFrom, oFrame) == ROOM_WAIT)))
            {
                poFull = poTarget;
            }
        });
    if (poFull != nullptr)
    {
        return stall(oFrom, *poFull); // before anyone gets it: it comes again as a whole
    }
    SZolVekRecord *const poRecord = recordOf(oFrame);
    m_oRoutes.forEach(
        [&](CZolVekSession *poTarget)
        {
            if (poTarget == &oFrom)
            {
                return;
            }
            if (m_oSettings.m_eSlowConsumer != VEK_SLOW_BLOCK && roomAt(*poTarget, &oFrom, oFrame) != ROOM_YES)
            {
                loseBlock(*poTarget, oFrom, oFrame);
                return;
            }
            poTarget->m_oOutbox.addRecord(poRecord, SZolVekAddress());
            queued(&oFrom, *poTarget, oFrame.length());
            noteBlock(*poTarget, oFrom, oFrame, nullptr);
        });
    return VEK_TAKEN;
}

EnumZolVekVerdict CZolVekRouter::toSubscribers(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (m_oAgenda.m_ulNowMs < m_ulGraceUntilMs || !m_oHeld.empty())
    {
        return hold(oFrom, oFrame);
    }
    if (!isWhole(oFrame))
    {
        return publishBlock(oFrom, oFrame, false);
    }
    const std::vector<SZolVekSubscriber> *const poSubscribers = m_oSubscriptions.find(oFrame.command());
    return poSubscribers == nullptr ? VEK_TAKEN : publishTo(&oFrom, oFrame, *poSubscribers, false);
}

EnumZolVekVerdict CZolVekRouter::publishTo(CZolVekSession *poFrom, const CZolVekFrame &oFrame,
                                           const std::vector<SZolVekSubscriber> &oSubscribers, bool bHeld)
{
    const bool bBlock = m_oSettings.m_eSlowConsumer == VEK_SLOW_BLOCK;
    for (const SZolVekSubscriber &oSubscriber : oSubscribers)
    {
        if (!bHeld && !oSubscriber.m_poSession->isFree(oFrame.source(), poFrom))
        {
            return stall(*poFrom, *oSubscriber.m_poSession);
        }
        if (!bHeld && bBlock && roomAt(*oSubscriber.m_poSession, poFrom, oFrame) == ROOM_WAIT)
        {
            return stall(*poFrom, *oSubscriber.m_poSession);
        }
    }
    SZolVekRecord *const poRecord = recordOf(oFrame);
    for (const SZolVekSubscriber &oSubscriber : oSubscribers)
    {
        CZolVekSession &oTarget = *oSubscriber.m_poSession;
        if (!bBlock && roomAt(oTarget, poFrom, oFrame) != ROOM_YES)
        {
            if (poFrom != nullptr)
            {
                loseBlock(oTarget, *poFrom, oFrame);
            }
            continue;
        }
        const SZolVekAddress oAddress = {oTarget.m_uiKey, oSubscriber.m_ucModule, oSubscriber.m_usTask,
                                         isWhole(oFrame) ? static_cast<std::uint8_t>(CZolMsgPdu::MSG_REQUEST)
                                                         : static_cast<std::uint8_t>(CZolMsgPdu::MSG_BIG_REQUEST)};
        oTarget.m_oOutbox.addRecord(poRecord, oAddress);
        queued(poFrom, oTarget, oFrame.length());
        if (poFrom != nullptr)
        {
            noteBlock(oTarget, *poFrom, oFrame, &oAddress);
        }
    }
    return VEK_TAKEN;
}

EnumZolVekVerdict CZolVekRouter::publishBlock(CZolVekSession &oFrom, const CZolVekFrame &oFrame, bool bHeld)
{
    const TZolVekKey uiSource = oFrame.source();
    if (oFrom.m_poPublications == nullptr)
    {
        oFrom.m_poPublications = std::make_unique<std::unordered_map<TZolVekKey, SZolVekPublication>>();
    }
    const auto oResult = oFrom.m_poPublications->insert({uiSource, SZolVekPublication()});
    SZolVekPublication &oPublication = oResult.first->second;
    if (oResult.second)
    {
        ++m_uiPublications;
        if (oFrom.m_poPublications->size() > MAX_PUBLICATIONS)
        {
            m_oAgenda.doom(oFrom, "it has too many big messages under way");
        }
        const std::vector<SZolVekSubscriber> *const poSubscribers = m_oSubscriptions.find(oFrame.command());
        for (const SZolVekSubscriber &oSubscriber :
             poSubscribers == nullptr ? std::vector<SZolVekSubscriber>() : *poSubscribers)
        {
            const bool bSecond =
                std::any_of(oPublication.m_oNow.begin(), oPublication.m_oNow.end(),
                            [&](const SZolVekSubscriber &o) { return o.m_poSession == oSubscriber.m_poSession; });
            (bSecond ? oPublication.m_oLater : oPublication.m_oNow).push_back(oSubscriber);
        }
    }
    if (publishTo(&oFrom, oFrame, oPublication.m_oNow, bHeld) == VEK_STALLED)
    {
        return VEK_STALLED;
    }
    if (!oPublication.m_oLater.empty())
    {
        keepBlock(oFrom, oPublication, recordOf(oFrame));
    }
    if (oFrame.segment() == 0)
    {
        finishPublication(oFrom, uiSource, oPublication);
    }
    return VEK_TAKEN;
}

void CZolVekRouter::keepBlock(CZolVekSession &oFrom, SZolVekPublication &oPublication, SZolVekRecord *poRecord)
{
    poRecord->take();
    oPublication.m_oBlocks.push_back(poRecord);
    oPublication.m_ulBytes += poRecord->m_uiLength;
    oFrom.m_ulKeptBytes += poRecord->m_uiLength;
    if (oFrom.m_ulKeptBytes <= m_oSettings.m_ulPipeQueueBytes)
    {
        return;
    }
    CZolVekLog::line(CZolRunLog::LEVEL_WARNING, "CZolVekRouter::keepBlock",
                     "a publication of more than %" PRIu64 " bytes reaches only the first task of each process",
                     m_oSettings.m_ulPipeQueueBytes);
    m_oStatistics.m_ulDropSlow += oPublication.m_oLater.size();
    for (SZolVekRecord *poBlock : oPublication.m_oBlocks)
    {
        poBlock->drop();
    }
    oFrom.m_ulKeptBytes -= oPublication.m_ulBytes;
    oPublication.m_ulBytes = 0;
    oPublication.m_oBlocks.clear();
    oPublication.m_oLater.clear();
}

void CZolVekRouter::finishPublication(CZolVekSession &oFrom, TZolVekKey uiSource, SZolVekPublication &oPublication)
{
    for (const SZolVekSubscriber &oSubscriber : oPublication.m_oLater)
    {
        CZolVekSession &oTarget = *oSubscriber.m_poSession;
        for (SZolVekRecord *poBlock : oPublication.m_oBlocks)
        {
            oTarget.m_oOutbox.addRecord(
                poBlock, {oTarget.m_uiKey, oSubscriber.m_ucModule, oSubscriber.m_usTask, CZolMsgPdu::MSG_BIG_REQUEST});
            queued(&oFrom, oTarget, poBlock->m_uiLength);
        }
    }
    for (SZolVekRecord *poBlock : oPublication.m_oBlocks)
    {
        poBlock->drop();
    }
    oFrom.m_ulKeptBytes -= oPublication.m_ulBytes;
    oFrom.m_poPublications->erase(uiSource);
    --m_uiPublications;
}

// ---- Grace --------------------------------------------------------------------------------------------------------

EnumZolVekVerdict CZolVekRouter::hold(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (m_ulHeldBytes + oFrame.length() > m_oSettings.m_ulPipeQueueBytes)
    {
        return stall(oFrom, oFrom); // releaseHeld() wakes it
    }
    SZolVekRecord *const poRecord = recordOf(oFrame);
    poRecord->take();
    m_oHeld.push_back({&oFrom, poRecord});
    m_ulHeldBytes += oFrame.length();
    return VEK_TAKEN;
}

void CZolVekRouter::releaseHeld()
{
    std::deque<SHeld> oHeld;
    oHeld.swap(m_oHeld);
    m_ulHeldBytes = 0;
    for (const SHeld &oOne : oHeld)
    {
        CZolVekFrame oFrame(oOne.m_poRecord->m_pcData, oOne.m_poRecord->m_uiLength);
        oFrame.m_poRecord = oOne.m_poRecord;
        const std::vector<SZolVekSubscriber> *const poSubscribers = m_oSubscriptions.find(oFrame.command());
        if (isWhole(oFrame) && poSubscribers != nullptr)
        {
            publishTo(oOne.m_poFrom, oFrame, *poSubscribers, true);
        }
        else if (!isWhole(oFrame) && oOne.m_poFrom != nullptr)
        {
            publishBlock(*oOne.m_poFrom, oFrame, true);
        }
        oOne.m_poRecord->drop();
    }
    m_oRoutes.forEach([&](CZolVekSession *poSession) { wakeWaiters(*poSession); });
}

void CZolVekRouter::tick()
{
    if (m_ulGraceUntilMs != 0 && m_oAgenda.m_ulNowMs >= m_ulGraceUntilMs)
    {
        m_ulGraceUntilMs = 0;
        releaseHeld();
    }
    const std::uint64_t ulStuckMs = std::uint64_t{1000} * m_oSettings.m_uiStuckSeconds;
    m_oRoutes.forEach(
        [&](CZolVekSession *poTarget)
        {
            wakeWaiters(*poTarget); // the limit grows when memory elsewhere is freed
            if (poTarget->m_poRuns == nullptr || poTarget->m_oWaiters.empty())
            {
                return;
            }
            // a run that stands still holds back others: it has had its time
            std::vector<TZolVekKey> oStuck;
            for (const auto &oPair : *poTarget->m_poRuns)
            {
                if (m_oAgenda.m_ulNowMs - oPair.second.m_ulLastMs >= ulStuckMs &&
                    oPair.second.m_poOwner->m_poWaitsFor == nullptr)
                {
                    oStuck.push_back(oPair.first);
                }
            }
            for (const TZolVekKey uiSource : oStuck)
            {
                abortRun(*poTarget, (*poTarget->m_poRuns)[uiSource]);
                endRun(*poTarget, uiSource);
            }
        });
}

// ---- Answers of the gateway itself --------------------------------------------------------------------------------

EnumZolVekVerdict CZolVekRouter::answerHello(CZolVekSession &oFrom)
{
    ++oFrom.m_ulOwnIn;
    if (oFrom.m_oOutbox.hellos() >= MAX_WAITING_HELLOS)
    {
        oFrom.m_oOutbox.flush(oFrom.m_iSocket, oFrom.m_ulBytesOut);
        if (oFrom.m_oOutbox.hellos() >= MAX_WAITING_HELLOS)
        {
            return VEK_TAKEN;
        }
    }
    char acHello[VEK_HEADER_BYTES];
    oFrom.fillHello(acHello);
    oFrom.m_oOutbox.addHello(acHello);
    ++oFrom.m_ulOwnOut;
    queued(nullptr, oFrom, sizeof acHello);
    return VEK_TAKEN;
}

EnumZolVekVerdict CZolVekRouter::answer(CZolVekSession &oFrom, const CZolVekFrame &oFrame, const char *pcPayload,
                                        std::uint32_t uiLength)
{
    // a caller finds its answer by manager and task alone
    char acAnswer[VEK_HEADER_BYTES + 16];
    const char *const pcRequest = oFrame.data();
    std::memset(acAnswer, 0, sizeof acAnswer);
    acAnswer[VEK_AT_VERSION] = pcRequest[VEK_AT_VERSION];
    acAnswer[VEK_AT_TYPE] = CZolMsgPdu::MSG_RESPONSE;
    std::memcpy(acAnswer + VEK_AT_COMMAND, pcRequest + VEK_AT_COMMAND, 4);
    std::memcpy(acAnswer + VEK_AT_DEST_PROC, pcRequest + VEK_AT_SRC_PROC, 2);
    std::memcpy(acAnswer + VEK_AT_DEST_HANDLE, pcRequest + VEK_AT_SRC_HANDLE, 2);
    acAnswer[VEK_AT_SRC_MODULE] = pcRequest[VEK_AT_DEST_MODULE];
    acAnswer[VEK_AT_DEST_MODULE] = pcRequest[VEK_AT_SRC_MODULE];
    std::memcpy(acAnswer + VEK_AT_SRC_TASK, pcRequest + VEK_AT_DEST_TASK, 2);
    std::memcpy(acAnswer + VEK_AT_DEST_TASK, pcRequest + VEK_AT_SRC_TASK, 2);
    zolVekWrite16(acAnswer + VEK_AT_HEADER_LENGTH, VEK_HEADER_BYTES);
    zolVekWrite32(acAnswer + VEK_AT_DATA_LENGTH, uiLength);
    std::memcpy(acAnswer + VEK_HEADER_BYTES, pcPayload, uiLength);
    oFrom.m_oOutbox.addCopy(acAnswer, VEK_HEADER_BYTES + uiLength);
    ++oFrom.m_ulOwnIn;
    ++oFrom.m_ulOwnOut;
    queued(nullptr, oFrom, VEK_HEADER_BYTES + uiLength);
    return VEK_TAKEN;
}

EnumZolVekVerdict CZolVekRouter::answerSubscribe(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (oFrom.m_oOutbox.bytes() >= m_ulLimit && !oFrom.m_oOutbox.isEmpty())
    {
        return stall(oFrom, oFrom); // it asks and does not read: no answer may queue without a bound
    }
    char acStatus[4];
    zolVekWrite32(acStatus, static_cast<std::uint32_t>(ZOL_ERR_FAILED));
    const char *const pcPayload = oFrame.payload();
    const bool bLength = oFrame.dataLength() >= 12;
    const std::uint32_t uiModule = bLength ? zolVekRead32(pcPayload) : 256;
    const std::uint32_t uiTask = bLength ? zolVekRead32(pcPayload + 4) : 65536;
    const std::uint32_t uiCommand = bLength ? zolVekRead32(pcPayload + 8) : 0;
    if (uiModule <= 255 && uiTask <= 65535 &&
        CZolVekPolicy::maySubscribe(static_cast<std::uint8_t>(uiModule), uiCommand))
    {
        const SZolVekSubscriber oSubscriber = {&oFrom, static_cast<std::uint8_t>(uiModule),
                                               static_cast<std::uint16_t>(uiTask)};
        bool bDone = true;
        if (oFrame.type() == CZolMsgPdu::MSG_SUBSCRIBE)
        {
            bDone = m_oSubscriptions.countOf(&oFrom) < MAX_SUBSCRIPTIONS;
            if (bDone)
            {
                m_oSubscriptions.add(uiCommand, oSubscriber);
            }
        }
        else
        {
            m_oSubscriptions.remove(uiCommand, oSubscriber);
        }
        zolVekWrite32(acStatus, static_cast<std::uint32_t>(bDone ? ZOL_OK : ZOL_ERR_FAILED));
    }
    return answer(oFrom, oFrame, acStatus, sizeof acStatus);
}

std::uint16_t CZolVekRouter::portOf(TZolVekKey uiKey) const
{
    const auto oExact = m_oSettings.m_oPorts.find(uiKey);
    if (oExact != m_oSettings.m_oPorts.end())
    {
        return oExact->second;
    }
    const auto oById = m_oSettings.m_oPortsById.find(zolVekProcOf(uiKey));
    return oById == m_oSettings.m_oPortsById.end() ? 0 : oById->second;
}

EnumZolVekVerdict CZolVekRouter::answerAddress(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (oFrom.m_oOutbox.bytes() >= m_ulLimit && !oFrom.m_oOutbox.isEmpty())
    {
        return stall(oFrom, oFrom);
    }
    char acResult[10];
    zolVekWrite32(acResult, static_cast<std::uint32_t>(ZOL_ERR_NO_DEST));
    if (oFrame.dataLength() < 4)
    {
        return answer(oFrom, oFrame, acResult, 4);
    }
    const std::uint16_t usProcID = zolVekRead16(oFrame.payload());
    const std::uint16_t usProcHandle = zolVekRead16(oFrame.payload() + 2);
    const CZolVekSession *const poSession =
        usProcHandle != 0 ? m_oRoutes.find(zolVekKey(usProcID, usProcHandle)) : m_oRoutes.choose(usProcID);
    const std::uint16_t usPort = poSession == nullptr ? std::uint16_t{0} : portOf(poSession->m_uiKey);
    if (usPort == 0)
    {
        return answer(oFrom, oFrame, acResult, 4);
    }
    zolVekWrite32(acResult, ZOL_OK);
    zolVekWrite32(acResult + 4, poSession->m_uiAddress);
    zolVekWrite16(acResult + 8, usPort);
    return answer(oFrom, oFrame, acResult, 10);
}

// ---- A pipe has gone ----------------------------------------------------------------------------------------------

void CZolVekRouter::forget(const CZolVekSession &oSession, std::vector<SZolVekSubscriber> &oSubscribers) const
{
    oSubscribers.erase(std::remove_if(oSubscribers.begin(), oSubscribers.end(),
                                      [&](const SZolVekSubscriber &o) { return o.m_poSession == &oSession; }),
                       oSubscribers.end());
}

void CZolVekRouter::gone(CZolVekSession &oSession)
{
    m_oSubscriptions.removeAll(&oSession);
    if (oSession.m_poRuns != nullptr)
    {
        for (auto &oPair : *oSession.m_poRuns)
        {
            --oPair.second.m_poOwner->m_uiRunsOwned;
        }
        oSession.m_poRuns.reset();
    }
    if (oSession.m_uiRunsOwned > 0)
    {
        abortRunsOf(oSession);
    }
    if (oSession.m_poPublications != nullptr)
    {
        m_uiPublications -= static_cast<unsigned int>(oSession.m_poPublications->size());
    }
    if (m_uiPublications > 0)
    {
        m_oRoutes.forEach(
            [&](CZolVekSession *poOther)
            {
                if (poOther->m_poPublications == nullptr)
                {
                    return;
                }
                for (auto &oPair : *poOther->m_poPublications)
                {
                    forget(oSession, oPair.second.m_oNow);
                    forget(oSession, oPair.second.m_oLater);
                }
            });
    }
    for (SHeld &oHeld : m_oHeld)
    {
        oHeld.m_poFrom = oHeld.m_poFrom == &oSession ? nullptr : oHeld.m_poFrom;
    }
    for (const auto &oPair : oSession.m_oChosen)
    {
        const CZolVekSession *const poChosen = m_oRoutes.find(oPair.second.m_uiKey);
        if (poChosen != nullptr && poChosen->m_ulSerial == oPair.second.m_ulSerial)
        {
            m_oRoutes.use(oPair.second.m_uiKey, -1);
        }
    }
    if (oSession.m_poWaitsFor != nullptr)
    {
        auto &oWaiters = oSession.m_poWaitsFor->m_oWaiters;
        oWaiters.erase(std::remove(oWaiters.begin(), oWaiters.end(), &oSession), oWaiters.end());
        oSession.m_poWaitsFor = nullptr;
    }
    for (CZolVekSession *poWaiter : oSession.m_oWaiters)
    {
        poWaiter->m_poWaitsFor = nullptr;
        m_oAgenda.ready(*poWaiter);
    }
    oSession.m_oWaiters.clear();
}
