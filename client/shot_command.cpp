#include <filesystem>

#include "commands.h"
#include "display_info.h"
#include "messages.h"
#include "output_file.h"
#include "png_file.h"
#include "still_pictures.h"

namespace client {
namespace {

std::string shot_path(const ShotOptions& options, uint32_t number)
{
    if (!options.numbered)
        return options.output;
    std::filesystem::path path(options.output);
    const std::string extension = path.extension();
    path.replace_extension();
    return path.string() + format_text("-%03u", number) + extension;
}

void save(const StillPictures& pictures, Size size, const std::string& path, bool overwrite)
{
    const std::vector<uint8_t> bytes =
        path.ends_with(".raw") ? pictures.raw_bytes() : encode_png(size, pictures.bgr_bytes());
    WholeFile file(path);
    file.write(bytes.data(), bytes.size());
    file.put_in_place(overwrite);
}

} // namespace

ExitCode run(const ShotOptions& options, Surroundings& surroundings)
{
    for (uint32_t number = 1; number <= options.count; ++number)
        check_whole_file_path(shot_path(options, number), options.overwrite);
    const DisplayInfo display = display_to_capture();
    const Size size = options.size.value_or(size_for_display(display.size));
    if (options.verbose)
        say(format_text("%ux%u of %s", size.width, size.height, display.name.c_str()));

    StillPictures pictures(size, options.format, options.osd);
    const TimePoint start = Clock::now();
    for (uint32_t number = 1; number <= options.count; ++number) {
        if (surroundings.signals.wait_until(start + options.interval * (number - 1)))
            return number > 1 ? ExitCode::ended_early : ExitCode::failed;
        const std::string path = shot_path(options, number);
        try {
            pictures.capture();
            save(pictures, size, path, options.overwrite);
        } catch (const Failure& failure) {
            if (number > 1) // what was saved before is of use
                throw Failure(failure.what(), ExitCode::ended_early);
            throw;
        }
        surroundings.output.print_line(path);
    }
    return ExitCode::complete;
}

} // namespace client
