#ifndef ZOL_MESSAGE_ZOLMONOTONIC_H
#define ZOL_MESSAGE_ZOLMONOTONIC_H

#include <ace/Condition_Attributes.h>
#include <ace/Monotonic_Time_Policy.h>
#include <ace/Time_Value_T.h>

/// Makes a condition whose timed waits follow the monotonic clock, so that a step of the wall clock neither stretches
/// nor cuts a wait:
///
///     m_oCondition(m_oMutex, CZolMonotonicAttributes())
///     m_oCondition.wait(&oDeadline)  with  ACE_Time_Value oDeadline = zolMonotonicNow() + ...
using CZolMonotonicAttributes = ACE_Condition_Attributes_T<ACE_Monotonic_Time_Policy>;

inline ACE_Time_Value zolMonotonicNow()
{
    return ACE_Monotonic_Time_Policy()();
}

#endif
