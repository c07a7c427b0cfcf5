#pragma once

/* ROVALIS_EXPORT marks the classes and functions a host may use: the library is built with
   hidden visibility, so a shared librovalis exports these and nothing else. On a class it also
   gives its type information one identity across the library and the host, which exceptions
   and the delegate interfaces the SDK looks for need. Usable from C as well as C++. */
#if defined(__GNUC__) || defined(__clang__)
#define ROVALIS_EXPORT __attribute__((visibility("default")))
#else
#define ROVALIS_EXPORT
#endif
