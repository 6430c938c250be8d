#ifndef ZOL_VEK_ANSWERS_H
#define ZOL_VEK_ANSWERS_H

#include "gateway/route/ZolVekBackPressure.h"
#include "gateway/route/ZolVekSubscriptions.h"

/// What the gateway answers itself: hellos, subscriptions, look-ups of addresses.
///
/// Threads: the routing thread only.
/// Memory:  a pipe that asks and does not read is stalled on itself, so that no answers pile up.
class CZolVekAnswers
{
public:
    CZolVekAnswers(const SZolVekSettings &oSettings, const CZolVekRoutes &oRoutes, CZolVekDelivery &oDelivery,
                   CZolVekBackPressure &oBackPressure, CZolVekSubscriptions &oSubscriptions)
        : m_oSettings(oSettings), m_oRoutes(oRoutes), m_oDelivery(oDelivery), m_oBackPressure(oBackPressure),
          m_oSubscriptions(oSubscriptions)
    {
    }
    CZolVekAnswers(const CZolVekAnswers &) = delete;
    CZolVekAnswers &operator=(const CZolVekAnswers &) = delete;

    EnumZolVekVerdict answerHello(CZolVekSession &oFrom);
    EnumZolVekVerdict answerSubscribe(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict answerAddress(CZolVekSession &oFrom, const CZolVekFrame &oFrame);

private:
    bool mayAsk(const CZolVekSession &oFrom) const;
    bool subscribe(CZolVekSession &oFrom, const CZolVekFrame &oFrame);
    EnumZolVekVerdict answer(CZolVekSession &oFrom, const CZolVekFrame &oFrame, const char *pcPayload,
                             std::uint32_t uiLength);
    std::uint16_t portOf(TZolVekKey uiKey) const;

    const SZolVekSettings &m_oSettings;
    const CZolVekRoutes &m_oRoutes;
    CZolVekDelivery &m_oDelivery;
    CZolVekBackPressure &m_oBackPressure;
    CZolVekSubscriptions &m_oSubscriptions;
};

#endif
