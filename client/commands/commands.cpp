#include "commands/commands.h"

#include <cstdlib>
#include <exception>
#include <string_view>
#include <type_traits>

#include "machine/display.h"
#include "process/messages.h"
#include "running/library_log.h"

namespace client {
namespace {

template <typename Options> const CommonOptions* common(const Options& options)
{
    if constexpr (std::is_base_of_v<CommonOptions, Options>)
        return &options;
    return nullptr;
}

// A source of pictures, or the name of an X display.
void choose_display(const std::string& name)
{
    for (const char* const source : {"x11", "wayland", "portal", "testcard"})
        if (name == source) {
            setenv("ZU3_DISPLAY", source, 1);
            return;
        }
    const char* const chosen = secure_getenv("ZU3_DISPLAY");
    setenv("DISPLAY", name.c_str(), 1);
    // The test card is a stand-in for any display.
    if (!chosen || std::string_view(chosen) != "testcard")
        setenv("ZU3_DISPLAY", "x11", 1);
}

// Call it before any thread exists: setenv() is not thread-safe.
void prepare_environment(const CommonOptions* options)
{
    // The library logs an error for each module that a recording does not use, so its log is off.
    // --verbose keeps it for a failure and shows the choices of the platform. A variable that the
    // user has set overrides both.
    const bool verbose = options && options->verbose;
    if (verbose && !secure_getenv("ANDROID_LOG_TAGS"))
        keep_library_log();
    setenv("ANDROID_LOG_TAGS", verbose ? "zu3:I screenrecord:S" : "screenrecord:S", 0);
    if (options && !options->display.empty())
        choose_display(options->display);
    if (options && !options->sound.empty())
        setenv("ZU3_SOUND", options->sound.c_str(), 1);
    if (options && options->ask)
        setenv("ZU3_ASK", "1", 1);
}

/**
 * The platform reads from the environment what is captured; options replace what the user has set
 * there.
 */
template <typename Options> void choose_screen_part(const Options& options)
{
    if constexpr (std::is_base_of_v<ScreenOptions, Options>) {
        if (options.part)
            set_screen_part(*options.part);
        if (!options.pointer)
            setenv("ZU3_POINTER", "0", 1);
    }
}

template <typename Options> ExitCode run_command(const Options& options)
{
    try {
        StopSignals signals;
        const CommonOptions* const given = common(options);
        ProgramOutput output(given && given->verbose, signals);
        prepare_environment(given);
        choose_screen_part(options);
        CommandContext context{signals, output};
        const ExitCode code = run(options, context);
        if (code != ExitCode::complete)
            show_library_log();
        return code;
    } catch (const Failure& failure) {
        print_message(failure.what());
        return failure.code();
    } catch (const std::exception& error) {
        print_message(std::string("cannot continue: ") + error.what());
        return ExitCode::failed;
    }
}

} // namespace

int run(const Invocation& invocation)
{
    return std::visit([](const auto& options) { return static_cast<int>(run_command(options)); },
                      invocation);
}

} // namespace client
