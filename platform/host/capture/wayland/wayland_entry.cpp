// The module libzu3_wayland.so: all that calls libwayland-client, behind one entry.
#include "base/border.h"
#include "capture/screen_module.h"
#include "capture/wayland/frame_copy.h"
#include "capture/wayland/wayland_session.h"
#include "capture/wayland/wayland_source.h"

#include <cctype>

namespace zu3host {

namespace {

constexpr auto patience = std::chrono::seconds(3);

WaylandConnection::Clock::time_point deadline()
{
    return WaylandConnection::Clock::now() + patience;
}

std::vector<ScreenOutput> list_outputs(const std::string& monitor)
{
    WaylandProblem problem;
    std::vector<ScreenOutput> outputs;
    const auto session = WaylandSession::open(deadline(), problem);
    if (!session)
        return outputs;
    const WaylandOutput* const chosen =
        session->screencopy() ? session->choose_output(monitor, problem) : nullptr;
    for (const auto& output : session->outputs()) {
        outputs.push_back(output->description_of());
        outputs.back().recorded = output.get() == chosen;
    }
    return outputs;
}

using Kind = ScreenFinding::Kind;

ScreenFailure add_problem(WaylandProblem problem, std::vector<ScreenFinding>& findings)
{
    std::string& reason = problem.reason;
    reason.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(reason.front())));
    const bool portal_may_help = problem.failure == ScreenFailure::not_offered;
    findings.push_back(
        {Kind::missing,
         reason + (portal_may_help ? ": use the desktop portal (ZU3_DISPLAY=portal)." : ".")});
    return problem.failure;
}

/** A copy with the first layout that the compositor offers; null if none comes in time. */
std::unique_ptr<FrameCopy> offered_frame(WaylandSession& session, const WaylandOutput& output)
{
    auto frame = std::make_unique<FrameCopy>(session, output.proxy, false);
    const bool offered = session.connection().wait_until(
        deadline(), [&] { return frame->state() != FrameCopy::State::announced; });
    return offered ? std::move(frame) : nullptr;
}

ScreenFailure examine(const std::string& monitor, std::vector<ScreenFinding>& findings)
{
    WaylandProblem problem;
    const auto session = WaylandSession::open(deadline(), problem);
    if (!session)
        return add_problem(std::move(problem), findings);
    findings.push_back({Kind::good, "The Wayland compositor answers."});
    if (problem = session->problem(); problem.failure != ScreenFailure::none)
        return add_problem(std::move(problem), findings);
    findings.push_back({Kind::good, "The compositor copies its outputs for programs "
                                    "(zwlr_screencopy_manager_v1)."});
    const WaylandOutput* const chosen = session->choose_output(monitor, problem);
    if (!chosen)
        return add_problem(std::move(problem), findings);
    const std::string name = chosen->name;
    const size_t count = session->outputs().size();
    const auto frame = offered_frame(*session, *chosen);
    problem = frame ? frame->problem()
                    : WaylandProblem{ScreenFailure::failed,
                                     "the Wayland compositor does not offer a copy of the output"};
    if (problem.failure != ScreenFailure::none)
        return add_problem(std::move(problem), findings);
    findings.push_back({Kind::good, count == 1 || !monitor.empty()
                                        ? "The output " + name + " is captured."
                                        : "Of " + std::to_string(count) +
                                              " outputs the first is captured: " + name + "."});
    return ScreenFailure::none;
}

} // namespace

} // namespace zu3host

extern "C" HOST_EXPORT const zu3host::ScreenModule* zu3_screen_module()
{
    static constexpr zu3host::ScreenModule module{zu3host::PatientSource::usual_limit,
                                                  zu3host::WaylandSource::open,
                                                  zu3host::list_outputs, zu3host::examine};
    return &module;
}
