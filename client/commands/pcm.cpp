#include <algorithm>
#include <cmath>
#include <vector>

#include "commands/commands.h"
#include "files/byte_sink.h"
#include "machine/host.h"
#include "process/messages.h"
#include "running/sound_capture.h"

namespace client {
namespace {

using std::chrono::milliseconds;

class PcmRun {
public:
    PcmRun(const PcmOptions& options, CommandContext& context)
        : options_(options), context_(context),
          sink_(options.output, options.overwrite, context.output.fd(), context.signals),
          wanted_(options.time ? frames_of(*options.time) * sound_.format().frame_bytes()
                               : UINT64_MAX)
    {
        if (options.time) // ends a capture that delivers too little
            deadline_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(*options.time) +
                        milliseconds(2000);
        wav_ = !sink_.path().empty();
    }

    ExitCode run()
    {
        while (!ended_)
            if (sink_.pending() || !take(sound_.buffer_bytes()))
                wait();
        const TimePoint limit = Clock::now() + ByteSink::patience_at_the_end;
        take_the_rest(limit);
        check(sink_.finish(limit));
        update_header();
        check(sink_.finish(limit));
        check(sink_.problem_at_end());
        return conclude();
    }

private:
    uint64_t frames_of(Seconds time) const
    {
        return static_cast<uint64_t>(std::llround(time.count() * sound_.format().sample_rate));
    }

    bool take(uint64_t bytes)
    {
        const auto samples = sound_.read(std::min(bytes, wanted_ - taken_));
        if (samples.empty())
            return false;
        const bool first = taken_ == 0;
        taken_ += samples.size();
        ended_ = ended_ || taken_ >= wanted_;
        check(wav_ && first ? begin_file(samples) : sink_.put(samples));
        return true;
    }

    /**
     * The interface returns a full buffer or nothing, so the tail is read with ever smaller ones.
     */
    void take_the_rest(TimePoint limit)
    {
        for (uint64_t bytes = sound_.buffer_bytes(); bytes >= sound_.format().frame_bytes();
             bytes /= 2) {
            bytes -= bytes % sound_.format().frame_bytes();
            check(sink_.finish(limit));
            if (sink_.pending() || problem_ || reader_gone_ || taken_ >= wanted_)
                return;
            take(bytes);
        }
    }

    void wait()
    {
        const bool pending = sink_.pending();
        const Awaited awaited[] = {{context_.signals.fd()},
                                   {pending ? sink_.fd() : -1, [this] { check(sink_.look()); }}};
        // a buffer fills in 64 ms
        wait_for(awaited, Clock::now() + milliseconds(pending ? 100 : 16));
        ended_ = ended_ || context_.signals.raised() || Clock::now() >= deadline_;
        check(sink_.problem());
        if (Clock::now() < next_header_)
            return;
        next_header_ = Clock::now() + milliseconds(900);
        update_header();
    }

    /** Writes the header with the first samples: a file without any stays empty and is removed. */
    ByteSink::State begin_file(std::span<const uint8_t> samples)
    {
        header_ = wav_header(sound_.format(), 0);
        std::vector<uint8_t> both(header_.begin(), header_.end());
        both.insert(both.end(), samples.begin(), samples.end());
        return sink_.put(both);
    }

    // Keeps the header correct while the file grows, so that it plays even after SIGKILL.
    void update_header()
    {
        if (!wav_ || sink_.pending() || sink_.delivered() < header_.size())
            return;
        header_ = wav_header(sound_.format(), sink_.delivered() - header_.size());
        check(sink_.put_at(0, header_));
    }

    void check(ByteSink::State state)
    {
        reader_gone_ = reader_gone_ || state == ByteSink::State::reader_gone;
        if (state == ByteSink::State::failed)
            problem_ =
                "cannot write to " + options_.output + " any more: " + error_text(sink_.error());
        ended_ = ended_ || reader_gone_ || problem_;
    }

    void check(std::optional<std::string> output_problem)
    {
        if (!problem_)
            problem_ = std::move(output_problem);
        ended_ = ended_ || problem_;
    }

    ExitCode conclude()
    {
        if (!problem_)
            problem_ = sink_.missing_end(options_.output);
        if (problem_)
            print_message(*problem_);
        const auto counted = statistics_.read();
        if (counted && counted->audio_bytes_lost > 0)
            print_message(
                format_text("%.2f seconds of sound are missing: they were not read in time",
                            static_cast<double>(counted->audio_bytes_lost) /
                                static_cast<double>(sound_.format().bytes_per_second())));
        if (sink_.delivered() <= (wav_ ? header_.size() : 0)) {
            print_message("cannot record sound: none arrived");
            if (const int error =
                    wav_ ? sink_.empty_file() : 0) // not a header alone: an empty file is removed
                print_message("cannot empty " + options_.output + ": " + error_text(error));
            return ExitCode::failed;
        }
        const bool lost_sound = counted && counted->sound_lost;
        if (lost_sound)
            print_message("the sound server went away for a while: " +
                          (sink_.path().empty() ? std::string("the recording") : sink_.path()) +
                          " is silent there");
        if (!sink_.path().empty())
            context_.output.print_path(sink_.path());
        return problem_ || lost_sound ? ExitCode::ended_early : ExitCode::complete;
    }

    const PcmOptions& options_;
    CommandContext& context_;
    // constructed before the sound, which would be lost while a named pipe waits for its reader
    ByteSink sink_;
    SoundCapture sound_;
    const uint64_t wanted_;
    const StatisticsDelta statistics_;
    TimePoint deadline_ = TimePoint::max();
    TimePoint next_header_ = Clock::now() + milliseconds(900);
    uint64_t taken_ = 0;
    std::array<uint8_t, wav_header_bytes> header_{};
    bool wav_ = false;
    bool reader_gone_ = false;
    bool ended_ = false;
    std::optional<std::string> problem_;
};

} // namespace

ExitCode run(const PcmOptions& options, CommandContext& context)
{
    checked_output(options.output, options.overwrite);
    check_chosen_sound();
    return PcmRun(options, context).run();
}

} // namespace client
