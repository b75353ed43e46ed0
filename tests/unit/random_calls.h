/** Sequences of calls of all exported functions, chosen by random bytes, libFuzzer or corpus. */
#pragma once

#include <string>
#include <vector>

#include "state_model.h"

struct RandomCallCounts {
    long calls = 0;
    /** by the library itself, since the state or an argument forbade the call */
    long refused = 0;
    /** calls during which the middleware or the heap failed */
    long faults = 0;
    long callbacks = 0;
    /** calls made while a slot records */
    long recording = 0;
};

/**
 * Runs at most `most` calls on a fresh double and compares each answer and state with the model's.
 */
std::string run_random_calls(const std::vector<u8>& bytes, int most, RandomCallCounts& counts);
