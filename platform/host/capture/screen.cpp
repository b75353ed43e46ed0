#include "capture/screen.h"

#include "base/border.h"
#include "capture/cropped_source.h"
#include "capture/patient_source.h"
#include "capture/source_choice.h"

#include <cmath>
#include <mutex>
#include <string>
#include <utility>
#include <zu3_host/slow_display.h>

namespace zu3host {

namespace {

constexpr auto patience_of_first_picture = std::chrono::seconds(5);

/** The screen that waits for its capture. */
class KeptScreen {
public:
    void keep(std::unique_ptr<PictureSource> source)
    {
        const std::lock_guard lock(mutex_);
        source_ = std::move(source);
    }
    std::unique_ptr<PictureSource> take()
    {
        const std::lock_guard lock(mutex_);
        return std::move(source_);
    }

private:
    std::mutex mutex_;
    std::unique_ptr<PictureSource> source_;
};

KeptScreen& kept_screen()
{
    static KeptScreen screen;
    return screen;
}

/**
 * Reduces an open screen to a region of it.
 * @return the region's size; if the screen lacks it, the screen's
 */
PictureSize narrow(ChosenScreen& screen, PictureSize whole, const common::ScreenRegion& region)
{
    const auto inside = common::overlap(region, {0, 0, whole});
    if (inside) {
        screen.source = std::make_unique<CroppedSource>(std::move(screen.source), region);
        return inside->size;
    }
    screen.name = "the region " + common::region_text(region) + " of " + screen.name;
    screen.problem = "it lies outside of the screen, which has " + std::to_string(whole.width) +
                     "x" + std::to_string(whole.height) + " pixels";
    return whole;
}

int tell_screen(zu3_host_screen_receiver_t receiver, void* user)
{
    // two sessions at once would show two dialogs
    kept_screen().take();
    auto part = chosen_screen_part();
    if (!part)
        return -1;
    const auto region = std::exchange(part->region, std::nullopt);
    ChosenScreen screen = open_wayland_screen(*part);
    PictureSize size{};
    if (screen.source) {
        const auto image = screen.source->grab({{}, 0, false, {}, patience_of_first_picture});
        if (!image)
            screen.problem = "it delivers no picture";
        else
            size = region ? narrow(screen, image->size, *region) : image->size;
    }
    const zu3_host_screen_t told{screen.kind,        size.width,          size.height,
                                 screen.refresh_mhz, screen.name.c_str(), screen.problem.c_str()};
    receiver(&told, user);
    if (!screen.problem.empty())
        return -1;
    kept_screen().keep(std::move(screen.source));
    return 0;
}

int tell_outputs(zu3_host_output_receiver_t receiver, void* user)
{
    const std::vector<ScreenOutput> outputs =
        list_wayland_outputs(chosen_screen_part().value_or(common::ScreenPart{}));
    for (const ScreenOutput& output : outputs) {
        const zu3_host_output_t told{output.name.c_str(),
                                     output.description.c_str(),
                                     output.size.width,
                                     output.size.height,
                                     static_cast<uint32_t>(std::lround(output.scale * 1000)),
                                     output.degrees,
                                     output.mirrored ? 1u : 0u,
                                     output.refresh_mhz,
                                     output.recorded ? 1u : 0u};
        receiver(&told, user);
    }
    return outputs.empty() ? -1 : static_cast<int>(outputs.size());
}

uint32_t tell_findings(zu3_host_finding_receiver_t receiver, void* user)
{
    std::vector<ScreenFinding> findings;
    const uint32_t kind =
        examine_screen(chosen_screen_part().value_or(common::ScreenPart{}), findings);
    for (const ScreenFinding& finding : findings)
        receiver(static_cast<uint32_t>(finding.kind), finding.sentence.c_str(), user);
    return kind;
}

} // namespace

std::optional<common::ScreenPart> chosen_screen_part()
{
    std::string problem;
    auto part = common::screen_part_of_environment(problem);
    if (!part)
        HOST_LOGE("No screen is captured: %s.", problem.c_str());
    return part;
}

std::unique_ptr<PictureSource> open_picture_source(const common::ScreenPart& part)
{
    if (auto kept = kept_screen().take())
        return kept;
    ChosenScreen screen = open_chosen_screen(part);
    if (!screen.problem.empty())
        HOST_LOGE("The screen cannot be captured: %s.", screen.problem.c_str());
    return std::move(screen.source);
}

} // namespace zu3host

HOST_EXPORT int zu3_host_screen(zu3_host_screen_receiver_t receiver, void* user)
{
    if (!receiver)
        return -1;
    return zu3host::at_border(__func__, -1, [=] { return zu3host::tell_screen(receiver, user); });
}

HOST_EXPORT int zu3_host_outputs(zu3_host_output_receiver_t receiver, void* user)
{
    if (!receiver)
        return -1;
    return zu3host::at_border(__func__, -1, [=] { return zu3host::tell_outputs(receiver, user); });
}

HOST_EXPORT uint32_t zu3_host_examine_screen(zu3_host_finding_receiver_t receiver, void* user)
{
    if (!receiver)
        return ZU3_HOST_SCREEN_UNKNOWN;
    return zu3host::at_border(__func__, uint32_t{ZU3_HOST_SCREEN_UNKNOWN},
                              [=] { return zu3host::tell_findings(receiver, user); });
}

HOST_EXPORT void zu3_host_give_up_display(void)
{
    zu3host::give_up_displays();
}
