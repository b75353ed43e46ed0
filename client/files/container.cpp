#include "files/container.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "files/output_file.h"
#include "files/output_format.h"
#include "process/messages.h"

namespace client {
namespace {

std::string from_environment(const char* name)
{
    const char* const value = std::getenv(name);
    return value ? value : "";
}

/** The folder of the line XDG_VIDEOS_DIR="$HOME/..." in user-dirs.dirs; empty without one. */
std::string listed_folder(const std::string& home)
{
    const std::string config = from_environment("XDG_CONFIG_HOME");
    std::ifstream list((config.empty() ? home + "/.config" : config) + "/user-dirs.dirs");
    const std::string begin = "XDG_VIDEOS_DIR=\"", relative = "$HOME";
    for (std::string line; std::getline(list, line);) {
        const size_t end = line.rfind('"');
        if (!line.starts_with(begin) || end < begin.size())
            continue;
        const std::string folder = line.substr(begin.size(), end - begin.size());
        return folder.starts_with(relative) ? home + folder.substr(relative.size()) : folder;
    }
    return "";
}

std::string folder_for_videos()
{
    const std::string home = from_environment("HOME");
    for (const std::string& folder :
         {from_environment("XDG_VIDEOS_DIR"), listed_folder(home), home + "/Videos"}) {
        std::error_code error;
        if (folder.starts_with('/') && std::filesystem::is_directory(folder, error))
            return folder + "/";
    }
    return "";
}

} // namespace

std::optional<Container> container_of(const std::string& output, const std::string& format)
{
    if (is_standard_output(output))
        return format == "ts" ? Container::transport_stream : Container::matroska;
    const std::string ending = ending_of(output);
    if (ending == "mp4" || output.empty())
        return Container::mp4;
    return ending == "mkv" ? std::optional(Container::matroska) : std::nullopt;
}

std::string new_movie_name()
{
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d-%H-%M-%S", &local);
    const std::string begin = folder_for_videos() + "screenrecord-" + stamp;
    std::string name = begin + ".mp4";
    std::error_code error;
    for (int number = 2; std::filesystem::exists(name, error); ++number)
        name = begin + format_text("-%d.mp4", number);
    return name;
}

} // namespace client
