#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "library_test.h"
#include "random_calls.h"

namespace {

namespace fs = std::filesystem;

long long number_from(const char* variable, long long otherwise)
{
    const char* text = std::getenv(variable);
    return text ? std::atoll(text) : otherwise;
}

class RandomCalls : public LibraryTest {};

// Catches an order of calls, callbacks and faults that gets another answer than the model's.
TEST_F(RandomCalls, EveryAnswerIsTheModels)
{
    const auto seed = static_cast<u32>(number_from("RANDOM_CALLS_SEED", std::random_device{}()));
    const long long wanted = number_from("RANDOM_CALLS", RANDOM_CALLS_COUNT);
    printf("seed %u\n", seed);
    std::mt19937 generator(seed);
    RandomCallCounts counts;
    std::string problem;
    // the library prints events of the multiplexer there
    testing::internal::CaptureStdout();
    while (problem.empty() && !HasFailure() && counts.calls < wanted) {
        std::vector<u8> bytes(1000);
        for (u8& byte : bytes)
            byte = static_cast<u8>(generator());
        problem = run_random_calls(bytes, 100, counts);
    }
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(problem, "") << "seed " << seed;
    printf("%ld calls, %ld refused, %ld with a fault, %ld callbacks, %ld during a recording\n",
           counts.calls, counts.refused, counts.faults, counts.callbacks, counts.recording);
    EXPECT_LT(counts.refused * 10, counts.calls);
}

// Catches the return of a fault that random calls found before.
TEST_F(RandomCalls, WhatWasOnceFoundStaysMended)
{
    RandomCallCounts counts;
    for (const auto& entry : fs::directory_iterator(RANDOM_CALLS_CORPUS)) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<u8> bytes{std::istreambuf_iterator<char>(file), {}};
        EXPECT_EQ(run_random_calls(bytes, 100, counts), "") << entry.path();
    }
    EXPECT_GT(counts.calls, 0);
}

} // namespace
