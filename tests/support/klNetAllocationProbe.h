// Watches the sizes passed to the global operator new of the test program, so that a test can
// show that a length read from the peer was not trusted for one allocation up front. Linking
// klNetAllocationProbe.cpp replaces operator new/delete for the whole program.
#pragma once

#include <cstddef>

namespace kltest {

void resetLargestAllocation();
// The largest single request to operator new since the last reset.
std::size_t largestAllocation();

}  // namespace kltest
