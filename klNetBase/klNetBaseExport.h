// Symbol visibility of the klNetBase shared library.
//
// The library is built with hidden visibility by default; every class of the public interface is
// marked with KLNETBASE_EXPORT so that its members, vtable and type information (needed to catch
// the library's exceptions across the library boundary) are visible to applications.
#pragma once

#if defined(_WIN32)
#if defined(KLNETBASE_BUILDING)
#define KLNETBASE_EXPORT __declspec(dllexport)
#else
#define KLNETBASE_EXPORT __declspec(dllimport)
#endif
#else
#define KLNETBASE_EXPORT __attribute__((visibility("default")))
#endif
