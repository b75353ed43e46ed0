#include "capture/source_choice.h"

#include "base/host_log.h"
#include "capture/cropped_source.h"
#include "capture/x11_source.h"
#include "statistics/counters.h"
#include "utils/private_module.h"

#include <common/never_destroyed.h>
#include <cstdlib>
#include <mutex>
#include <string_view>

namespace zu3host {

namespace {

constexpr ScreenHost screen_host{
    [](int priority, const char* sentence) {
        __android_log_print(priority, "zu3", "%s", sentence);
    },
    [] { counters().display_lost.store(1, std::memory_order_relaxed); },
    [] { return next_image_serial(); },
};

std::string environment(const char* name)
{
    const char* const value = secure_getenv(name);
    return value ? value : "";
}

/** A module that captures screens, loaded at its first use. */
struct Way {
    /** ZU3_HOST_SCREEN_* */
    uint32_t kind;
    /** for the log */
    std::string name;
    const ScreenModule* module;
    /** why there is no module */
    std::string failure;

    Way(uint32_t kind_of_screen, const char* log_name, const char* file)
        : kind(kind_of_screen), name(log_name)
    {
        PrivateModule loaded(file, screen_module_entry);
        module = loaded.entry ? reinterpret_cast<ScreenModuleEntry>(loaded.entry)() : nullptr;
        failure = std::move(loaded.failure);
    }
};

const Way& wayland_way()
{
    static common::NeverDestroyed<Way> way(ZU3_HOST_SCREEN_WAYLAND, "The Wayland compositor",
                                           "libzu3_wayland.so");
    return *way;
}

const Way& portal_way()
{
    static common::NeverDestroyed<Way> way(ZU3_HOST_SCREEN_PORTAL, "The desktop portal's stream",
                                           "libzu3_portal.so");
    return *way;
}

/** The result of an opening; shared with its thread, which may be late. */
struct LateOpening {
    std::mutex mutex;
    bool complete = false;
    ScreenOpening result;

    std::unique_ptr<WaitingSource> open(const ScreenModule& module, const std::string& monitor)
    {
        ScreenOpening opened = module.open(screen_host, monitor);
        const std::lock_guard lock(mutex);
        result = std::move(opened);
        complete = true;
        return std::move(result.source);
    }
};

struct Opened {
    ChosenScreen screen{};
    ScreenFailure failure = ScreenFailure::none;
};

// The ends of sentences, empty if the part can be captured.

std::string refusal_by_wayland(const common::ScreenPart& part)
{
    return part.window ? "windows have numbers on X11 only; in a Wayland session the desktop "
                         "portal's dialog (ZU3_DISPLAY=portal) offers windows"
                       : "";
}

std::string refusal_by_test_card(const common::ScreenPart& part)
{
    return part.is_whole() ? "" : "the test card is captured as a whole";
}

Opened open_by(const Way& way, const common::ScreenPart& part)
{
    Opened opened{.screen = {.kind = way.kind, .name = way.name}};
    if (opened.screen.problem = refusal_by_wayland(part); !opened.screen.problem.empty()) {
        opened.failure = ScreenFailure::failed;
        return opened;
    }
    if (!way.module) {
        opened.failure = ScreenFailure::not_offered;
        opened.screen.problem = "a module cannot be loaded (" + way.failure + ")";
        return opened;
    }
    const auto late = std::make_shared<LateOpening>();
    opened.screen.source = PatientSource::open(
        way.name,
        [late, module = way.module, monitor = part.monitor] {
            return late->open(*module, monitor);
        },
        way.module->opening_limit);
    const std::lock_guard lock(late->mutex);
    if (opened.screen.source) {
        if (part.region)
            opened.screen.source =
                std::make_unique<CroppedSource>(std::move(opened.screen.source), *part.region);
        opened.screen.name = late->result.name;
        opened.screen.refresh_mhz = late->result.refresh_mhz;
        return opened;
    }
    const bool told = late->complete && late->result.failure != ScreenFailure::none;
    opened.failure = told ? late->result.failure : ScreenFailure::failed;
    opened.screen.problem = told ? late->result.reason : way.name + " does not answer";
    return opened;
}

enum class Setting { session, x11, wayland, portal, test_card, unknown };

Setting setting()
{
    const std::string name = environment("ZU3_DISPLAY");
    constexpr std::pair<std::string_view, Setting> known[] = {{"", Setting::session},
                                                              {"x11", Setting::x11},
                                                              {"wayland", Setting::wayland},
                                                              {"portal", Setting::portal},
                                                              {"testcard", Setting::test_card}};
    for (const auto& [word, meaning] : known)
        if (name == word)
            return meaning;
    return Setting::unknown;
}

bool session_is_wayland()
{
    return !environment("WAYLAND_DISPLAY").empty();
}

/** WAYLAND_DISPLAY may name a session that has ended. */
bool goes_to_x11(ScreenFailure failure)
{
    return failure == ScreenFailure::no_session && !environment("DISPLAY").empty();
}

ChosenScreen open_session(const common::ScreenPart& part)
{
    if (!session_is_wayland())
        return {.kind = ZU3_HOST_SCREEN_X11};
    Opened direct = open_by(wayland_way(), part);
    if (goes_to_x11(direct.failure))
        return {.kind = ZU3_HOST_SCREEN_X11};
    if (direct.failure != ScreenFailure::not_offered)
        return std::move(direct.screen);
    ChosenScreen portal = open_by(portal_way(), part).screen;
    if (!portal.problem.empty())
        portal.problem = direct.screen.problem + "; " + portal.problem;
    return portal;
}

ChosenScreen unknown_setting()
{
    return {.kind = ZU3_HOST_SCREEN_UNKNOWN,
            .problem = "ZU3_DISPLAY=\"" + environment("ZU3_DISPLAY") +
                       "\" is not known: it can be x11 (the screen that DISPLAY names), wayland, "
                       "portal or testcard"};
}

// a test card in place of a missing screen would pass for a recording
std::unique_ptr<PictureSource> open_x11(const common::ScreenPart& part)
{
    return PatientSource::open("The X display DISPLAY=\"" + environment("DISPLAY") + "\"",
                               [part] { return X11Source::open(part); });
}

using Findings = std::vector<ScreenFinding>;

uint32_t examine_by(const Way& way, const common::ScreenPart& part, const std::string& why,
                    Findings& findings)
{
    findings.push_back({ScreenFinding::Kind::good, why});
    if (way.module)
        way.module->examine(part.monitor, findings);
    else
        findings.push_back(
            {ScreenFinding::Kind::missing,
             "A module cannot be loaded (" + way.failure + "): install what it lacks."});
    return way.kind;
}

uint32_t examine_session(const common::ScreenPart& part, Findings& findings)
{
    const std::string name = environment("WAYLAND_DISPLAY");
    if (!session_is_wayland()) {
        findings.push_back({ScreenFinding::Kind::good,
                            "WAYLAND_DISPLAY is not set, so the X11 screen is captured."});
        return ZU3_HOST_SCREEN_X11;
    }
    Findings direct;
    const Way& way = wayland_way();
    const ScreenFailure failure =
        way.module ? way.module->examine(part.monitor, direct) : ScreenFailure::not_offered;
    if (goes_to_x11(failure)) {
        findings.push_back(
            {ScreenFinding::Kind::good, "No compositor answers at WAYLAND_DISPLAY=" + name +
                                            ", so the X11 screen is captured."});
        return ZU3_HOST_SCREEN_X11;
    }
    if (failure == ScreenFailure::not_offered)
        return examine_by(portal_way(), part,
                          "The session is a Wayland session whose compositor does not copy its "
                          "screen for this program, so the desktop portal is used.",
                          findings);
    findings.push_back({ScreenFinding::Kind::good,
                        "The session is a Wayland session (WAYLAND_DISPLAY=" + name +
                            "), so its compositor copies the screen. X11 would show the windows "
                            "of X11 programs only."});
    findings.insert(findings.end(), direct.begin(), direct.end());
    return way.kind;
}

} // namespace

ChosenScreen open_wayland_screen(const common::ScreenPart& part)
{
    switch (setting()) {
    case Setting::session:
        return open_session(part);
    case Setting::x11:
        return {.kind = ZU3_HOST_SCREEN_X11};
    case Setting::wayland:
        return open_by(wayland_way(), part).screen;
    case Setting::portal:
        return open_by(portal_way(), part).screen;
    case Setting::test_card:
        return {.kind = ZU3_HOST_SCREEN_TESTCARD};
    case Setting::unknown:
        break;
    }
    return unknown_setting();
}

ChosenScreen open_chosen_screen(const common::ScreenPart& part)
{
    ChosenScreen screen = open_wayland_screen(part);
    if (screen.kind == ZU3_HOST_SCREEN_X11)
        screen.source = open_x11(part);
    if (screen.kind != ZU3_HOST_SCREEN_TESTCARD)
        return screen;
    screen.problem = refusal_by_test_card(part);
    if (screen.problem.empty())
        screen.source = open_test_card();
    return screen;
}

uint32_t examine_screen(const common::ScreenPart& part, Findings& findings)
{
    const auto good = [&findings](const char* sentence, uint32_t kind) {
        findings.push_back({ScreenFinding::Kind::good, sentence});
        return kind;
    };
    switch (setting()) {
    case Setting::session:
        return examine_session(part, findings);
    case Setting::x11:
        return good("ZU3_DISPLAY asks for the X11 screen.", ZU3_HOST_SCREEN_X11);
    case Setting::wayland:
        return examine_by(wayland_way(), part,
                          "ZU3_DISPLAY asks for the copy of a Wayland compositor.", findings);
    case Setting::portal:
        return examine_by(portal_way(), part, "ZU3_DISPLAY asks for the desktop portal.", findings);
    case Setting::test_card:
        return good("ZU3_DISPLAY asks for the test card, so no display is needed.",
                    ZU3_HOST_SCREEN_TESTCARD);
    case Setting::unknown:
        break;
    }
    findings.push_back({ScreenFinding::Kind::missing, unknown_setting().problem + "."});
    return ZU3_HOST_SCREEN_UNKNOWN;
}

std::vector<ScreenOutput> list_wayland_outputs(const common::ScreenPart& part)
{
    if (!session_is_wayland() || !wayland_way().module)
        return {};
    return wayland_way().module->list_outputs(part.monitor);
}

} // namespace zu3host
