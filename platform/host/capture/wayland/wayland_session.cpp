#include "capture/wayland/wayland_session.h"

#include "base/border.h"

#include <algorithm>
#include <common/screen_part.h>
#include <cstring>
#include <utility>

namespace zu3host {

namespace {

/** More than any desktop has; further outputs are ignored. */
constexpr size_t most_outputs = 32;

WaylandOutput& output_of(void* data)
{
    return *static_cast<WaylandOutput*>(data);
}

/** A copy of a text in an event; empty without memory. */
void keep(std::string& kept, const char* given)
{
    answer_or(
        false, [&] { return kept = given ? given : "", true; }, [](const char*) {});
}

constexpr wl_output_listener output_listener{
    .geometry =
        [](void* data, wl_output*, int32_t, int32_t, int32_t, int32_t, int32_t, const char* make,
           const char* model, int32_t transform) {
            WaylandOutput& output = output_of(data);
            output.transform = transform;
            if (output.description.empty())
                answer_or(
                    false,
                    [&] {
                        output.description = std::string(make) + " " + model;
                        return true;
                    },
                    [](const char*) {});
        },
    .mode =
        [](void* data, wl_output*, uint32_t flags, int32_t width, int32_t height, int32_t refresh) {
            if (!(flags & WL_OUTPUT_MODE_CURRENT))
                return;
            WaylandOutput& output = output_of(data);
            output.mode_width = width;
            output.mode_height = height;
            output.refresh_mhz = std::max(0, refresh);
        },
    .done = [](void*, wl_output*) {},
    .scale = [](void* data, wl_output*,
                int32_t factor) { output_of(data).scale = std::max(1, factor); },
    .name = [](void* data, wl_output*, const char* name) { keep(output_of(data).name, name); },
    .description = [](void* data, wl_output*,
                      const char* text) { keep(output_of(data).description, text); },
};

constexpr LogicalOutputListener logical_listener{
    .logical_position = [](void*, LogicalOutput*, int32_t, int32_t) {},
    .logical_size = [](void* data, LogicalOutput*, int32_t width,
                       int32_t) { output_of(data).logical_width = std::max(0, width); },
    .done = [](void*, LogicalOutput*) {},
    .name = [](void* data, LogicalOutput*, const char* name) { keep(output_of(data).name, name); },
    .description = [](void*, LogicalOutput*, const char*) {},
};

/** wl_output_transform: a quarter turn in bits 0 and 1, a mirror in bit 2. */
constexpr uint32_t quarters(int32_t transform)
{
    return static_cast<uint32_t>(transform) & 3;
}

} // namespace

WaylandOutput::~WaylandOutput()
{
    if (logical)
        destroy(logical);
    if (proxy && wl_output_get_version(proxy) >= WL_OUTPUT_RELEASE_SINCE_VERSION)
        wl_output_release(proxy);
    else if (proxy)
        wl_output_destroy(proxy);
}

ScreenOutput WaylandOutput::description_of() const
{
    PictureSize size{static_cast<uint32_t>(std::max(0, mode_width)),
                     static_cast<uint32_t>(std::max(0, mode_height))};
    if (quarters(transform) & 1)
        std::swap(size.width, size.height);
    return {.name = name,
            .description = description,
            .size = size,
            .scale = logical_width ? double(size.width) / logical_width : double(scale),
            .degrees = quarters(transform) * 90,
            .mirrored = (transform & 4) != 0,
            .refresh_mhz = static_cast<uint32_t>(refresh_mhz),
            .recorded = false};
}

std::unique_ptr<WaylandSession> WaylandSession::open(WaylandConnection::Clock::time_point deadline,
                                                     WaylandProblem& problem)
{
    static constexpr wl_registry_listener listener{&WaylandSession::global,
                                                   &WaylandSession::global_removed};
    auto connection = WaylandConnection::open(problem);
    if (!connection)
        return nullptr;
    const std::string name = connection->name();
    std::unique_ptr<WaylandSession> session(new WaylandSession(std::move(connection)));
    session->registry_ = wl_display_get_registry(session->connection_->display());
    if (!session->registry_ ||
        wl_registry_add_listener(session->registry_, &listener, session.get()) != 0)
        throw std::bad_alloc();
    // The first answer follows the globals, the second one their events.
    for (int round = 0; round < 2; ++round) {
        if (round == 1)
            session->ask_for_logical_sizes();
        if (!session->wait_for_answer(deadline)) {
            problem = {ScreenFailure::failed,
                       "the Wayland compositor at WAYLAND_DISPLAY=\"" + name +
                           (session->connection_->lost() ? "\" ended the connection"
                                                         : "\" does not answer")};
            return nullptr;
        }
    }
    for (size_t i = 0; i < session->outputs_.size(); ++i)
        if (std::string& output = session->outputs_[i]->name; output.empty())
            output = "number " + std::to_string(i + 1);
    return session;
}

WaylandSession::~WaylandSession()
{
    outputs_.clear();
    if (answer_)
        wl_callback_destroy(answer_);
    if (logical_outputs_)
        destroy(logical_outputs_);
    if (screencopy_)
        destroy(screencopy_);
    if (shm_)
        wl_shm_destroy(shm_);
    if (registry_)
        wl_registry_destroy(registry_);
}

WaylandProblem WaylandSession::problem() const
{
    if (!screencopy_)
        return {ScreenFailure::not_offered,
                "the Wayland compositor does not copy its outputs for programs "
                "(zwlr_screencopy_manager_v1, version 2)"};
    if (!shm_)
        return {ScreenFailure::not_offered, "the Wayland compositor has no shared memory (wl_shm)"};
    if (outputs_.empty())
        return {ScreenFailure::failed, "the Wayland session has no output; connect or enable one"};
    return {};
}

const WaylandOutput* WaylandSession::choose_output(const std::string& monitor,
                                                   WaylandProblem& problem) const
{
    const bool primary = monitor == common::ScreenPart::primary_monitor;
    const bool any = monitor.empty() || (primary && outputs_.size() == 1);
    const auto found = std::find_if(outputs_.begin(), outputs_.end(), [&](const auto& output) {
        return any || output->name == monitor;
    });
    if (found != outputs_.end())
        return found->get();
    std::string names;
    for (const auto& output : outputs_)
        names += (names.empty() ? "" : ", ") + output->name;
    problem = {ScreenFailure::failed, (primary ? "Wayland has no primary monitor, so name one"
                                               : "there is no monitor " + monitor) +
                                          "; the Wayland session has " + names};
    return nullptr;
}

const WaylandOutput* WaylandSession::output(uint32_t id) const
{
    const auto found =
        std::find_if(outputs_.begin(), outputs_.end(), [&](const auto& o) { return o->id == id; });
    return found == outputs_.end() ? nullptr : found->get();
}

void WaylandSession::global(void* self, wl_registry*, uint32_t id, const char* interface,
                            uint32_t version)
{
    auto& session = *static_cast<WaylandSession*>(self);
    answer_or(
        false, [&] { return session.bind(id, interface, version), true; }, [](const char*) {});
}

void WaylandSession::bind(uint32_t id, const char* interface, uint32_t version)
{
    const auto bound = [&](auto*& object, const wl_interface& wanted, uint32_t least) {
        if (object || version < least || std::strcmp(interface, wanted.name) != 0)
            return;
        const auto greatest = static_cast<uint32_t>(wanted.version);
        object = static_cast<std::remove_reference_t<decltype(object)>>(
            wl_registry_bind(registry_, id, &wanted, std::min(version, greatest)));
    };
    bound(shm_, wl_shm_interface, 1);
    bound(logical_outputs_, logical_output_manager_interface, 2);
    bound(screencopy_, screencopy_manager_interface, least_screencopy_version);
    if (screencopy_ && !screencopy_version_)
        screencopy_version_ = version;
    if (std::strcmp(interface, wl_output_interface.name) == 0 && outputs_.size() < most_outputs)
        add_output(id, version);
}

void WaylandSession::add_output(uint32_t id, uint32_t version)
{
    // names and descriptions
    constexpr uint32_t newest = 4;
    auto output = std::make_unique<WaylandOutput>();
    output->id = id;
    output->proxy = static_cast<wl_output*>(
        wl_registry_bind(registry_, id, &wl_output_interface, std::min(version, newest)));
    if (output->proxy && wl_output_add_listener(output->proxy, &output_listener, output.get()) == 0)
        outputs_.push_back(std::move(output));
}

void WaylandSession::ask_for_logical_sizes()
{
    for (const auto& output : outputs_) {
        output->logical =
            logical_outputs_ ? logical_output(logical_outputs_, output->proxy) : nullptr;
        if (output->logical)
            listen(output->logical, logical_listener, output.get());
    }
}

void WaylandSession::global_removed(void* self, wl_registry*, uint32_t id)
{
    auto& session = *static_cast<WaylandSession*>(self);
    std::erase_if(session.outputs_, [id](const auto& output) { return output->id == id; });
}

bool WaylandSession::ask_for_answer()
{
    static constexpr wl_callback_listener listener{&WaylandSession::answered};
    if (answer_)
        return true;
    answer_ = wl_display_sync(connection_->display());
    return answer_ && wl_callback_add_listener(answer_, &listener, this) == 0;
}

void WaylandSession::answered(void* self, wl_callback* callback, uint32_t)
{
    static_cast<WaylandSession*>(self)->answer_ = nullptr;
    wl_callback_destroy(callback);
}

bool WaylandSession::wait_for_answer(WaylandConnection::Clock::time_point deadline)
{
    return ask_for_answer() &&
           connection_->wait_until(deadline, [this] { return !answer_is_missing(); });
}

} // namespace zu3host
