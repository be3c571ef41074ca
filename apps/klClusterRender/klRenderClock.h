// klRenderClock: the clock the render client times its run with (the start of the servers, the
// first pixels, the render, the Slurm step's start).
//
// Thread safety: the clock is steady and may be read on any thread.
#pragma once

#include <chrono>

using klRenderClock = std::chrono::steady_clock;

inline double klSecondsSince(klRenderClock::time_point start) {
    return std::chrono::duration<double>(klRenderClock::now() - start).count();
}
