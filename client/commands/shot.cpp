#include <filesystem>
#include <optional>

#include "commands/commands.h"
#include "files/byte_sink.h"
#include "files/output_file.h"
#include "files/output_format.h"
#include "files/png_file.h"
#include "machine/display.h"
#include "process/messages.h"
#include "running/attended_display.h"
#include "running/attended_work.h"
#include "running/still_pictures.h"

namespace client {
namespace {

std::string shot_path(const ShotOptions& options, uint32_t number)
{
    if (!options.numbered || is_standard_output(options.output))
        return options.output;
    std::filesystem::path path(options.output);
    const std::string extension = path.extension();
    path.replace_extension();
    return path.string() + format_text("-%03u", number) + extension;
}

/**
 * Writes a picture to standard output. Waits until its reader has it or a stop is requested; throws
 * Failure.
 */
void write_to_standard_output(const std::vector<uint8_t>& bytes, const std::string& path,
                              CommandContext& context)
{
    ByteSink sink(path, false, context.output.fd(), context.signals);
    ByteSink::State state = sink.put(bytes);
    while (state == ByteSink::State::pending && !context.signals.raised())
        state = sink.finish(Clock::now() + std::chrono::milliseconds(100));
    if (state == ByteSink::State::pending)
        throw Failure(
            "cannot write to standard output: stopped before its reader had read the picture");
    if (state != ByteSink::State::ready)
        throw Failure("cannot write to standard output: " + error_text(sink.error()));
}

void save(std::vector<uint8_t> bytes, const std::string& path, bool overwrite,
          CommandContext& context)
{
    if (is_standard_output(path))
        return write_to_standard_output(bytes, path, context);
    AttendedWork saving([bytes = std::move(bytes), path, overwrite] {
        AtomicFile file(path);
        file.write(bytes.data(), bytes.size());
        file.put_in_place(overwrite);
    });
    if (!saving.wait(context.signals, std::chrono::seconds(1)))
        throw Failure("cannot write to " + path + ": stopped before the picture was on its disk");
    saving.finish();
    context.output.print_path(path);
}

} // namespace

ExitCode run(const ShotOptions& options, CommandContext& context)
{
    for (uint32_t number = 1; number <= options.count && !is_standard_output(options.output);
         ++number)
        check_whole_file_path(shot_path(options, number), options.overwrite);
    const DisplayInfo display = attended_display_to_capture(context.signals);
    const Size size = size_to_capture(display, options.size);
    if (options.verbose)
        print_message(format_text("%ux%u of %s", size.width, size.height, display.name.c_str()));

    std::optional<StillPictures> pictures;
    attend_display(context.signals, [&] { pictures.emplace(size, options.format, options.osd); });
    const TimePoint start = Clock::now();
    for (uint32_t number = 1; number <= options.count; ++number) {
        if (context.signals.wait_until(start + options.interval * (number - 1)))
            return number > 1 ? ExitCode::ended_early : ExitCode::failed;
        const std::string path = shot_path(options, number);
        try {
            attend_display(context.signals, [&] { pictures->capture(); });
            save(ending_of(path) == "raw" ? pictures->raw_bytes()
                                          : encode_png(size, pictures->bgr_bytes()),
                 path, options.overwrite, context);
        } catch (const Failure& failure) {
            if (number > 1) // the earlier files are usable
                throw Failure(failure.what(), ExitCode::ended_early);
            throw;
        }
    }
    return ExitCode::complete;
}

} // namespace client
