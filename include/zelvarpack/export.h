// Symbol visibility for the shared library. The library is built with
// -fvisibility=hidden; only what is marked ZP_EXPORT is reachable by hosts.
#ifndef ZELVARPACK_EXPORT_H_
#define ZELVARPACK_EXPORT_H_

#if defined(ZELVARPACK_BUILDING)
#define ZP_EXPORT __attribute__((visibility("default")))
#else
#define ZP_EXPORT
#endif

#endif  // ZELVARPACK_EXPORT_H_
