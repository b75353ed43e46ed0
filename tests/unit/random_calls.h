/**
 * Sequences of calls over all exported functions, chosen by bytes: from a random generator in the
 * unit tests, from libFuzzer in the long form, from the corpus of what was once found.
 */
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
 * Runs one sequence of at most `most` calls on a fresh double, compares every answer and the state
 * behind it with the model's, closes everything and looks at what is left.
 * @return what was wrong, with the calls that led there; empty when nothing was
 */
std::string run_random_calls(const std::vector<u8>& bytes, int most, RandomCallCounts& counts);
