#ifndef ZOL_TRANSPORT_ZOLASSERT_H
#define ZOL_TRANSPORT_ZOLASSERT_H

#include <cassert>

/// A promise of our own code. assert() heeds NDEBUG, which the macro of ACE does not: it ends a released process too.
#define ZOL_ASSERT(condition) assert(condition)

#endif
