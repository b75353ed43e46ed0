/**
 * In nine scenarios each middleware call and allocation fails in every way of the contract, once
 * and for ever, and so does each clean-up call behind a first fault. A breach is a wrong answer or
 * message, a leftover, a use after a close, or a scenario that runs differently afterwards.
 */
#include "modules/display_connection.h"

#include "fault_expectations.h"
#include "fault_scenarios.h"

namespace {

using faults::Expectation;
using faults::Fault;
using middleware::joined;

/** The outcome of a run of a scenario. */
struct Outcome {
    std::set<std::string> failing;
    std::vector<std::string> errors;
    /** by name, in their order */
    std::vector<std::string> calls;
    /** the way in ended early */
    bool in_failed = false;
    /** the call at which the way out began */
    size_t closing = 0;
};

/** One fault in so many is tried; a clean-up, on one thread, rarely interests ThreadSanitizer. */
#ifdef __SANITIZE_THREAD__
constexpr int stride_of_faults = 19, stride_of_second_faults = 97;
#else
constexpr int stride_of_faults = runs_slowly ? 5 : 1,
              stride_of_second_faults = runs_slowly ? 23 : 1;
#endif

bool is_among(const std::vector<Fault>& faults, const char* call)
{
    return std::ranges::count(faults, call, &Fault::call) != 0;
}

/** Each call of a run that can fail: its name, its number among its like, its plain failure. */
std::vector<Fault> faults_of(const std::vector<std::string>& calls, size_t from = 0)
{
    std::map<std::string, int> seen;
    std::vector<Fault> result;
    for (size_t i = 0; i < calls.size(); i++) {
        const int nth = ++seen[calls[i]];
        const std::vector<s64> results = middleware::contract_results(calls[i]);
        if (i >= from && !results.empty())
            result.push_back({calls[i], nth, results.front()});
    }
    return result;
}

/** The number in its pass, for what the table of expectations knows. */
Fault in_pass(const Scenario& scenario, const Outcome& clean, Fault fault)
{
    const auto all = static_cast<int>(std::ranges::count(clean.calls, fault.call));
    if (all % scenario.passes == 0 && all > 0)
        fault.nth = (fault.nth - 1) % (all / scenario.passes) + 1;
    return fault;
}

/** With the lines and answers of the one call that makes all the steps of a recording. */
Expectation as_seen(const Scenario& scenario, const Expectation& e)
{
    if (scenario.in.front().name != "startScreenRecord")
        return e;
    Expectation seen = {{}, e.errors};
    for (const std::string& step : e.failing) {
        const std::string call =
            step == "SCREENRECORD_Close" ? "stopScreenRecord" : "startScreenRecord";
        seen.failing.insert(call);
        seen.errors.push_back(call + "]" + step + " Fail");
    }
    return seen;
}

/** A sentence for each thing that must come of the faults and did not, or did and may not. */
void judge(const Outcome& outcome, const Expectation& least, const Expectation& most,
           std::vector<std::string>& breaches)
{
    if (!std::ranges::includes(outcome.failing, least.failing) ||
        !std::ranges::includes(most.failing, outcome.failing))
        breaches.push_back("failed: " + joined(outcome.failing) + "although only these may: " +
                           joined(most.failing) + "and these must: " + joined(least.failing));
    for (const std::string& pattern : least.errors)
        if (std::ranges::none_of(outcome.errors,
                                 [&](auto& text) { return faults::matches(pattern, text); }))
            breaches.push_back("did not say: " + pattern);
    for (const std::string& text : outcome.errors)
        if (std::ranges::none_of(most.errors,
                                 [&](auto& pattern) { return faults::matches(pattern, text); }))
            breaches.push_back("said: " + text);
}

class FaultInjection : public FaultScenarios {
public: // for the tests, which name its trials
    static void TearDownTestSuite()
    {
        printf("all scenarios: injections tried %d, breaches %d\n", tried_, breaches_);
    }

    /** Error lines without those that every stop and every partial de-initialisation writes. */
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
                    "video_capenc_setWatermark watermark flow is supported in external memory case "
                    "only now";
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
            const bool is_an_open =
                step.name.ends_with("cap_open") || step.name == "video_capenc_open";
            EXPECT_TRUE(!is_an_open || slot_is_closed(0)) << step.name << " left something open";
            if (step.needed)
                break;
        }
        outcome.closing = mw.call_names().size();
        for (const Step& step : scenario.out)
            if (!step.call())
                outcome.failing.insert(step.name);
        callbacks_.clear(); // joins them
        mw.settle();
        outcome.calls = mw.call_names();
        outcome.errors = error_texts(injected);
        return outcome;
    }

    /** On a double prepared anew, with these faults. */
    Outcome run_with(const Scenario& scenario, const std::vector<Fault>& injected,
                     bool for_ever = false)
    {
        prepare();
        busy_ = for_ever && injected[0].result == ZU_BUSY;
        for (const Fault& fault : injected)
            mw.fail(fault.call, {.result = fault.result, .nth = fault.nth, .forever = for_ever});
        return run(scenario, injected);
    }

    /** Leftovers, and whether the scenario runs as it did before anything failed. */
    void judge_afterwards(const Scenario& scenario, const Outcome& clean,
                          const std::vector<Fault>& injected, std::vector<std::string>& breaches)
    {
        for (const std::string& problem : mw.ledger_problems())
            breaches.push_back(problem);
        if (_u32DispHandle != 0) { // not disconnected: counts as connected for one more time
            if (!is_among(injected, "ZU_CAP_DisconnectInput"))
                breaches.push_back("the display is left connected");
            run_with(scenario, {});
        }
        const Outcome again = run_with(scenario, {});
        for (const std::string& problem : mw.ledger_problems())
            breaches.push_back("run again: " + problem);
        if (again.failing != clean.failing || again.errors != clean.errors)
            breaches.push_back("run again, failed: " + joined(again.failing) +
                               joined(again.errors));
        if (!std::ranges::is_permutation(again.calls, clean.calls)) // tasks take their own turns
            breaches.push_back("run again, it makes other calls");
    }

    /** Counts what was injected, and tells of its breaches. */
    void count(const Scenario& scenario, const std::vector<Fault>& injected, bool for_ever,
               const std::vector<std::string>& breaches)
    {
        tried_++;
        breaches_ += !breaches.empty();
        if (breaches.empty() || breaches_ > 20)
            return;
        std::string text = scenario.name;
        for (const Fault& f : injected)
            text += ", " + f.call + " number " + std::to_string(f.nth) + " = " +
                    std::to_string(f.result);
        ADD_FAILURE() << text << (for_ever ? ", for ever" : "") << ":\n" << joined(breaches);
    }

    /** Judges a run with one fault. */
    void judge_single(const Scenario& scenario, const Outcome& clean, const Outcome& outcome,
                      const Fault& fault, const Fault& known, bool for_ever)
    {
        std::vector<std::string> breaches;
        const Expectation once = as_seen(scenario, faults::expected_of(scenario.kind, known));
        judge(outcome, once,
              for_ever ? as_seen(scenario, faults::expected_of(scenario.kind, known, true)) : once,
              breaches);
        if (!for_ever && !std::ranges::equal(once.errors, outcome.errors, faults::matches))
            breaches.push_back("said: " + joined(outcome.errors) +
                               "instead of: " + joined(once.errors));
        judge_afterwards(scenario, clean, {fault}, breaches);
        count(scenario, {fault}, for_ever, breaches);
    }

    void try_single_faults(const Scenario& scenario, const Outcome& clean)
    {
        int number = 0;
        for (Fault fault : faults_of(clean.calls)) {
            for (const s64 result : middleware::contract_results(fault.call)) {
                fault.result = result;
                for (const bool for_ever : {false, true}) {
                    if (number++ % stride_of_faults != 0)
                        continue;
                    const Outcome outcome = run_with(scenario, {fault}, for_ever);
                    judge_single(scenario, clean, outcome, fault, in_pass(scenario, clean, fault),
                                 for_ever);
                }
            }
        }
    }

    void try_second_faults(const Scenario& scenario, const Outcome& clean)
    {
        int number = 0;
        for (const Fault& first : faults_of(clean.calls)) {
            if (scenario.passes > 1 && in_pass(scenario, clean, first).nth == first.nth)
                continue; // another scenario has it
            const Outcome alone = run_with(scenario, {first});
            // behind the fault, in the library's clean-up
            size_t from = 0;
            for (int left = first.nth; from < alone.calls.size() && left > 0; from++)
                left -= alone.calls[from] == first.call;
            if (!alone.in_failed)
                from = std::max(from, alone.closing);
            for (Fault second : faults_of(alone.calls, from)) {
                if (number++ % stride_of_second_faults != 0)
                    continue;
                // a call that is answered counts for one script only
                second.nth -= second.call == first.call;
                const Outcome outcome = run_with(scenario, {first, second});
                Expectation allowed = {alone.failing, alone.errors};
                for (const Fault& fault : {first, second}) {
                    const Expectation more =
                        as_seen(scenario, faults::expected_of(scenario.kind, fault, true));
                    allowed.failing.insert(more.failing.begin(), more.failing.end());
                    allowed.errors.insert(allowed.errors.end(), more.errors.begin(),
                                          more.errors.end());
                }
                std::vector<std::string> breaches;
                if (outcome.in_failed != alone.in_failed)
                    breaches.push_back("the second fault changes the answer of the first");
                judge(outcome, {}, allowed, breaches);
                judge_afterwards(scenario, clean, {first, second}, breaches);
                count(scenario, {first, second}, false, breaches);
            }
        }
    }

    void try_allocations(const Scenario& scenario, const Outcome& clean)
    {
        int asked = 0;
        const auto run_failing = [&](int number, bool for_ever) {
            prepare();
            const middleware::AllocationWindow window(number, for_ever);
            Outcome outcome = run(scenario, {});
            asked = window.count();
            return outcome;
        };
        run_failing(0, false);
        const int per_pass = asked / scenario.passes;
        for (const bool for_ever : {false, true}) {
            for (int number = 1;; number++) {
                const Outcome outcome = run_failing(number, for_ever);
                if (asked < number)
                    break;
                const Fault fault = {"malloc", (number - 1) % per_pass + 1, 0};
                judge_single(scenario, clean, outcome, fault, fault, for_ever);
            }
        }
    }

    template <class Try> void in_every_scenario(Try try_faults)
    {
        for (const Scenario& scenario : scenarios()) {
            // the process's first run differs in what is initialised once
            run_with(scenario, {});
            const Outcome clean = run_with(scenario, {});
            EXPECT_CALLS(mw.ledger_problems(), {});
            EXPECT_TRUE(clean.failing.empty() && clean.errors.empty())
                << scenario.name << "\n"
                << joined(clean.failing) << joined(clean.errors);
            (this->*try_faults)(scenario, clean);
        }
        prepare();
    }

    static inline int tried_ = 0, breaches_ = 0;
};

// Catches a failed device call that is ignored, reported wrongly, or leaves something open.
TEST_F(FaultInjection, EveryCallFailsInEveryWay)
{
    in_every_scenario(&FaultInjection::try_single_faults);
}

// Catches a failed allocation that crashes, is reported wrongly, or leaves something open.
TEST_F(FaultInjection, EveryAllocationFails)
{
    in_every_scenario(&FaultInjection::try_allocations);
}

// Catches a clean-up that ends at its first failing call and leaves the rest open.
TEST_F(FaultInjection, EverySecondFaultDuringTheCleanUpBehindAFirst)
{
    in_every_scenario(&FaultInjection::try_second_faults);
}

} // namespace
