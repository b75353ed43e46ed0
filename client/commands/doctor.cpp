#include <cerrno>
#include <cstdlib>
#include <sys/statvfs.h>
#include <utility>
#include <vector>

#include "commands/commands.h"
#include "machine/display.h"
#include "machine/host.h"
#include "process/messages.h"
#include "running/attended_work.h"
#include <common/encoder_limits.h>
#include <screenrecord/screenrecord.h>

namespace client {
namespace {

constexpr uint64_t comfortable_free_bytes = 1'000'000'000;

/** A finding, and whether recordings work despite it. */
struct Finding {
    enum class Kind { good, limited, missing } kind;
    std::string sentence;
};

Finding examine_platform()
{
    const char* platform = platform_sentence();
    if (!platform)
        return {Finding::Kind::limited,
                "This platform has no statistics, so frames and losses are not shown."};
    return {Finding::Kind::good, platform};
}

Finding examine_display()
{
    try {
        const DisplayInfo display = x11_display_to_capture();
        std::string sentence =
            format_text("The display %s answers, with %ux%u", display.name.c_str(),
                        display.size.width, display.size.height);
        if (display.refresh_hz > 0)
            sentence += format_text(" at %.2f Hz", display.refresh_hz);
        return {Finding::Kind::good, sentence + "."};
    } catch (const Failure& failure) {
        return {
            Finding::Kind::missing,
            std::string(failure.what()) +
                ". Start this from the desktop's own terminal, or on an X server without a screen: 'apt install xvfb', 'Xvfb :99 -screen 0 1280x720x24 &', 'export DISPLAY=:99'."};
    }
}

Finding examine_shared_memory()
{
    const char* name = secure_getenv("DISPLAY");
    const auto display = name && *name ? probe_display(name) : std::nullopt;
    if (!display)
        return {Finding::Kind::limited,
                "Without a display, shared memory (MIT-SHM) cannot be checked."};
    if (!display->shared_memory)
        return {
            Finding::Kind::limited,
            "The display has no shared memory (MIT-SHM), so capturing it costs much more: use a local display instead of a forwarded one."};
    return {Finding::Kind::good, "The display delivers its pictures in shared memory (MIT-SHM)."};
}

Finding examine_sound()
{
    const char* chosen = secure_getenv("ZU3_AUDIO");
    if (chosen && (std::string(chosen) == "tone" || std::string(chosen) == "silence"))
        return {Finding::Kind::good,
                "ZU3_AUDIO asks for " + std::string(chosen) + ", so no sound server is needed."};
    const auto sources = list_sound_sources();
    if (!sources)
        return {
            Finding::Kind::limited,
            "No sound server answers, so recordings are silent: start PulseAudio or PipeWire ('apt install pulseaudio', 'pulseaudio --start'; libpulse0 is needed as well)."};
    for (const SoundSource& source : *sources)
        if (source.recorded)
            return {Finding::Kind::good,
                    "Recordings contain the sound of the desktop, from " + source.name + "."};
    return {
        Finding::Kind::limited,
        "The sound server has no output to record, so recordings are silent: 'pactl load-module module-null-sink' makes one."};
}

Finding examine_disk()
{
    struct statvfs volume = {};
    if (statvfs(".", &volume) != 0)
        return {Finding::Kind::limited,
                "The free space in this folder is unknown: " + error_text(errno) + "."};
    const uint64_t free_bytes = uint64_t{volume.f_bavail} * volume.f_frsize;
    const double hours =
        static_cast<double>(free_bytes) * 8 / (common::recording_kilobits * 1e3) / 3600;
    const std::string space = format_text(
        "This folder has room for %.1f GB, %.1f hours at the highest rate (%.1f Mbit/s)",
        static_cast<double>(free_bytes) / 1e9, hours, common::recording_kilobits / 1e3);
    if (free_bytes < comfortable_free_bytes)
        return {Finding::Kind::limited, space + ": remove files or record elsewhere."};
    if (access(".", W_OK) != 0)
        return {Finding::Kind::limited,
                space + ", but you may not write into it: record elsewhere."};
    return {Finding::Kind::good, space + "."};
}

// Uses a source file instead of the screen, so that a missing display does not look like a missing
// encoder.
bool encoder_opens()
{
    uint32_t slot = 1, width = 1280, height = 720, fps = 30;
    std::string nowhere = "/dev/null", source = "/dev/zero", codec = "h264";
    const auto bytes = [](std::string& text) { return reinterpret_cast<uint8_t*>(text.data()); };
    const bool opens =
        SCREENRECORD_Init() && SCREENRECORD_Open(&slot, bytes(nowhere)) &&
        SCREENRECORD_SetVideo(&slot, bytes(source), bytes(codec), &width, &height, &fps);
    SCREENRECORD_Close(&slot);
    SCREENRECORD_DeInit();
    return opens;
}

Finding examine_encoder()
{
    if (encoder_opens())
        return {Finding::Kind::good, "The H.264 encoder opens (1280x720 at 30 frames per second)."};
    return {
        Finding::Kind::missing,
        "The H.264 encoder does not open: check that libx264 is installed ('apt install libx264-164'); ANDROID_LOG_TAGS='*:D' shows the library's log."};
}

Finding::Kind kind_of(const HostFinding& finding)
{
    switch (finding.kind) {
    case ZU3_HOST_FINDING_GOOD:
        return Finding::Kind::good;
    case ZU3_HOST_FINDING_LIMITED:
        return Finding::Kind::limited;
    default:
        return Finding::Kind::missing;
    }
}

const char* mark(Finding::Kind kind)
{
    if (kind == Finding::Kind::good)
        return "ok      ";
    return kind == Finding::Kind::limited ? "limited " : "missing ";
}

} // namespace

ExitCode run(const DoctorOptions&, CommandContext& context)
{
    std::vector<Finding> findings{examine_platform()};
    const auto answer_of = [&context](auto question) {
        return attended(context.signals, "cannot finish the examination: stopped", question);
    };
    const auto [source, about_screen] = answer_of([] {
        std::vector<HostFinding> about;
        const uint32_t kind = examine_screen(about);
        return std::pair(kind, std::move(about));
    });
    for (const HostFinding& finding : about_screen)
        findings.push_back({kind_of(finding), finding.sentence});
    if (source == ZU3_HOST_SCREEN_X11)
        for (const auto examine : {examine_display, examine_shared_memory})
            findings.push_back(answer_of(examine));
    for (const auto examine : {examine_sound, examine_disk})
        findings.push_back(answer_of(examine));
    findings.push_back(examine_encoder());
    bool possible = true;
    for (const Finding& finding : findings) {
        context.output.print_line(mark(finding.kind) + finding.sentence);
        possible = possible && finding.kind != Finding::Kind::missing;
    }
    return possible ? ExitCode::complete : ExitCode::failed;
}

} // namespace client
