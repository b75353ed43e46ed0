#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#include "command_line/command_line.h"
#include "commands/commands.h"
#include "process/messages.h"
#include "running/library_log.h"

namespace {

using namespace client;

template <typename Options> const CommonOptions* common(const Options& options)
{
    if constexpr (std::is_base_of_v<CommonOptions, Options>)
        return &options;
    return nullptr;
}

// Else the recording itself could become number 2, and take what is logged. Open to read only: who
// writes to what is missing fails as before.
void fill_standard_descriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) < 0)
            // the lowest free number, which is this one
            open("/dev/null", O_RDONLY);
}

// Before any thread exists: the environment is not to be changed afterwards.
void prepare_environment(const CommonOptions* options)
{
    // The library logs every module that an ordinary recording does not use as an error. What went
    // wrong is said by us; with --verbose the library's own reasons are kept until then, and what
    // the platform has chosen is shown. A variable that is set already decides alone.
    const bool verbose = options && options->verbose;
    if (verbose && !secure_getenv("ANDROID_LOG_TAGS"))
        keep_library_log();
    setenv("ANDROID_LOG_TAGS", verbose ? "zu3:I screenrecord:S" : "screenrecord:S", 0);
    if (options && !options->display.empty())
        setenv("DISPLAY", options->display.c_str(), 1);
}

template <typename Options> ExitCode run_command(const Options& options)
{
    try {
        StopSignals signals;
        const CommonOptions* const given = common(options);
        ProgramOutput output(given && given->verbose, signals);
        prepare_environment(given);
        CommandContext context{signals, output};
        const ExitCode code = run(options, context);
        if (code != ExitCode::complete)
            show_library_log();
        return code;
    } catch (const Failure& failure) {
        print_message(failure.what());
        return failure.code();
    } catch (const std::exception& error) {
        print_message(std::string("cannot go on: ") + error.what());
        return ExitCode::failed;
    }
}

int run_program(int argc, char** argv)
{
    const Invocation invocation = read_command_line(argc, argv);
    const int code = std::visit(
        [](const auto& options) {
            if constexpr (std::is_same_v<std::decay_t<decltype(options)>, int>)
                return options;
            else
                return static_cast<int>(run_command(options));
        },
        invocation);
    finish_messages();
    return code;
}

} // namespace

int main(int argc, char** argv)
{
    fill_standard_descriptors();
    try {
        return run_program(argc, argv);
    } catch (...) {
        // No memory for the command line, or for the reason of another failure.
        constexpr std::string_view text = "screenrecord: cannot go on\n";
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
        return static_cast<int>(ExitCode::failed);
    }
}
