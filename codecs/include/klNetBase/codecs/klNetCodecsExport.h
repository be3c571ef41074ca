// Symbol visibility of the klNetBaseCodecs shared library: built with hidden visibility, every
// class of its interface marked so that applications see its members, vtables and type information.
#pragma once

#if defined(_WIN32)
#if defined(KLNETCODECS_BUILDING)
#define KLNETCODECS_EXPORT __declspec(dllexport)
#else
#define KLNETCODECS_EXPORT __declspec(dllimport)
#endif
#else
#define KLNETCODECS_EXPORT __attribute__((visibility("default")))
#endif
