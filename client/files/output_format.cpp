#include "files/output_format.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <span>
#include <string_view>
#include <vector>

#include "files/output_file.h"
#include "process/messages.h"

namespace client {
namespace {

enum class Kind { video, picture, sound };

/** The format of a command and its endings; the first is the recommended one. */
struct Format {
    const char* command;
    const char* what;
    Kind kind;
    std::vector<std::string_view> endings;
};

const Format& format_of(std::string_view command)
{
    static const Format formats[] = {
        {"record",
         "an MP4, Matroska or MPEG transport-stream file",
         Kind::video,
         {"mp4", "mkv", "ts", "m2ts", "mts", "m2t", "tp", "trp", "mpegts"}},
        {"stream", "a raw H.264 stream", Kind::video, {"h264", "264", "avc", "raw"}},
        {"shot", "a PNG picture", Kind::picture, {"png", "raw"}},
        {"pcm", "a WAV file", Kind::sound, {"wav", "wave"}},
    };
    return *std::find_if(std::begin(formats), std::end(formats),
                         [command](const Format& each) { return each.command == command; });
}

struct Ending {
    std::string_view name;
    Kind kind;
    /** can contain H.264 unchanged */
    bool copied;
};

/** Endings of files that ffmpeg can convert ours to. */
constexpr Ending other_endings[] = {
    {"m4v", Kind::video, true},     {"mov", Kind::video, true},     {"flv", Kind::video, true},
    {"3gp", Kind::video, false},    {"webm", Kind::video, false},   {"avi", Kind::video, false},
    {"wmv", Kind::video, false},    {"asf", Kind::video, false},    {"mpg", Kind::video, false},
    {"mpeg", Kind::video, false},   {"vob", Kind::video, false},    {"ogv", Kind::video, false},
    {"hevc", Kind::video, false},   {"265", Kind::video, false},    {"h265", Kind::video, false},
    {"gif", Kind::video, false},    {"gif", Kind::picture, false},  {"jpg", Kind::picture, false},
    {"jpeg", Kind::picture, false}, {"bmp", Kind::picture, false},  {"webp", Kind::picture, false},
    {"tif", Kind::picture, false},  {"tiff", Kind::picture, false}, {"ppm", Kind::picture, false},
    {"avif", Kind::picture, false}, {"mp3", Kind::sound, false},    {"ogg", Kind::sound, false},
    {"oga", Kind::sound, false},    {"opus", Kind::sound, false},   {"flac", Kind::sound, false},
    {"aac", Kind::sound, false},    {"m4a", Kind::sound, false},    {"mka", Kind::sound, false},
    {"ac3", Kind::sound, false},    {"aif", Kind::sound, false},    {"aiff", Kind::sound, false},
    {"wma", Kind::sound, false},
};

bool has(const Format& format, std::string_view ending)
{
    return std::find(format.endings.begin(), format.endings.end(), ending) != format.endings.end();
}

/** The command that writes files of this ending; empty if there is none. */
std::string command_for(std::string_view ending)
{
    for (const char* command : {"record", "stream", "shot", "pcm"})
        if (has(format_of(command), ending))
            return command;
    return "";
}

const char* hint_for(Kind kind)
{
    return kind == Kind::video     ? "'screenrecord record' records video"
           : kind == Kind::picture ? "'screenrecord shot' takes pictures"
                                   : "'screenrecord pcm' records sound alone";
}

std::string converted(const Format& format, const std::string& ours, const std::string& path,
                      bool copied, uint32_t fps)
{
    const bool raw = format.command == std::string_view("stream");
    return "then 'ffmpeg " + (raw ? format_text("-framerate %u ", fps) : std::string()) + "-i " +
           ours + (copied ? " -c copy " : " ") + path + "' makes " + path + " of it";
}

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

} // namespace

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

std::string ending_of(const std::string& path)
{
    const size_t point = path.find_last_of("./");
    if (point == std::string::npos || path[point] == '/')
        return "";
    std::string ending = path.substr(point + 1);
    std::transform(ending.begin(), ending.end(), ending.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return ending;
}

std::string wrong_format(const std::string& command, const std::string& path, uint32_t fps)
{
    const std::string ending = ending_of(path);
    const Format& format = format_of(command);
    if (ending.empty() || has(format, ending))
        return "";
    const std::string ours =
        path.substr(0, path.size() - ending.size()) + std::string(format.endings.front());
    const std::string begin = std::string("is not a name for ") + format.what + ", which " +
                              command + " writes: name it " + ours + "; ";
    if (command == "pcm" && (ending == "raw" || ending == "pcm"))
        return begin + "'-o -' writes raw samples to standard output";
    if (const std::string other = command_for(ending); !other.empty())
        return begin + "'screenrecord " + other + " -o " + path + "' writes " +
               format_of(other).what;
    const Ending* known = nullptr;
    for (const Ending& each : other_endings)
        if (each.name == ending && (!known || each.kind == format.kind))
            known = &each;
    if (!known)
        return command == "record" ? "is not a name for " + std::string(format.what) +
                                         ": such names end in .mp4, .mkv or .ts"
                                   : "";
    return begin + (known->kind == format.kind ? converted(format, ours, path, known->copied, fps)
                                               : std::string(hint_for(known->kind)));
}

std::optional<Container> container_of(const std::string& output, const std::string& format)
{
    if (is_standard_output(output))
        return format == "ts" ? Container::transport_stream : Container::matroska;
    const std::string ending = ending_of(output);
    if (ending == "mp4" || output.empty())
        return Container::mp4;
    return ending == "mkv" ? std::optional(Container::matroska) : std::nullopt;
}

std::string dated_name()
{
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d-%H-%M-%S", &local);
    return std::string("screenrecord-") + stamp;
}

std::string new_movie_name()
{
    const std::string begin = folder_for_videos() + dated_name();
    std::string name = begin + ".mp4";
    std::error_code error;
    for (int number = 2; std::filesystem::exists(name, error); ++number)
        name = begin + format_text("-%d.mp4", number);
    return name;
}

} // namespace client
