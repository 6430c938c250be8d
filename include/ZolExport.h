#ifndef ZOL_EXPORT_H
#define ZOL_EXPORT_H

/// What the shared library shows. Everything is compiled with hidden visibility; a class or an operation that an
/// application may use carries this mark.
#define ZOL_EXPORT __attribute__((visibility("default")))

#endif
