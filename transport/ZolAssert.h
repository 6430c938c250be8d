#ifndef ZOL_TRANSPORT_ZOLASSERT_H
#define ZOL_TRANSPORT_ZOLASSERT_H

#include <cassert>

/// A promise of our own code. assert() heeds NDEBUG, which the macro of ACE does not: it ends a released process too.
/// A second name and not a macro around it, so that the condition is reported as it stands in the code.
#define ZOL_ASSERT assert

#endif
