/**
 * Every call fails: eight scenarios, and in each the n-th middleware call answers everything that its
 * contract lets it answer, once and from there on; so does every allocation; and so does every call of the
 * clean-up behind a first fault. A breach is a wrong answer or message, anything left open or used dead, or a
 * scenario that does not run afterwards as it ran before.
 */
#include <algorithm>

#include <capture/display_connection.h>

#include "fault_expectations.h"
#include "fault_scenarios.h"
#include "middleware/contract_results.h"

namespace {

using faults::Expectation;
using faults::Fault;

/** What a run of a scenario came to. */
struct Outcome {
    std::set<std::string> failing;
    std::vector<std::string> errors;
    std::vector<std::string> calls; /**< by name, in their order */
    bool in_failed = false;         /**< the way in ended early */
    size_t closing = 0;             /**< the call at which the way out began */
};

struct Count {
    int tried = 0, breaches = 0;
};

/** Every so manieth fault is tried; the strides meet each way of failing in turn. */
constexpr int stride_of_faults = runs_slowly ? 5 : 1;
constexpr int stride_of_second_faults = runs_slowly ? 23 : 1;

class FaultInjection : public FaultScenarios {
protected:
    static void TearDownTestSuite()
    {
        printf("all scenarios: injections tried %d, breaches %d\n", total_.tried, total_.breaches);
    }

    static bool is_among(const std::vector<Fault>& faults, const char* call)
    {
        return std::any_of(faults.begin(), faults.end(), [&](const Fault& f) { return f.call == call; });
    }

    /** Error lines without those that say what every stop and every de-initialisation of less than all says.
     */
    std::vector<std::string> error_texts(const std::vector<Fault>& injected)
    {
        std::vector<std::string> texts;
        for (const std::string& line : errors()) {
            const std::string text = line.substr(line.starts_with("E [") ? 3 : 2);
            const bool usual =
                text.starts_with("SCREENRECORD_DeInit]SCREENRECORD_Close failed module: ") ||
                (text == "SCREENRECORD_Close]Failed to ZU_TSMUX_SetAttr()" &&
                 !is_among(injected, "ZU_TSMUX_SetAttr:0x200")) ||
                text ==
                    "video_capenc_setWatermark watermark flow is supported in external memory case only now";
            if (!usual)
                texts.push_back(text);
        }
        return texts;
    }

    Outcome run(const Scenario& scenario, const std::vector<Fault>& injected)
    {
        Outcome outcome;
        for (const Step& step : scenario.in) {
            if (step.call())
                continue;
            outcome.failing.insert(step.name);
            outcome.in_failed = step.needed;
            const bool is_an_open = step.name.ends_with("cap_open") || step.name == "video_capenc_open";
            EXPECT_TRUE(!is_an_open || slot_is_closed(0)) << step.name << " left something open";
            if (step.needed)
                break;
        }
        outcome.closing = mw.call_names().size();
        for (const Step& step : scenario.out)
            if (!step.call())
                outcome.failing.insert(step.name);
        for (std::future<u32>& callback : callbacks_)
            callback.get();
        callbacks_.clear();
        mw.settle();
        outcome.calls = mw.call_names();
        outcome.errors = error_texts(injected);
        return outcome;
    }

    Outcome run_with(const Scenario& scenario, const std::vector<Fault>& injected, bool for_ever)
    {
        prepare();
        busy_ = for_ever && injected[0].result == ZU_BUSY;
        for (const Fault& fault : injected)
            mw.fail(fault.call, {.result = fault.result, .nth = fault.nth, .forever = for_ever});
        return run(scenario, injected);
    }

    /** The number in its pass, for what the table of expectations knows. */
    static int in_pass(const Scenario& scenario, const Outcome& clean, const Fault& fault)
    {
        const auto all = static_cast<int>(std::count(clean.calls.begin(), clean.calls.end(), fault.call));
        const bool repeated = all % scenario.passes == 0 && all > 0;
        return repeated ? (fault.nth - 1) % (all / scenario.passes) + 1 : fault.nth;
    }

    /** With the lines and answers of the one call that makes all the steps of a recording. */
    static Expectation as_seen(const Scenario& scenario, Expectation e)
    {
        if (scenario.in.front().name != "startScreenRecord")
            return e;
        Expectation seen = {{}, e.errors};
        for (const std::string& step : e.failing) {
            const bool at_the_end = step == "SCREENRECORD_Close";
            const std::string call = at_the_end ? "stopScreenRecord" : "startScreenRecord";
            seen.failing.insert(call);
            seen.errors.push_back(call + "]" + step + " Fail");
        }
        return seen;
    }

    static bool all_of(const std::vector<std::string>& patterns, const std::vector<std::string>& texts)
    {
        return std::equal(patterns.begin(), patterns.end(), texts.begin(), texts.end(), faults::matches);
    }

    /** A sentence for each thing that a fault which comes once must not have led to. */
    static void judge(const Outcome& outcome, const Expectation& e, std::vector<std::string>& breaches)
    {
        if (outcome.failing != e.failing)
            breaches.push_back("failed: " + joined(outcome.failing) + "instead of: " + joined(e.failing));
        if (!all_of(e.errors, outcome.errors))
            breaches.push_back("said: " + middleware::joined(outcome.errors) +
                               "instead of: " + middleware::joined(e.errors));
    }

    /** The same where several faults came: nothing but what they may lead to. */
    static void judge_loosely(const Outcome& outcome, const Expectation& least, const Expectation& allowed,
                              std::vector<std::string>& breaches)
    {
        if (!std::includes(outcome.failing.begin(), outcome.failing.end(), least.failing.begin(),
                           least.failing.end()))
            breaches.push_back("failed: " + joined(outcome.failing) + "and not: " + joined(least.failing));
        for (const std::string& pattern : least.errors)
            if (std::none_of(outcome.errors.begin(), outcome.errors.end(),
                             [&](const std::string& text) { return faults::matches(pattern, text); }))
                breaches.push_back("did not say: " + pattern);
        if (!std::includes(allowed.failing.begin(), allowed.failing.end(), outcome.failing.begin(),
                           outcome.failing.end()))
            breaches.push_back("failed: " + joined(outcome.failing));
        for (const std::string& text : outcome.errors)
            if (std::none_of(allowed.errors.begin(), allowed.errors.end(),
                             [&](const std::string& pattern) { return faults::matches(pattern, text); }))
                breaches.push_back("said: " + text);
    }

    static std::vector<std::string> sorted(std::vector<std::string> names)
    {
        std::sort(names.begin(), names.end());
        return names;
    }

    static std::string joined(const std::set<std::string>& names)
    {
        return middleware::joined(names);
    }

    /** What is left, and whether the scenario runs as it did before anything failed. */
    void judge_afterwards(const Scenario& scenario, const Outcome& clean, const std::vector<Fault>& injected,
                          std::vector<std::string>& breaches)
    {
        for (const std::string& problem : mw.ledger_problems())
            breaches.push_back(problem);
        if (_u32DispHandle != 0) { // what could not be disconnected counts as connected for one more time
            if (!is_among(injected, "ZU_CAP_DisconnectInput"))
                breaches.push_back("the display is left connected");
            prepare();
            run(scenario, {});
        }
        prepare();
        Outcome again = run(scenario, {});
        for (const std::string& problem : mw.ledger_problems())
            breaches.push_back("run again: " + problem);
        if (again.failing != clean.failing || again.errors != clean.errors)
            breaches.push_back("run again, failed: " + joined(again.failing) +
                               middleware::joined(again.errors));
        if (sorted(again.calls) != sorted(clean.calls)) // tasks take their turns as they like
            breaches.push_back("run again, it makes other calls");
    }

    void count(Count& count, const std::string& what, const std::vector<std::string>& breaches)
    {
        for (Count* c : {&count, &total_}) {
            c->tried++;
            c->breaches += !breaches.empty();
        }
        if (!breaches.empty() && total_.breaches <= 20)
            ADD_FAILURE() << what << ":\n" << middleware::joined(breaches);
    }

    static std::string text_of(const Scenario& scenario, const std::vector<Fault>& injected, bool for_ever)
    {
        std::string text = scenario.name;
        for (const Fault& f : injected)
            text += ", " + f.call + " number " + std::to_string(f.nth) + " = " + std::to_string(f.result);
        return text + (for_ever ? ", for ever" : "");
    }

public:
    /** Judges a run with one fault, which the table knows as `known`. */
    void judge_single(const Scenario& scenario, const Outcome& clean, const Outcome& outcome,
                      const Fault& fault, const Fault& known, bool for_ever, Count& counted);
    void try_single_faults(const Scenario& scenario, const Outcome& clean, Count& counted);
    void try_second_faults(const Scenario& scenario, const Outcome& clean, Count& counted);
    void try_allocations(const Scenario& scenario, const Outcome& clean, Count& counted);

protected:
    /** Every call of a run: its name and its number among those of that name. */
    static std::vector<Fault> calls_of(const std::vector<std::string>& names, size_t from = 0)
    {
        std::map<std::string, int> seen;
        std::vector<Fault> result;
        for (size_t i = 0; i < names.size(); i++) {
            const int nth = ++seen[names[i]];
            if (i >= from && !middleware::contract_results(names[i]).empty())
                result.push_back({names[i], nth, middleware::contract_results(names[i])[0]});
        }
        return result;
    }

    template <class Try> void in_every_scenario(const char* what, Try try_faults)
    {
        for (const Scenario& scenario : scenarios()) {
            prepare();
            run(scenario, {}); // the process's first run differs in what is initialised once
            prepare();
            const Outcome clean = run(scenario, {});
            EXPECT_CALLS(mw.ledger_problems(), {});
            EXPECT_TRUE(clean.failing.empty() && clean.errors.empty())
                << scenario.name << "\n"
                << joined(clean.failing) << middleware::joined(clean.errors);
            Count counted;
            (this->*try_faults)(scenario, clean, counted);
            printf("%s, %s: injections tried %d, breaches %d\n", scenario.name, what, counted.tried,
                   counted.breaches);
        }
        prepare();
    }

    static inline Count total_;
};

void FaultInjection::judge_single(const Scenario& scenario, const Outcome& clean, const Outcome& outcome,
                                  const Fault& fault, const Fault& known, bool for_ever, Count& counted)
{
    std::vector<std::string> breaches;
    const Expectation once = as_seen(scenario, faults::expected_of(scenario.kind, known));
    if (for_ever)
        judge_loosely(outcome, once, as_seen(scenario, faults::allowed_of(scenario.kind, known)), breaches);
    else
        judge(outcome, once, breaches);
    judge_afterwards(scenario, clean, {fault}, breaches);
    count(counted, text_of(scenario, {fault}, for_ever), breaches);
}

void FaultInjection::try_single_faults(const Scenario& scenario, const Outcome& clean, Count& counted)
{
    int number = 0;
    for (Fault fault : calls_of(clean.calls)) {
        for (const s64 result : middleware::contract_results(fault.call)) {
            fault.result = result;
            for (const bool for_ever : {false, true}) {
                if (number++ % stride_of_faults != 0)
                    continue;
                const Outcome outcome = run_with(scenario, {fault}, for_ever);
                const Fault known = {fault.call, in_pass(scenario, clean, fault), result};
                judge_single(scenario, clean, outcome, fault, known, for_ever, counted);
            }
        }
    }
}

void FaultInjection::try_second_faults(const Scenario& scenario, const Outcome& clean, Count& counted)
{
    int number = 0;
    for (const Fault& first : calls_of(clean.calls)) {
        if (scenario.passes > 1 && in_pass(scenario, clean, first) == first.nth)
            continue; // what comes once is a scenario of its own
        const Outcome alone = run_with(scenario, {first}, false);
        size_t from = 0; // behind the fault, where the library's own clean-up begins
        for (int left = first.nth; from < alone.calls.size() && left > 0; from++)
            left -= alone.calls[from] == first.call;
        if (!alone.in_failed)
            from = std::max(from, alone.closing);
        for (Fault second : calls_of(alone.calls, from)) {
            if (number++ % stride_of_second_faults != 0)
                continue;
            const std::string what = text_of(scenario, {first, second}, false);
            second.nth -= second.call == first.call; // a call that is answered counts for one script only
            const Outcome outcome = run_with(scenario, {first, second}, false);
            Expectation allowed = as_seen(scenario, faults::allowed_of(scenario.kind, first));
            allowed.failing.insert(alone.failing.begin(), alone.failing.end());
            allowed.errors.insert(allowed.errors.end(), alone.errors.begin(), alone.errors.end());
            const Expectation more = as_seen(scenario, faults::allowed_of(scenario.kind, second));
            allowed.failing.insert(more.failing.begin(), more.failing.end());
            allowed.errors.insert(allowed.errors.end(), more.errors.begin(), more.errors.end());
            std::vector<std::string> breaches;
            if (outcome.in_failed != alone.in_failed)
                breaches.push_back("the second fault changes the answer of the first");
            judge_loosely(outcome, {}, allowed, breaches);
            judge_afterwards(scenario, clean, {first, second}, breaches);
            count(counted, what, breaches);
        }
    }
}

void FaultInjection::try_allocations(const Scenario& scenario, const Outcome& clean, Count& counted)
{
    prepare();
    int per_pass = 0;
    {
        const middleware::AllocationWindow window;
        run(scenario, {});
        per_pass = window.count() / scenario.passes;
    }
    for (const bool for_ever : {false, true}) {
        bool failed = true;
        for (int number = 1; failed; number++) {
            prepare();
            Outcome outcome;
            {
                const middleware::AllocationWindow window(number, for_ever);
                outcome = run(scenario, {});
                failed = window.failed();
            }
            if (!failed)
                break;
            const Fault fault = {"malloc", (number - 1) % per_pass + 1, 0};
            judge_single(scenario, clean, outcome, fault, fault, for_ever, counted);
        }
    }
}

TEST_F(FaultInjection, EveryCallFailsInEveryWay)
{
    in_every_scenario("calls", &FaultInjection::try_single_faults);
}

TEST_F(FaultInjection, EveryAllocationFails)
{
    in_every_scenario("allocations", &FaultInjection::try_allocations);
}

TEST_F(FaultInjection, EverySecondFaultDuringTheCleanUpBehindAFirst)
{
    in_every_scenario("second faults", &FaultInjection::try_second_faults);
}

} // namespace
