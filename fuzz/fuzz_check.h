#pragma once
// FUZZ_CHECK: a broken property is a finding: say which one, then stop as a crash would.
#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(ok) \
    ((ok) ? (void)0 : (std::fprintf(stderr, "check failed: %s (line %d)\n", #ok, __LINE__), std::abort()))
