// Watches the global operator new, so that a test can show that a length read from the peer was
// not trusted for one allocation up front, or that a path allocates nothing at all. Linking klNetAllocationProbe.cpp
// replaces operator new/delete for the whole program.
#pragma once

#include <cstddef>

namespace kltest {

// The largest single request to operator new since the last reset.
std::size_t largestAllocation();
void resetLargestAllocation();
// How many times operator new has been called in the whole program.
std::size_t allocationCount();

}  // namespace kltest
