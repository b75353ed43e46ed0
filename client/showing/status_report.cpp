#include "showing/status_report.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "process/messages.h"

namespace client {
namespace {

bool colours_wanted()
{
    const char* no_colour = std::getenv("NO_COLOR");
    return !no_colour || !*no_colour;
}

/** Whether standard error is a terminal on which a line can be refreshed. */
bool line_can_be_refreshed()
{
    const char* terminal = std::getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && terminal && *terminal &&
           std::strcmp(terminal, "dumb") != 0;
}

size_t terminal_columns()
{
    winsize size = {};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

std::string count_or_null(const std::optional<uint64_t>& value)
{
    return value ? std::to_string(*value) : "null";
}

std::string number_or_null(const std::optional<double>& value)
{
    return value ? format_text("%.3f", *value) : "null";
}

const char* truth_or_null(const std::optional<bool>& value)
{
    return !value ? "null" : *value ? "true" : "false";
}

std::string finishing_as_line(double part)
{
    constexpr size_t length = 30;
    const auto done = static_cast<size_t>(std::clamp(part, 0.0, 1.0) * length);
    return format_text("index to the front  [%s%s] %.0f %%", std::string(done, '=').c_str(),
                       std::string(length - done, ' ').c_str(), part * 100);
}

std::string sound_text(double level)
{
    return level > 0 ? format_text("sound %.0f dB", 20 * std::log10(level)) : "sound silent";
}

} // namespace

RecordProgress::RecordProgress() : start_(Clock::now())
{
    keep({.at = start_});
}

// Since the oldest sample: the file grows in batches, so one second alone is misleading.
double RecordProgress::per_second(const Sample& now, uint64_t Sample::*value) const
{
    const Sample& then = samples_[0];
    const double seconds = std::chrono::duration<double>(now.at - then.at).count();
    return seconds > 0 && now.*value > then.*value
               ? static_cast<double>(now.*value - then.*value) / seconds
               : 0;
}

void RecordProgress::keep(const Sample& now)
{
    if (sample_count_ > 0 && now.at - samples_[sample_count_ - 1].at < std::chrono::seconds(1))
        return;
    if (sample_count_ == kept)
        std::shift_left(samples_, samples_ + kept, 1);
    else
        ++sample_count_;
    samples_[sample_count_ - 1] = now;
}

Progress RecordProgress::measure(uint64_t file_bytes)
{
    Sample now{.at = Clock::now(), .file_bytes = file_bytes};
    Progress progress;
    progress.elapsed_seconds = std::chrono::duration<double>(now.at - start_).count();
    progress.file_bytes = file_bytes;
    progress.bits_per_second = per_second(now, &Sample::file_bytes) * 8;
    if (const auto counted = statistics_.read()) {
        now.frames = counted->pictures_encoded;
        progress.frames = now.frames;
        progress.fps = per_second(now, &Sample::frames);
        progress.dropped = pictures_left_out(*counted);
        progress.sound_level = counted->sound_level / 32768.0;
        progress.display_answers = !display_is_silent(*counted);
        progress.disk_waiting_seconds = static_cast<double>(counted->write_waiting_us) / 1e6;
    }
    keep(now);
    return progress;
}

std::string progress_as_json(const Progress& p, const char* state)
{
    const std::string kept =
        p.kept_seconds
            ? format_text(",\"kept_seconds\":%.3f,\"kept_bytes\":%llu,\"most_kept_bytes\":%llu",
                          *p.kept_seconds, static_cast<unsigned long long>(p.kept_bytes),
                          static_cast<unsigned long long>(p.most_kept_bytes))
            : "";
    return format_text(
        "{\"state\":\"%s\",\"elapsed\":%.3f,\"frames\":%s,\"fps\":%s,\"dropped\":%s,"
        "\"file_bytes\":%llu,\"bits_per_second\":%.0f,\"sound_level\":%s,\"display_answers\":%s,"
        "\"disk_waiting\":%s,\"finished_part\":%s%s}",
        state, p.elapsed_seconds, count_or_null(p.frames).c_str(), number_or_null(p.fps).c_str(),
        count_or_null(p.dropped).c_str(), static_cast<unsigned long long>(p.file_bytes),
        p.bits_per_second, number_or_null(p.sound_level).c_str(), truth_or_null(p.display_answers),
        number_or_null(p.disk_waiting_seconds).c_str(), number_or_null(p.finished_part).c_str(),
        kept.c_str());
}

std::string progress_as_line(const Progress& p, size_t columns)
{
    if (p.finished_part)
        return finishing_as_line(*p.finished_part).substr(0, columns);
    const auto seconds = static_cast<unsigned long>(p.elapsed_seconds);
    // From left to right, each with its rank: a narrow terminal drops the lowest ranks.
    std::vector<std::pair<std::string, int>> parts = {
        {format_text("%02lu:%02lu:%02lu", seconds / 3600, seconds / 60 % 60, seconds % 60), 7}};
    if (p.display_answers == false)
        parts.push_back({"display does not answer", 6});
    if (p.disk_waiting_seconds.value_or(0) >= 1)
        parts.push_back({format_text("%s does not respond: %.0f s",
                                     p.has_reader ? "reader" : "disk", *p.disk_waiting_seconds),
                         6});
    if (p.frames && p.fps && p.dropped) {
        parts.push_back(
            {format_text("%llu frames", static_cast<unsigned long long>(*p.frames)), 0});
        parts.push_back({format_text("%.1f fps", *p.fps), 2});
        parts.push_back(
            {format_text("%llu dropped", static_cast<unsigned long long>(*p.dropped)), 3});
    }
    if (p.kept_seconds)
        parts.push_back({format_text("%.0f s kept, %.1f of at most %.1f MB", *p.kept_seconds,
                                     static_cast<double>(p.kept_bytes) / 1e6,
                                     static_cast<double>(p.most_kept_bytes) / 1e6),
                         5});
    else
        parts.push_back({format_text("%.1f MB", static_cast<double>(p.file_bytes) / 1e6), 5});
    parts.push_back({format_text("%.2f Mbit/s", p.bits_per_second / 1e6), 4});
    if (p.sound_level)
        parts.push_back({sound_text(*p.sound_level), 1});
    while (true) {
        std::string line;
        for (const auto& [text, rank] : parts)
            line += (line.empty() ? "" : "  ") + text;
        if (line.size() <= columns || parts.size() == 1)
            return line.substr(0, columns);
        parts.erase(std::min_element(parts.begin(), parts.end(), [](const auto& a, const auto& b) {
            return a.second < b.second;
        }));
    }
}

StatusReport::StatusReport(bool json, std::string status_file)
    : json_(json), terminal_(!json && line_can_be_refreshed()), colour_(colours_wanted()),
      next_(Clock::now() + std::chrono::seconds(1))
{
    if (!status_file.empty())
        status_file_.emplace(std::move(status_file), progress_as_json({}, "starting"));
}

StatusReport::~StatusReport()
{
    if (!finished_)
        finish(last_, false);
}

// A failed status file does not end the recording.
void StatusReport::heed(const std::optional<std::string>& failure)
{
    if (!failure)
        return;
    print_message(*failure);
    status_file_.reset();
}

void StatusReport::update(const Progress& progress, const char* state)
{
    last_ = progress;
    if (due())
        next_ = std::max(next_ + std::chrono::seconds(1), Clock::now());
    if (terminal_)
        show_line(progress, std::strcmp(state, "paused") == 0);
    const std::string object = progress_as_json(progress, state);
    if (json_)
        print_status_object(object);
    if (status_file_)
        heed(status_file_->update(object));
}

void StatusReport::show_line(const Progress& progress, bool paused)
{
    const char* const mark =
        colour_ ? (paused ? "\033[33m‖\033[0m" : "\033[31m●\033[0m") : (paused ? "PAUSED" : "REC");
    // the last column stays free
    const size_t taken = (colour_ ? 1 : std::strlen(mark)) + 2;
    const size_t columns = terminal_columns();
    show_status_line(mark, progress_as_line(progress, columns > taken ? columns - taken : 0));
}

void StatusReport::finish(const Progress& progress, bool usable)
{
    finished_ = true;
    clear_status_line();
    const std::string object = progress_as_json(progress, usable ? "finished" : "failed");
    if (json_)
        print_error_line(object);
    if (status_file_)
        heed(status_file_->finish(object, Clock::now() + std::chrono::seconds(1)));
}

} // namespace client
