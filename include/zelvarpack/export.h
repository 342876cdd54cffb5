// Symbol visibility for the shared library. Only what is marked ZP_EXPORT is
// reachable by hosts: on ELF platforms the library is built with
// -fvisibility=hidden and ZP_EXPORT makes a symbol default-visible; in the
// Windows DLL it is dllexport while the library is built and dllimport for
// a host that includes the headers.
#ifndef ZELVARPACK_EXPORT_H_
#define ZELVARPACK_EXPORT_H_

#if defined(_WIN32)
#if defined(ZELVARPACK_BUILDING)
#define ZP_EXPORT __declspec(dllexport)
#else
#define ZP_EXPORT __declspec(dllimport)
#endif
#elif defined(ZELVARPACK_BUILDING)
#define ZP_EXPORT __attribute__((visibility("default")))
#else
#define ZP_EXPORT
#endif

#endif  // ZELVARPACK_EXPORT_H_
