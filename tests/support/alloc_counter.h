// Counts heap allocations made through operator new in the test binary, so a test can check that
// a per-frame path allocates nothing once it is running.
#pragma once

#include <cstdint>

namespace testsupport {

// Number of operator new calls so far (all threads).
uint64_t allocation_count();

}  // namespace testsupport
