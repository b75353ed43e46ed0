/**
 * What a client sees of a middleware call that fails: which of its own calls fail, and what the log
 * says.
 */
#pragma once

#include <set>
#include <string>
#include <vector>

#include <zu3/types.h>

namespace faults {

struct Fault {
    /** as scripts name it; "malloc" for an allocation */
    std::string call;
    /** among the calls of that name in the scenario */
    int nth = 1;
    s64 result = ZU_FAILURE;
};

struct Expectation {
    /** the client's calls that answer failure */
    std::set<std::string> failing;
    /** "function]text" in their order; '*' stands for anything */
    std::vector<std::string> errors;
};

/**
 * Of a fault that comes once, in a scenario of that kind: 'r' recording the screen, 'f' recording
 * files, 'c' and 'i' capture-encode with copied and injected pictures, 's' stills, 'p' PCM.
 * `wherever`: of all faults of that call, wherever in the scenario they come.
 */
Expectation expected_of(char kind, const Fault& fault, bool wherever = false);

bool matches(const std::string& pattern, const std::string& text);

} // namespace faults
