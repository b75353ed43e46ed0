/** What a client sees of a middleware call that fails: which of its own calls fail, and what the log says. */
#pragma once

#include <set>
#include <string>
#include <vector>

#include <zu3/types.h>

namespace faults {

struct Fault {
    std::string call; /**< as scripts name it; "malloc" for an allocation */
    int nth = 1;      /**< among the calls of that name in the scenario */
    s64 result = ZU_FAILURE;
};

struct Expectation {
    std::set<std::string> failing;   /**< the client's calls that answer failure */
    std::vector<std::string> errors; /**< "function]text" in their order; '*' stands for anything */
};

/** Of a fault that comes once, in a scenario of that kind: 'r' recording the screen, 'f' recording files,
 * 'c' and 'i' capture-encode with copied and injected pictures, 's' stills, 'p' PCM. `wherever`: of all
 * faults of that call, wherever in the scenario they come. */
Expectation expected_of(char kind, const Fault& fault, bool wherever = false);

bool matches(const std::string& pattern, const std::string& text);

} // namespace faults
