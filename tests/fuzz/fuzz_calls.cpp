/** The random calls, their bytes chosen by libFuzzer to reach code that none reached before. */
#include <gtest/gtest.h>

#include "unit/random_calls.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    testing::InitGoogleTest(argc, *argv);
    GTEST_FLAG_SET(break_on_failure, true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    RandomCallCounts counts;
    const std::string problem = run_random_calls({data, data + size}, 100, counts);
    if (problem.empty())
        return 0;
    fputs(problem.c_str(), stderr);
    abort();
}
