#include <algorithm>
#include <filesystem>

#include "commands/commands.h"
#include "files/output_format.h"
#include "files/output_watch.h"
#include "machine/display.h"
#include "process/desktop_notification.h"
#include "process/messages.h"
#include "running/attended_work.h"
#include "running/control_socket.h"
#include "running/recording.h"
#include "running/sound_capture.h"
#include "running/stream_control.h"
#include "showing/status_report.h"
#include <common/rounding.h>

namespace client {
namespace {

/** The number of pictures in a source file; the last one may be incomplete. Throws Failure. */
uint64_t pictures_in(const std::string& source, Size size)
{
    std::error_code error;
    const auto kind = std::filesystem::status(source, error).type();
    if (kind != std::filesystem::file_type::regular &&
        kind != std::filesystem::file_type::not_found)
        throw Failure(
            "cannot read " + source +
            ": it is not an ordinary file, whose size gives the number of pictures; save them to one");
    const uint64_t bytes = std::filesystem::file_size(source, error);
    if (error)
        throw Failure("cannot read " + source + ": " + error.message());
    const uint64_t width = common::round_up(size.width, 16u),
                   height = common::round_up(size.height, 32u);
    const uint64_t picture = width * height * 3 / 2;
    const std::string needed = format_text(
        "a picture of %ux%u has %llu bytes (%llu lines of %llu)", size.width, size.height,
        static_cast<unsigned long long>(picture), static_cast<unsigned long long>(height),
        static_cast<unsigned long long>(width));
    if (bytes < picture)
        throw Failure("cannot encode " + source + ": it is shorter than one picture; " + needed);
    if (bytes % picture != 0)
        print_message(source + " ends in the middle of a picture, so -s may be wrong: " + needed);
    return (bytes + picture - 1) / picture;
}

Size chosen_size(const RecordOptions& options, StopSignals& signals)
{
    if (!options.source.empty())
        return *options.size;
    return size_to_capture(attended_display_to_capture(signals), options.size);
}

void print_settings(const RecordOptions& o, Size size)
{
    const std::string rate =
        o.constant_mbit ? format_text("constant %u x 1048576 bit/s", o.constant_mbit)
        : o.bit_rate    ? format_text("%u bit/s", std::min(*o.bit_rate, greatest_recorded_rate))
        : o.quality     ? format_text("quality %u", *o.quality)
                        : "rate by content";
    print_message(
        format_text("%s, %ux%u at %u fps, H.264, %s, packets of %u bytes, %s, slot %u%s, into %s",
                    o.source.empty() ? "screen" : o.source.c_str(), size.width, size.height, o.fps,
                    rate.c_str(), o.packet_size, o.audio ? "AAC sound" : "no sound", o.slot,
                    o.one_call ? ", one call" : "", o.output.c_str()));
}

constexpr const char* cannot_pause =
    "cannot pause: the library can only end a recording into a .ts file; it continues; .mp4 and .mkv files can be paused";

/** Interval of the looks at a source file's progress. */
constexpr auto source_look = std::chrono::milliseconds(20);

/**
 * Detects the end of a source file: every picture is encoded, or nothing has changed for two
 * seconds.
 */
class SourceEnd {
public:
    explicit SourceEnd(uint64_t pictures) : pictures_(pictures)
    {
        // Without statistics: wait for the shortest time that reading can need, then until the file
        // stops growing.
        if (!counted())
            looks_left_ +=
                std::chrono::milliseconds(28) * static_cast<int64_t>(pictures) / source_look;
    }

    bool reached(uint64_t file_bytes)
    {
        const auto done = counted();
        const uint64_t now = done.value_or(0);
        if (now != last_ || file_bytes != last_bytes_) {
            last_ = now;
            last_bytes_ = file_bytes;
            looks_left_ = std::max(looks_left_, patience);
        }
        return (done && now >= pictures_) || --looks_left_ < 0;
    }

    /** The missing part as a sentence; nullopt if there is none. */
    std::optional<std::string> problem() const
    {
        if (!counted() || last_ >= pictures_)
            return std::nullopt;
        return format_text(
            "cannot encode the whole source: the encoder accepted %llu of %llu pictures",
            static_cast<unsigned long long>(last_), static_cast<unsigned long long>(pictures_));
    }

private:
    /** Pictures that the encoder has accepted or refused. */
    std::optional<uint64_t> counted() const
    {
        const auto now = statistics_.read();
        return now ? std::optional(now->pictures_encoded + now->pictures_refused) : std::nullopt;
    }

    uint64_t pictures_;
    StatisticsDelta statistics_;
    // Counts looks instead of time: after SIGSTOP and SIGCONT the reader still has all of it.
    static constexpr int64_t patience = std::chrono::seconds(2) / source_look;
    int64_t looks_left_ = patience;
    uint64_t last_ = 0;
    uint64_t last_bytes_ = 0;
};

class RecordRun {
public:
    RecordRun(const RecordOptions& options, CommandContext& context)
        : options_(options), context_(context), size_(chosen_size(options, context.signals))
    {
        if (!options.source.empty())
            source_pictures_ = pictures_in(options.source, size_);
    }

    ExitCode run()
    {
        if (options_.verbose)
            print_settings(options_, size_);
        if (options_.bit_rate.value_or(0) > greatest_recorded_rate)
            print_message("the bit rate is lowered to 4.5M, since a .ts file has room for that "
                          "much video; .mp4 and .mkv have no such limit");
        check_output_path(options_.output, options_.overwrite);
        if (options_.audio)
            check_chosen_sound();
        StatusReport report(options_.json, options_.status_file);
        OutputFile file(options_.output, options_.overwrite, context_.signals);
        RecordingMonitor watch(file);
        OutputWatch output(file);
        RecordProgress progress;
        record(file, watch, output, progress, report);
        report.finish(progress.measure(file.size()), !output_lost_ && !nothing_came(file));
        return conclude(file, output.path());
    }

private:
    void record(OutputFile& file, RecordingMonitor& watch, OutputWatch& output,
                RecordProgress& progress, StatusReport& report)
    {
        if (source_pictures_ > 0)
            source_end_.emplace(source_pictures_);
        Recording recording(options_, file.path_to_reopen(), size_, context_.signals);
        const TimePoint end =
            options_.time
                ? Clock::now() + std::chrono::duration_cast<Clock::duration>(*options_.time)
                : TimePoint::max();
        while (!at_end(end, watch, output, file)) {
            serve_peers(progress, file);
            if (report.due())
                report.update(progress.measure(file.size()));
        }
        const bool in_order =
            recording.finish(context_.signals.raised() ? Recording::patience_of_a_stop
                                                       : Recording::patience_at_the_end);
        if (recording.disk_stalled())
            file.leave();
        shortfall_ = watch.shortfall();
        if (options_.quality)
            notice_ = watch.coarsened();
        if (!in_order && !problem_ && !shortfall_)
            problem_ = "cannot close " + file.path() + " in order: the library reports a failure";
        if (!problem_) // the close writes the last batch
            check_file(output.problem_at_end(), watch);
        if (!problem_ && watch.lost_sound())
            problem_ =
                "the sound server went away for a while: " + file.path() + " is silent there";
    }

    /**
     * Asks `watch` first: after a failed write the library shortens the file, which would look like
     * a cut by another program.
     */
    void check_file(std::optional<std::string> output_problem, RecordingMonitor& watch)
    {
        problem_ = watch.problem();
        output_lost_ = !problem_ && output_problem;
        if (output_lost_)
            problem_ = std::move(output_problem);
    }

    bool at_end(TimePoint end, RecordingMonitor& watch, OutputWatch& output, const OutputFile& file)
    {
        const TimePoint next =
            Clock::now() + (source_end_ ? source_look : std::chrono::milliseconds(100));
        if (context_.signals.wait_until(std::min(next, end)) || Clock::now() >= end || stop_asked_)
            return true;
        if (context_.signals.take_pause_request() == PauseRequest::pause)
            print_message(cannot_pause);
        check_file(output.problem(), watch);
        if (watch.reader_gone())
            return true;
        if (problem_ || !source_end_ || !source_end_->reached(file.size()))
            return problem_.has_value();
        problem_ = source_end_->problem();
        return true;
    }

    /** Answers `screenrecord control`. */
    void serve_peers(RecordProgress& progress, const OutputFile& file)
    {
        socket_.serve([&](const std::string& line, ControlSocket::Ticket) {
            const control::Command command = control::parse(line);
            if (std::holds_alternative<control::Status>(command))
                return std::optional(progress_as_json(progress.measure(file.size()), "recording"));
            if (std::holds_alternative<control::Pause>(command))
                return std::optional(std::string("error: ") + cannot_pause);
            stop_asked_ = stop_asked_ || std::holds_alternative<control::Stop>(command);
            return std::optional<std::string>(
                stop_asked_ ? "ok" : "error: a recording into a .ts file accepts status and stop");
        });
    }

    static bool nothing_came(const OutputFile& file) { return file.regular() && file.size() == 0; }

    /** @param path the current path of the file, empty if it has none */
    ExitCode conclude(const OutputFile& file, const std::string& path)
    {
        for (const auto& sentence : {problem_, shortfall_, notice_})
            if (sentence)
                print_message(*sentence);
        if (nothing_came(file) && !output_lost_) {
            print_message("cannot record: nothing reached " + file.path());
            return ExitCode::failed;
        }
        if (!path.empty() && !nothing_came(file))
            context_.output.print_path(path);
        return problem_ || shortfall_ ? ExitCode::ended_early : ExitCode::complete;
    }

    const RecordOptions& options_;
    CommandContext& context_;
    const Size size_;
    uint64_t source_pictures_ = 0;
    std::optional<SourceEnd> source_end_;
    std::optional<std::string> problem_;
    std::optional<std::string> shortfall_;
    std::optional<std::string> notice_;
    ControlSocket socket_{options_.verbose};
    bool stop_asked_ = false;
    bool output_lost_ = false;
};

/** False if a stop was asked for meanwhile. */
bool count_down(uint32_t seconds, StopSignals& signals)
{
    const TimePoint end = Clock::now() + std::chrono::seconds(seconds);
    bool stopped = false;
    for (uint32_t left = seconds; left > 0 && !stopped; --left) {
        print_error_line(format_text("recording begins in %u s", left));
        stopped = signals.wait_until(end - std::chrono::seconds(left - 1));
    }
    return !stopped;
}

ExitCode record(const RecordOptions& options, CommandContext& context)
{
    if (const auto container = container_of(options.output, options.format))
        return record_movie(options, *container, context);
    return RecordRun(options, context).run();
}

/**
 * Records under a name by date and time, which it puts into `options`. Another recorder that begins
 * at the same time may create that file first: then under another name.
 */
ExitCode record_under_new_name(RecordOptions& options, CommandContext& context)
{
    // other recorders of the same second; more of them have another reason
    constexpr int most_attempts = 20;
    for (int attempt = 1;; ++attempt) {
        options.output = new_movie_name();
        try {
            return record(options, context);
        } catch (const Failure& failure) {
            std::error_code error;
            if (failure.code() != ExitCode::usage || attempt == most_attempts ||
                !std::filesystem::exists(options.output, error))
                throw;
        }
    }
}

const char* title_of(ExitCode code)
{
    if (code == ExitCode::complete)
        return "Recording finished";
    return code == ExitCode::ended_early ? "Recording ended early" : "Recording failed";
}

} // namespace

ExitCode run(const RecordOptions& options, CommandContext& context)
{
    RecordOptions named = options;
    const bool is_named = !options.output.empty();
    if (is_named && options.countdown > 0) // an output that is refused needs no countdown
        checked_output(options.output, options.overwrite);
    if (!count_down(options.countdown, context.signals))
        throw Failure("stopped before the recording began; there is no file");
    ExitCode code = ExitCode::failed;
    try {
        code = is_named ? record(named, context) : record_under_new_name(named, context);
    } catch (const Failure& failure) {
        if (options.notify)
            notify_desktop(title_of(failure.code()), failure.what());
        throw;
    }
    if (options.notify)
        notify_desktop(title_of(code), named.output);
    return code;
}

} // namespace client
