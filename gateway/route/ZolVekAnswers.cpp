#include "gateway/route/ZolVekAnswers.h"

#include "ZolErrors.h"
#include "gateway/route/ZolVekPolicy.h"

namespace
{

const std::size_t MAX_SUBSCRIPTIONS = 65536; // of one pipe
const unsigned int MAX_WAITING_HELLOS = 64;  // a peer that sends more without reading gets no further echo
const std::uint32_t SUBSCRIBE_BYTES = 12;    // task manager, task, command
const std::uint32_t ADDRESS_BYTES = 4;       // process id, handle

} // namespace

bool CZolVekAnswers::mayAsk(const CZolVekSession &oFrom) const
{
    return m_oBackPressure.isLow(oFrom) || oFrom.m_oOutbox.isEmpty();
}

EnumZolVekVerdict CZolVekAnswers::answerHello(CZolVekSession &oFrom)
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
    char acHello[zolwire::HEADER_BYTES];
    oFrom.fillHello(acHello);
    oFrom.m_oOutbox.addHello(acHello);
    ++oFrom.m_ulOwnOut;
    m_oDelivery.queued(nullptr, oFrom, sizeof acHello);
    return VEK_TAKEN;
}

EnumZolVekVerdict CZolVekAnswers::answer(CZolVekSession &oFrom, const CZolVekFrame &oFrame, const char *pcPayload,
                                         std::uint32_t uiLength)
{
    // a caller finds its answer by manager and task alone
    char acAnswer[zolwire::HEADER_BYTES + 16];
    const char *const pcRequest = oFrame.data();
    std::memset(acAnswer, 0, sizeof acAnswer);
    acAnswer[zolwire::AT_VERSION] = pcRequest[zolwire::AT_VERSION];
    acAnswer[zolwire::AT_TYPE] = CZolMsgPdu::MSG_RESPONSE;
    std::memcpy(acAnswer + zolwire::AT_COMMAND, pcRequest + zolwire::AT_COMMAND, 4);
    std::memcpy(acAnswer + zolwire::AT_DEST_PROC, pcRequest + zolwire::AT_SRC_PROC, 2);
    std::memcpy(acAnswer + zolwire::AT_DEST_HANDLE, pcRequest + zolwire::AT_SRC_HANDLE, 2);
    acAnswer[zolwire::AT_SRC_MODULE] = pcRequest[zolwire::AT_DEST_MODULE];
    acAnswer[zolwire::AT_DEST_MODULE] = pcRequest[zolwire::AT_SRC_MODULE];
    std::memcpy(acAnswer + zolwire::AT_SRC_TASK, pcRequest + zolwire::AT_DEST_TASK, 2);
    std::memcpy(acAnswer + zolwire::AT_DEST_TASK, pcRequest + zolwire::AT_SRC_TASK, 2);
    zolwire::store16(acAnswer + zolwire::AT_HEADER_LENGTH, zolwire::HEADER_BYTES);
    zolwire::store32(acAnswer + zolwire::AT_DATA_LENGTH, uiLength);
    std::memcpy(acAnswer + zolwire::HEADER_BYTES, pcPayload, uiLength);
    oFrom.m_oOutbox.addCopy(acAnswer, zolwire::HEADER_BYTES + uiLength);
    ++oFrom.m_ulOwnIn;
    ++oFrom.m_ulOwnOut;
    m_oDelivery.queued(nullptr, oFrom, zolwire::HEADER_BYTES + uiLength);
    return VEK_TAKEN;
}

EnumZolVekVerdict CZolVekAnswers::answerSubscribe(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (!mayAsk(oFrom))
    {
        return m_oBackPressure.stall(oFrom, oFrom);
    }
    char acStatus[4];
    zolwire::store32(acStatus, static_cast<std::uint32_t>(subscribe(oFrom, oFrame) ? ZOL_OK : ZOL_ERR_FAILED));
    return answer(oFrom, oFrame, acStatus, sizeof acStatus);
}

bool CZolVekAnswers::subscribe(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (oFrame.dataLength() < SUBSCRIBE_BYTES)
    {
        return false;
    }
    const char *const pcPayload = oFrame.payload();
    const std::uint32_t uiModule = zolwire::load32(pcPayload);
    const std::uint32_t uiTask = zolwire::load32(pcPayload + 4);
    const std::uint32_t uiCommand = zolwire::load32(pcPayload + 8);
    if (uiModule > 255 || uiTask > 65535 ||
        !CZolVekPolicy::maySubscribe(static_cast<std::uint8_t>(uiModule), uiCommand))
    {
        return false;
    }
    const SZolVekSubscriber oSubscriber = {&oFrom, static_cast<std::uint8_t>(uiModule),
                                           static_cast<std::uint16_t>(uiTask)};
    if (oFrame.type() == CZolMsgPdu::MSG_SUBSCRIBE_CANCEL)
    {
        m_oSubscriptions.remove(uiCommand, oSubscriber);
        return true;
    }
    if (m_oSubscriptions.countOf(&oFrom) >= MAX_SUBSCRIPTIONS)
    {
        return false;
    }
    m_oSubscriptions.add(uiCommand, oSubscriber);
    return true;
}

std::uint16_t CZolVekAnswers::portOf(TZolVekKey uiKey) const
{
    const auto oExact = m_oSettings.m_oPorts.find(uiKey);
    if (oExact != m_oSettings.m_oPorts.end())
    {
        return oExact->second;
    }
    const auto oById = m_oSettings.m_oPortsById.find(zolVekProcOf(uiKey));
    return oById == m_oSettings.m_oPortsById.end() ? 0 : oById->second;
}

EnumZolVekVerdict CZolVekAnswers::answerAddress(CZolVekSession &oFrom, const CZolVekFrame &oFrame)
{
    if (!mayAsk(oFrom))
    {
        return m_oBackPressure.stall(oFrom, oFrom);
    }
    char acResult[10];
    zolwire::store32(acResult, static_cast<std::uint32_t>(ZOL_ERR_NO_DEST));
    if (oFrame.dataLength() < ADDRESS_BYTES)
    {
        return answer(oFrom, oFrame, acResult, 4);
    }
    const std::uint16_t usProcID = zolwire::load16(oFrame.payload());
    const std::uint16_t usProcHandle = zolwire::load16(oFrame.payload() + 2);
    const CZolVekSession *const poSession =
        usProcHandle != 0 ? m_oRoutes.find(zolVekKey(usProcID, usProcHandle)) : m_oRoutes.choose(usProcID);
    const std::uint16_t usPort = poSession == nullptr ? std::uint16_t{0} : portOf(poSession->m_uiKey);
    if (usPort == 0)
    {
        return answer(oFrom, oFrame, acResult, 4);
    }
    zolwire::store32(acResult, ZOL_OK);
    zolwire::store32(acResult + 4, poSession->m_uiAddress);
    zolwire::store16(acResult + 8, usPort);
    return answer(oFrom, oFrame, acResult, 10);
}
