#include "gateway/route/ZolVekRouter.h"

namespace
{

const TZolVekKey TO_ALL = 0xFFFFFFFF;
const TZolVekKey TO_GATEWAY = 0;
const std::unordered_map<std::uint16_t, SZolVekChoice> NONE_CHOSEN;

} // namespace

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
        return m_oAnswers.answerHello(oFrom);
    case CZolMsgPdu::MSG_SUBSCRIBE:
    case CZolMsgPdu::MSG_SUBSCRIBE_CANCEL:
        return m_oAnswers.answerSubscribe(oFrom, oFrame);
    case CZolMsgPdu::MSG_MULTICAST:
    case CZolMsgPdu::MSG_BIG_MULTICAST:
        return m_oPublisher.toSubscribers(oFrom, oFrame);
    case CZolMsgPdu::MSG_GET_ADDRESS:
        return m_oAnswers.answerAddress(oFrom, oFrame);
    default:
        m_oDelivery.drop(m_oStatistics.m_ulDropType, oFrame, "invalid message type");
        return VEK_TAKEN;
    }
}

bool CZolVekRouter::mayPass(const CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    switch (m_oPolicy.inspect(oFrame, oFrom.m_uiKey))
    {
    case VEK_REFUSE_DIRECT:
        m_oDelivery.drop(m_oStatistics.m_ulDropForbidden, oFrame, "a command that no process takes from another one");
        return false;
    case VEK_REFUSE_DEBUG:
        m_oDelivery.drop(m_oStatistics.m_ulDropDebug, oFrame, "a debug command, and its sender is not in DebugFrom");
        return false;
    case VEK_REFUSE_FOREIGN:
        m_oDelivery.drop(m_oStatistics.m_ulDropSource, oFrame, ("its source is not that of " + oFrom.name()).c_str());
        return false;
    case VEK_PASS_FOREIGN:
        m_oDelivery.drop(m_oStatistics.m_ulForeignSource, oFrame,
                         ("goes on, although its source is not that of " + oFrom.name()).c_str());
        return true;
    default:
        return true;
    }
}

EnumZolVekVerdict CZolVekRouter::toProcess(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    const TZolVekKey uiKey = oFrame.destination();
    const bool bRequest = oFrame.type() == CZolMsgPdu::MSG_REQUEST || oFrame.type() == CZolMsgPdu::MSG_BIG_REQUEST;
    if (bRequest && uiKey == TO_ALL)
    {
        return m_oPublisher.toAll(oFrom, oFrame);
    }
    if (bRequest && uiKey == TO_GATEWAY)
    {
        return m_oPublisher.toSubscribers(oFrom, oFrame);
    }
    CZolVekSession *const poTarget = resolve(oFrom, uiKey);
    if (poTarget == nullptr)
    {
        m_oDelivery.drop(m_oStatistics.m_ulDropNoRoute, oFrame, "no pipe to the destination");
        return VEK_TAKEN;
    }
    switch (m_oBackPressure.roomAt(*poTarget, &oFrom, oFrame))
    {
    case VEK_ROOM_WAIT:
        return m_oBackPressure.stall(oFrom, *poTarget);
    case VEK_ROOM_DROP:
        m_oRuns.loseBlock(*poTarget, oFrom, oFrame);
        return VEK_TAKEN;
    default:
        m_oRuns.makeWay(*poTarget, oFrom, oFrame);
        m_oDelivery.queue(oFrom, *poTarget, oFrame);
        m_oRuns.noteBlock(*poTarget, oFrom, oFrame, nullptr);
        return VEK_TAKEN;
    }
}

CZolVekSession *CZolVekRouter::resolve(CZolVekSession &oFrom, TZolVekKey uiKey)
{
    if (oFrom.m_uiLastKey == uiKey && oFrom.m_ulLastGeneration == m_oRoutes.generation())
    {
        return oFrom.m_poLastTarget;
    }
    bool bForNow = false;
    CZolVekSession *const poTarget =
        zolVekHandleOf(uiKey) != 0 ? m_oRoutes.find(uiKey) : resolveById(oFrom, zolVekProcOf(uiKey), bForNow);
    if (poTarget != nullptr && !bForNow)
    {
        oFrom.m_uiLastKey = uiKey;
        oFrom.m_poLastTarget = poTarget;
        oFrom.m_ulLastGeneration = m_oRoutes.generation();
    }
    return poTarget;
}

bool CZolVekRouter::hasRun(const CZolVekSession &oFrom, const CZolVekSession &oTarget)
{
    if (oTarget.m_poRuns == nullptr || oFrom.m_uiRunsOwned == 0)
    {
        return false;
    }
    return std::any_of(oTarget.m_poRuns->begin(), oTarget.m_poRuns->end(),
                       [&](const auto &oPair) { return oPair.second.m_poOwner == &oFrom; });
}

CZolVekSession *CZolVekRouter::resolveById(CZolVekSession &oFrom, std::uint16_t usProcID, bool &bForNow)
{
    if (oFrom.m_poChosen == nullptr)
    {
        oFrom.m_poChosen = std::make_unique<std::unordered_map<std::uint16_t, SZolVekChoice>>();
    }
    SZolVekChoice &oChoice = (*oFrom.m_poChosen)[usProcID];
    CZolVekSession *const poChosen = oChoice.m_ulSerial == 0 ? nullptr : m_oRoutes.find(oChoice.m_uiKey);
    const bool bStands = poChosen != nullptr && poChosen->m_ulSerial == oChoice.m_ulSerial;
    if (bStands && (zolVekHandleOf(oChoice.m_uiKey) == 0 || m_oRoutes.find(zolVekKey(usProcID, 0)) == nullptr))
    {
        return poChosen;
    }
    if (bStands && hasRun(oFrom, *poChosen))
    {
        bForNow = true; // a big message is under way: its blocks stay together
        return poChosen;
    }
    CZolVekSession *const poTarget = m_oRoutes.choose(usProcID);
    if (bStands)
    {
        m_oRoutes.use(oChoice.m_uiKey, -1);
    }
    if (poTarget == nullptr)
    {
        oFrom.m_poChosen->erase(usProcID);
        return nullptr;
    }
    oChoice = {poTarget->m_uiKey, poTarget->m_ulSerial};
    m_oRoutes.use(oChoice.m_uiKey, 1);
    return poTarget;
}

void CZolVekRouter::countFlows(bool bCount)
{
    m_oDelivery.countFlows(bCount);
    if (!bCount)
    {
        m_oRoutes.forEach([](CZolVekSession *poSession) { poSession->m_poFlows.reset(); });
        m_oDelivery.flowBudget() = SZolVekFlowBudget();
    }
}

void CZolVekRouter::tick()
{
    m_oPublisher.tick();
    m_oRoutes.forEach(
        [&](CZolVekSession *poTarget)
        {
            m_oRuns.endStuck(*poTarget);            // looks at who waits, so it comes first
            m_oBackPressure.wakeWaiters(*poTarget); // the limit grows when memory elsewhere is freed
        });
}

void CZolVekRouter::gone(CZolVekSession &oSession)
{
    m_oSubscriptions.removeAll(&oSession);
    m_oRuns.gone(oSession);
    m_oPublisher.gone(oSession);
    for (const auto &oPair : oSession.m_poChosen == nullptr ? NONE_CHOSEN : *oSession.m_poChosen)
    {
        const CZolVekSession *const poChosen = m_oRoutes.find(oPair.second.m_uiKey);
        if (poChosen != nullptr && poChosen->m_ulSerial == oPair.second.m_ulSerial)
        {
            m_oRoutes.use(oPair.second.m_uiKey, -1);
        }
    }
    m_oBackPressure.gone(oSession);
}
