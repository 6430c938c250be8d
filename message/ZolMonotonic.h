#ifndef ZOL_MESSAGE_ZOLMONOTONIC_H
#define ZOL_MESSAGE_ZOLMONOTONIC_H

#include <ace/Condition_Attributes.h>
#include <ace/Condition_Thread_Mutex.h>
#include <ace/Monotonic_Time_Policy.h>
#include <ace/Time_Value_T.h>

/// Makes a condition whose timed waits follow the monotonic clock, so that a step of the wall clock neither stretches
/// nor cuts a wait:
///
///     m_oCondition(m_oMutex, CZolMonotonicAttributes())
///     zolWaitUntil(m_oCondition, zolMonotonicNow() + ...)
using CZolMonotonicAttributes = ACE_Condition_Attributes_T<ACE_Monotonic_Time_Policy>;

inline ACE_Time_Value zolMonotonicNow()
{
    return ACE_Monotonic_Time_Policy()();
}

/// -1 when the time is over. The deadline is a copy: ACE casts its const away, and writes to it.
inline int zolWaitUntil(ACE_Condition<ACE_Thread_Mutex> &oCondition,
                        ACE_Time_Value oDeadline) // NOLINT(performance-unnecessary-value-param)
{
    return oCondition.wait(&oDeadline);
}

#endif
