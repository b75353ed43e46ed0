#include <filesystem>

#include "commands/commands.h"
#include "commands/record_movie.h"
#include "files/container.h"
#include "files/output_watch.h"
#include "machine/display.h"
#include "process/messages.h"
#include "running/recording.h"
#include "running/recording_monitor.h"
#include "showing/status_report.h"

namespace client {
namespace {

/** Pictures in a source file of `bytes`; the last one may be incomplete. */
uint64_t pictures_in(const std::string& source, Size size)
{
    std::error_code error;
    const auto kind = std::filesystem::status(source, error).type();
    if (kind != std::filesystem::file_type::regular &&
        kind != std::filesystem::file_type::not_found)
        throw Failure(
            "cannot read " + source +
            ": it is no ordinary file, whose size tells how many pictures it holds; save them to one");
    const uint64_t bytes = std::filesystem::file_size(source, error);
    if (error)
        throw Failure("cannot read " + source + ": " + error.message());
    const uint64_t width = (size.width + 15) & ~15u, height = (size.height + 31) & ~31u;
    const uint64_t picture = width * height * 3 / 2;
    const std::string needed = format_text(
        "%ux%u takes %llu bytes (%llu lines of %llu)", size.width, size.height,
        static_cast<unsigned long long>(picture), static_cast<unsigned long long>(height),
        static_cast<unsigned long long>(width));
    if (bytes < picture)
        throw Failure("cannot encode " + source + ": it holds no whole picture; one of " + needed);
    if (bytes % picture != 0)
        print_message(
            source +
            " is not a whole number of pictures, so its size may not be what -s says: one of " +
            needed);
    return (bytes + picture - 1) / picture;
}

Size chosen_size(const RecordOptions& options)
{
    if (!options.source.empty())
        return *options.size;
    return size_to_capture(display_to_capture(), options.size);
}

void print_settings(const RecordOptions& o, Size size)
{
    const std::string rate = o.constant_mbit
                                 ? format_text("constant %u x 1048576 bit/s", o.constant_mbit)
                                 : "rate by content";
    print_message(
        format_text("%s, %ux%u at %u fps, H.264, %s, packets of %u bytes, %s, slot %u%s, into %s",
                    o.source.empty() ? "screen" : o.source.c_str(), size.width, size.height, o.fps,
                    rate.c_str(), o.packet_size, o.audio ? "AAC sound" : "no sound", o.slot,
                    o.one_call ? ", one call" : "", o.output.c_str()));
}

/** How often a source file's progress is looked at. */
constexpr auto source_look = std::chrono::milliseconds(20);

/** Says when every picture of a source file is encoded, or nothing has moved for two seconds. */
class SourceEnd {
public:
    explicit SourceEnd(uint64_t pictures) : pictures_(pictures)
    {
        // A platform without statistics: wait for the shortest time that reading takes, then until the
        // file stops growing.
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

    /** What is missing, as a sentence. */
    std::optional<std::string> problem() const
    {
        if (!counted() || last_ >= pictures_)
            return std::nullopt;
        return format_text("cannot encode the whole source: the encoder took %llu of %llu pictures",
                           static_cast<unsigned long long>(last_),
                           static_cast<unsigned long long>(pictures_));
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
    // Counted in looks, so that the reader has its turn after this process was stopped for so long.
    static constexpr int64_t patience = std::chrono::seconds(2) / source_look;
    int64_t looks_left_ = patience;
    uint64_t last_ = 0;
    uint64_t last_bytes_ = 0;
};

class RecordRun {
public:
    RecordRun(const RecordOptions& options, CommandContext& context)
        : options_(options), context_(context), size_(chosen_size(options))
    {
        if (!options.source.empty())
            source_pictures_ = pictures_in(options.source, size_);
    }

    ExitCode run()
    {
        if (options_.verbose)
            print_settings(options_, size_);
        check_output_path(options_.output, options_.overwrite);
        StatusReport report(options_.json, options_.status_file);
        const OutputFile file(options_.output, options_.overwrite, context_.signals);
        RecordingMonitor watch(file);
        OutputWatch output(file);
        RecordProgress progress;
        record(file, watch, output, progress, report);
        report.finish(progress.measure(file.size()), !output_lost_ && !nothing_came(file));
        return conclude(file, output.path());
    }

private:
    void record(const OutputFile& file, RecordingMonitor& watch, OutputWatch& output,
                RecordProgress& progress, StatusReport& report)
    {
        if (source_pictures_ > 0)
            source_end_.emplace(source_pictures_);
        Recording recording(options_, file.path_to_reopen(), size_);
        const TimePoint end =
            options_.time
                ? Clock::now() + std::chrono::duration_cast<Clock::duration>(*options_.time)
                : TimePoint::max();
        while (!at_end(end, watch, output, file))
            if (report.due())
                report.update(progress.measure(file.size()));
        const bool in_order =
            recording.finish(context_.signals.raised() ? Recording::patience_of_a_stop
                                                       : Recording::patience_at_the_end);
        shortfall_ = watch.shortfall();
        if (!in_order && !problem_ && !shortfall_)
            problem_ = "cannot close " + file.path() + " in order: the library reports a failure";
        if (!problem_) // the last batch is written by the close
            check_file(output.problem_at_end(), watch);
        if (!problem_ && watch.lost_sound())
            problem_ =
                "the sound server went away for a while: " + file.path() + " is silent there";
    }

    /**
     * A write that fails is cut back, so that it is looked for behind what may be wrong with the
     * file.
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
        if (context_.signals.wait_until(std::min(next, end)) || Clock::now() >= end)
            return true;
        if (context_.signals.take_pause_request() == PauseRequest::pause)
            print_message(
                "cannot pause: the library can end a recording but not hold it, since its stop gives the screen back for good; this one goes on; an .mp4 or .mkv file can be paused");
        check_file(output.problem(), watch);
        if (problem_ || !source_end_ || !source_end_->reached(file.size()))
            return problem_.has_value();
        problem_ = source_end_->problem();
        return true;
    }

    static bool nothing_came(const OutputFile& file) { return file.regular() && file.size() == 0; }

    /** @param path of the file by now, empty if it has none */
    ExitCode conclude(const OutputFile& file, const std::string& path)
    {
        for (const auto& sentence : {problem_, shortfall_})
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
    bool output_lost_ = false;
};

} // namespace

ExitCode run(const RecordOptions& options, CommandContext& context)
{
    if (const auto container = container_of(options.output, options.format))
        return record_movie(options, *container, context);
    return RecordRun(options, context).run();
}

} // namespace client
