// The module libzu3_wayland.so: all that calls libwayland-client, behind one entry.
#include "base/border.h"
#include "capture/screen_module.h"
#include "capture/wayland/wayland_session.h"
#include "capture/wayland/wayland_source.h"

namespace zu3host {

namespace {

constexpr auto patience = std::chrono::seconds(3);

WaylandConnection::Clock::time_point deadline()
{
    return WaylandConnection::Clock::now() + patience;
}

std::vector<ScreenOutput> list_outputs()
{
    WaylandProblem problem;
    std::vector<ScreenOutput> outputs;
    const auto session = WaylandSession::open(deadline(), problem);
    if (!session)
        return outputs;
    for (const auto& output : session->outputs()) {
        outputs.push_back(output->description_of());
        outputs.back().recorded = outputs.size() == 1 && session->screencopy();
    }
    return outputs;
}

using Kind = ScreenFinding::Kind;

ScreenFailure examine_outputs(const WaylandSession& session, std::vector<ScreenFinding>& findings)
{
    if (session.outputs().empty()) {
        findings.push_back({Kind::missing, "The Wayland session has no output: connect or enable "
                                           "one ('swaymsg output ... enable', for example)."});
        return ScreenFailure::failed;
    }
    const std::string& first = session.outputs().front()->name;
    const size_t count = session.outputs().size();
    findings.push_back(
        {Kind::good, count == 1 ? "The session has one output, " + first + ", which is captured."
                                : "The session has " + std::to_string(count) +
                                      " outputs, of which the first is captured: " + first + "."});
    return ScreenFailure::none;
}

ScreenFailure examine(std::vector<ScreenFinding>& findings)
{
    WaylandProblem problem;
    const auto session = WaylandSession::open(deadline(), problem);
    if (!session) {
        problem.reason.front() = static_cast<char>(std::toupper(problem.reason.front()));
        findings.push_back({Kind::missing, problem.reason + "."});
        return problem.failure;
    }
    findings.push_back({Kind::good, "The Wayland compositor answers."});
    if (!session->screencopy()) {
        findings.push_back(
            {Kind::missing,
             "The compositor does not copy its outputs for programs (zwlr_screencopy_manager_v1, "
             "version 2): unset ZU3_DISPLAY or set it to 'portal'."});
        return ScreenFailure::not_offered;
    }
    findings.push_back({Kind::good, "The compositor copies its outputs for programs "
                                    "(zwlr_screencopy_manager_v1)."});
    return examine_outputs(*session, findings);
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
