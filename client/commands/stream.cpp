#include "commands/commands.h"
#include "files/byte_sink.h"
#include "machine/display.h"
#include "machine/host.h"
#include "process/messages.h"
#include "running/attended_work.h"
#include "running/control_socket.h"
#include "running/encoded_stream.h"
#include "running/stream_control.h"
#include "showing/status_report.h"
#include <screenrecord/screenrecord.h>

namespace client {
namespace {

using std::chrono::milliseconds;

// Interval of the checks: with the event of each frame, and without it, when the interval adds to
// the latency of a frame.
constexpr milliseconds look_interval(100);
constexpr milliseconds look_interval_for_frames(1);

/** Reads frames from the library and writes them, until the end. */
class StreamRun {
public:
    StreamRun(const StreamOptions& options, CommandContext& context)
        : options_(options), context_(context),
          path_(checked_output(options.output, options.overwrite)),
          size_(size_to_capture(attended_display_to_capture(context.signals), options.size)),
          sink_(path_, options.overwrite, context.output.fd(), context.signals),
          stream_(options, size_, context.signals),
          control_(options.control || on_foreground_terminal()), lost_(options.fps)
    {
        if (options.time)
            // for the time until the first frame arrives
            deadline_ = Clock::now() + time_limit() + std::chrono::seconds(5);
    }

    ExitCode run()
    {
        print_settings();
        while (!ended_)
            if (sink_.pending() || !take_frame())
                wait();
        finish();
        return conclude();
    }

private:
    Clock::duration time_limit() const
    {
        return std::chrono::duration_cast<Clock::duration>(*options_.time);
    }

    void print_settings() const
    {
        if (options_.verbose)
            print_message(format_text("%ux%u at %u fps, H.264, %s", stream_.size().width,
                                      stream_.size().height, options_.fps, stream_.aim().c_str()));
        else if (options_.size && stream_.size() != *options_.size)
            print_message(format_text(
                "the stream is %ux%u: the encoder rounds sizes up to multiples of 16x32",
                stream_.size().width, stream_.size().height));
    }

    bool take_frame()
    {
        EncodedFrame frame;
        if (!stream_.take(frame))
            return false;
        if (frames_ == 0)
            begin(frame, Clock::now());
        ended_ = ended_ || is_behind_the_end(frame);
        if (!is_behind_the_end(frame))
            deliver(frame);
        return true;
    }

    // By time stamps, which also count missing frames, and by number: a key frame has the time
    // stamp of the latest picture, so a late first key frame would move the end.
    bool is_behind_the_end(const EncodedFrame& frame) const
    {
        return options_.time &&
               (std::chrono::microseconds(frame.pts_us - first_pts_us_) >= time_limit() ||
                static_cast<double>(frames_) >= options_.time->count() * options_.fps);
    }

    void begin(const EncodedFrame& first, TimePoint now)
    {
        first_pts_us_ = first.pts_us;
        since_first_frame_ = {};
        // for a stream that is paused at its end; otherwise the time stamps end it
        if (options_.time)
            deadline_ = now + time_limit() + milliseconds(150);
    }

    void deliver(const EncodedFrame& frame)
    {
        ++frames_;
        key_frames_ += frame.key;
        last_pts_us_ = frame.pts_us;
        lost_.frame_taken(frame.pts_us);
        check(sink_.put(frame.bytes));
    }

    void check(ByteSink::State state)
    {
        reader_gone_ = reader_gone_ || state == ByteSink::State::reader_gone;
        if (state == ByteSink::State::failed)
            problem_ = "cannot write to " + path_ + " any more: " + error_text(sink_.error());
        ended_ = ended_ || reader_gone_ || problem_.has_value();
    }

    void check(std::optional<std::string> output_problem)
    {
        if (problem_ || !output_problem)
            return;
        problem_ = std::move(output_problem);
        ended_ = true;
    }

    void wait()
    {
        const bool pending = sink_.pending();
        const TimePoint look =
            Clock::now() + (pending || event_ >= 0 ? look_interval : look_interval_for_frames);
        const Awaited awaited[] = {
            {context_.signals.fd()},
            {control_.fd(),
             [this] { control_.read_lines([this](const std::string& line) { obey(line); }); }},
            {socket_.fd(), [this] { serve_peers(); }},
            {pending ? sink_.fd() : -1, [this] { check(sink_.look()); }},
            {pending ? -1 : event_, reset(event_)},
            {watermark_ ? watermark_->reading().fd() : -1, [this] {
                 print_error_line(
                     outcome_of([this] { std::exchange(watermark_, std::nullopt)->apply(); }));
             }}};
        wait_for(awaited, std::min(look, deadline_));
        reader_was_slow_ = reader_was_slow_ || (pending && sink_.pending());
        check_end();
    }

    void check_end()
    {
        const TimePoint now = Clock::now();
        ended_ = ended_ || context_.signals.raised() || now >= deadline_;
        const PauseRequest request = context_.signals.take_pause_request();
        if (request == PauseRequest::pause)
            carry_out(control::Pause{});
        else if (request == PauseRequest::resume)
            carry_out(control::Resume{});
        if (now < next_check_)
            return;
        next_check_ = now + milliseconds(200);
        check(sink_.problem());
        if (const auto counted = statistics_.read())
            check(display_problem(*counted, "cannot stream"));
    }

    /** Carries out a line of standard input. */
    void obey(const std::string& line)
    {
        const control::Command command = control::parse(line);
        const auto* const watermark = std::get_if<WatermarkOptions>(&command);
        if (!watermark || watermark_)
            return print_error_line(answer_to(command));
        const std::string outcome = outcome_of([&] { watermark_.emplace(*watermark); });
        if (!watermark_) // otherwise it is answered after its picture is read
            print_error_line(outcome);
    }

    /** Answers `screenrecord control`. */
    void serve_peers()
    {
        socket_.serve([this](const std::string& line, ControlSocket::Ticket) {
            const control::Command command = control::parse(line);
            const bool accepted = std::holds_alternative<control::Status>(command) ||
                                  std::holds_alternative<control::Pause>(command) ||
                                  std::holds_alternative<control::Resume>(command) ||
                                  std::holds_alternative<control::Stop>(command);
            return std::optional(accepted
                                     ? answer_to(command)
                                     : "error: a stream accepts pause, resume, status and stop");
        });
    }

    std::string answer_to(const control::Command& command)
    {
        if (std::holds_alternative<control::Status>(command))
            return progress_as_json(progress(), paused_ ? "paused" : "recording");
        return outcome_of(
            [&] { std::visit([this](const auto& each) { carry_out(each); }, command); });
    }

    template <typename Action> static std::string outcome_of(Action action)
    {
        try {
            action();
            return "ok";
        } catch (const std::exception& failure) {
            return std::string("error: ") + failure.what();
        }
    }

    Progress progress()
    {
        Progress now = progress_.measure(sink_.delivered());
        now.has_reader = !sink_.file() || !sink_.file()->regular();
        now.disk_waiting_seconds = std::chrono::duration<double>(sink_.standstill()).count();
        return now;
    }

    void carry_out(const control::Unknown& unknown) { throw Failure(unknown.reason); }
    void carry_out(const WatermarkOptions&)
    {
        throw Failure("the picture of the previous watermark is still being read");
    }
    void carry_out(const control::Save&) { throw Failure("a stream keeps nothing to save"); }
    void carry_out(const control::Status&) {} // has an answer instead
    void carry_out(const control::Stop&) { ended_ = true; }
    void carry_out(const control::BitRate& rate)
    {
        if (video_capenc_setBitRate(rate.bits_per_second) != 0)
            throw Failure("the encoder refused this rate");
    }
    // Frames that these leave out are not lost.
    void carry_out(const control::KeyFrame&)
    {
        lost_.break_stretch();
        video_capenc_requestKeyFrame();
    }
    void carry_out(const control::Pause&)
    {
        lost_.break_stretch();
        paused_ = true;
        video_capenc_pause();
    }
    void carry_out(const control::Resume&)
    {
        lost_.break_stretch();
        paused_ = false;
        video_capenc_resume();
    }

    void finish()
    {
        stream_.stop();
        if (sink_.pending())
            lost_.nothing_taken_until(now_us());
        const TimePoint limit = Clock::now() + ByteSink::patience_at_the_end;
        check(sink_.finish(limit));
        while (!reader_gone_ && !problem_ && !sink_.pending() && take_frame())
            check(sink_.finish(limit));
        check(sink_.problem_at_end());
    }

    ExitCode conclude()
    {
        print_losses();
        if (!problem_)
            problem_ = sink_.missing_end(path_);
        if (problem_)
            print_message(*problem_);
        if (sink_.delivered() == 0) {
            print_message("cannot stream: no frame arrived");
            return ExitCode::failed;
        }
        if (options_.verbose)
            print_message(format_text("%llu frames, %llu of them key frames, %llu bytes",
                                      static_cast<unsigned long long>(frames_),
                                      static_cast<unsigned long long>(key_frames_),
                                      static_cast<unsigned long long>(sink_.delivered())));
        if (!sink_.path().empty())
            context_.output.print_path(sink_.path());
        return problem_ ? ExitCode::ended_early : ExitCode::complete;
    }

    // The time stamp of a key frame may be a frame late, so a distance of one proves no loss.
    void print_losses() const
    {
        const auto counted = since_first_frame_.read();
        const uint64_t by_capture = counted ? pictures_left_out(*counted) : 0;
        const uint64_t missing = lost_.count();
        if (missing < by_capture + 2)
            return;
        print_message(format_text(
            "%llu frames are missing from the stream: %s",
            static_cast<unsigned long long>(missing - by_capture),
            reader_was_slow_ ? "its reader was too slow, so it was resumed at later key frames"
                             : "this machine was too busy to read them in time"));
    }

    const StreamOptions& options_;
    CommandContext& context_;
    const std::string path_;
    const Size size_;
    ByteSink sink_;
    EncodedStream stream_;
    ControlInput control_;
    ControlSocket socket_{options_.verbose};
    /** requested, its picture not read yet */
    std::optional<WatermarkChange> watermark_;
    const int event_ = frame_event();
    StatisticsDelta statistics_;
    RecordProgress progress_;
    LostFrames lost_;
    TimePoint deadline_ = TimePoint::max();
    TimePoint next_check_;
    uint64_t frames_ = 0;
    uint64_t key_frames_ = 0;
    uint64_t first_pts_us_ = 0;
    uint64_t last_pts_us_ = 0;
    /** for the frames lost after the first one */
    StatisticsDelta since_first_frame_;
    bool reader_was_slow_ = false;
    bool reader_gone_ = false;
    bool paused_ = false;
    bool ended_ = false;
    std::optional<std::string> problem_;
};

} // namespace

ExitCode run(const StreamOptions& options, CommandContext& context)
{
    return StreamRun(options, context).run();
}

} // namespace client
