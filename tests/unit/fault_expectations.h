/**
 * The visible effects of a failing middleware call: the client's calls that fail, and log lines.
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

/** Kinds of scenarios, as bits: a rule may be for several. */
enum Kind : unsigned {
    /** records the screen */
    screen = 1,
    /** records files */
    files = 2,
    /** capture-encode, with pictures injected into the encoder's buffer */
    inject = 4,
    /** capture-encode, with pictures copied */
    copy = 8,
    stills = 16,
    pcm = 32,
};

/** Of a fault that comes once; `wherever`: of all faults of that call, wherever in the scenario. */
Expectation expected_of(Kind kind, const Fault& fault, bool wherever = false);

bool matches(const std::string& pattern, const std::string& text);

} // namespace faults
