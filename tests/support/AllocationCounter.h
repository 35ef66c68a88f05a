// Number of C++ allocations (operator new) made so far by a test program
// that links tests/support/AllocationCounter.cpp.
#pragma once

long allocation_count();
