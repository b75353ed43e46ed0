#include "commands/commands.h"

#include <algorithm>
#include <cmath>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "files/output_format.h"
#include "machine/display.h"
#include "machine/host.h"
#include "movie/movie_copy.h"
#include "movie/movie_recording.h"
#include "process/messages.h"
#include "process/terminal_keys.h"
#include "running/attended_work.h"
#include "running/control_socket.h"
#include "running/encoded_stream.h"
#include "running/sound_capture.h"
#include "running/stream_control.h"
#include "showing/status_report.h"
#include <screenrecord/screenrecord.h>

namespace client {
namespace {

using namespace movie;

using std::chrono::milliseconds;

/** Longest wait for a disk that is behind: a stop must end the program within three seconds. */
constexpr milliseconds disk_patience_of_a_stop(2000), disk_patience_at_the_end(15'000);
/** Longest wait for the screen's first picture; without one a stop would leave no file. */
constexpr milliseconds first_frame_patience(1500);

StreamOptions stream_options(const RecordOptions& options)
{
    StreamOptions stream;
    stream.fps = options.fps;
    stream.bit_rate = options.bit_rate;
    stream.quality = options.bit_rate ? std::nullopt : options.quality;
    if (!options.bit_rate && !options.quality)
        stream.quality = usual_quality;
    return stream;
}

/** False if a pipe's reader may itself read keys from the terminal. */
bool may_read_keys(const RecordOptions& options, const StatusReport& report, int standard_output)
{
    struct stat output = {};
    const bool piped = is_standard_output(options.output) &&
                       (fstat(standard_output, &output) != 0 || !S_ISREG(output.st_mode));
    return report.on_terminal() && !options.control && !piped;
}

class MovieRun {
public:
    MovieRun(const RecordOptions& options, Container container, CommandContext& context)
        : options_(options), context_(context), container_(container),
          path_(checked_output(options.output, options.overwrite)),
          size_(size_to_capture(attended_display_to_capture(context.signals), options.size)),
          report_(options.json, options.status_file),
          sink_(path_, options.overwrite, context.output.fd(), context.signals),
          movie_(format(), frame_limit(), sink_),
          keys_(may_read_keys(options, report_, context.output.fd()))
    {
        sink_.allow(most_waiting);
    }

    ExitCode run()
    {
        if (options_.audio)
            sound_.emplace();
        stream_.emplace(stream_options(options_), size_, context_.signals, "cannot record");
        print_settings();
        try {
            const Preferred preferred;
            while (!ended_)
                if (!take())
                    wait();
        } catch (const Failure& failure) {
            give_up(failure);
        }
        finish();
        return conclude();
    }

private:
    MovieFormat format() const
    {
        return {.container = container_,
                .width = size_.width,
                .height = size_.height,
                .fps = options_.fps,
                .sound = options_.audio,
                .seekable = is_ordinary_file()};
    }

    int64_t frame_limit() const
    {
        return options_.time
                   ? std::max<int64_t>(1, std::llround(options_.time->count() * options_.fps))
                   : INT64_MAX;
    }

    void print_settings() const
    {
        if (options_.verbose)
            print_message(format_text("screen, %ux%u at %u fps, H.264, %s, %s, into %s",
                                      size_.width, size_.height, options_.fps,
                                      stream_->aim().c_str(),
                                      options_.audio ? "AAC sound" : "no sound", path_.c_str()));
    }

    /** Reads all waiting sound and one frame; false if no frame was waiting. */
    bool take()
    {
        if (sound_)
            sound_->read([this](uint64_t time_us, std::span<const int16_t> samples) {
                if (!paused_)
                    movie_.put_sound(time_us, samples);
            });
        EncodedFrame frame;
        if (!stream_->take(frame))
            return false;
        lost_.frame_taken(frame.pts_us);
        ++taken_;
        movie_.put_frame(frame);
        ask_for_key();
        ended_ = ended_ || movie_.at_end();
        return true;
    }

    void ask_for_key()
    {
        if (!std::exchange(key_asked_, movie_.needs_key()) && key_asked_) {
            // Frames left out up to the key frame do not count as lost.
            lost_.break_stretch();
            video_capenc_requestKeyFrame();
        }
    }

    void wait()
    {
        const Awaited awaited[] = {
            {context_.signals.fd()},
            {event_, reset(event_)},
            {control_.fd(),
             [this] {
                 control_.read_lines(
                     [this](const std::string& line) { print_error_line(obey(line)); });
             }},
            {socket_.fd(), [this] { serve_peers(); }},
            {keys_.fd(), [this] { keys_.read_keys([this](char key) { obey(key); }); }}};
        wait_for(awaited, next_check_beside_frames(event_));
        check(sink_.look());
        check_end();
        if (report_.due())
            show_progress();
    }

    Progress progress()
    {
        Progress now = progress_.measure(sink_.delivered());
        now.has_reader = !is_ordinary_file();
        now.disk_waiting_seconds = std::chrono::duration<double>(sink_.standstill()).count();
        if (now.dropped)
            *now.dropped += movie_.left_out() + unread_;
        return now;
    }

    const char* state() const
    {
        return finishing_ ? "finishing" : paused_ ? "paused" : "recording";
    }

    void show_progress() { report_.update(progress(), state()); }

    /** Otherwise a pipe or a device. */
    bool is_ordinary_file() const { return sink_.file() && sink_.file()->regular(); }

    /** Prints once that pictures are left out. */
    void warn_of_slow_output()
    {
        if (warned_ || movie_.left_out() == 0)
            return;
        warned_ = true;
        print_message(std::string(is_ordinary_file() ? "the disk" : "the reader") + " of " + path_ +
                      " is too slow: pictures are left out until it catches up");
    }

    void check(ByteSink::State state)
    {
        if (state == ByteSink::State::failed)
            disk_failed_ = true;
        if (state == ByteSink::State::reader_gone)
            reader_gone_ = true;
        if (disk_failed_ && !problem_)
            problem_ = "cannot write to " + path_ + " any more: " + error_text(sink_.error());
        ended_ = ended_ || reader_gone_ || problem_;
    }

    /** Ends the recording after a failure to write the movie. */
    void give_up(const Failure& failure)
    {
        check(sink_.look());
        if (!problem_ && !reader_gone_)
            problem_ = failure.what();
        ended_ = broken_ = true;
    }

    void check_end()
    {
        if (context_.signals.raised() || stop_asked_)
            stop_limit_ = std::min(stop_limit_, Clock::now() + first_frame_patience);
        const bool stopped =
            stop_limit_ != TimePoint::max() && (movie_.frames() > 0 || Clock::now() >= stop_limit_);
        ended_ = ended_ || stopped;
        take_pause_request();
        if (Clock::now() < next_check_)
            return;
        next_check_ = Clock::now() + milliseconds(200);
        keys_.look();
        warn_of_slow_output();
        if (auto lost = sink_.problem(); lost && !problem_) {
            problem_ = std::move(lost);
            output_lost_ = ended_ = true;
        }
        const auto counted = statistics_.read();
        auto without_display = counted ? display_problem(*counted, "cannot record") : std::nullopt;
        if (without_display && !problem_) {
            problem_ = std::move(without_display);
            ended_ = true;
        }
    }

    void take_pause_request()
    {
        const PauseRequest request = context_.signals.take_pause_request();
        if (request == PauseRequest::pause)
            pause();
        else if (request == PauseRequest::resume)
            resume();
    }

    void pause()
    {
        paused_ = true;
        video_capenc_pause();
    }

    void resume()
    {
        if (!std::exchange(paused_, false))
            return;
        // Frames of a pause are not lost.
        lost_.break_stretch();
        movie_.resume_at(now_us());
        video_capenc_resume();
    }

    void obey(char key)
    {
        if (key != 'p' && key != 'P')
            return;
        paused_ ? resume() : pause();
        show_progress();
    }

    void serve_peers()
    {
        socket_.serve([this](const std::string& line, ControlSocket::Ticket) {
            return std::optional(obey(line));
        });
    }

    /** Carries out a line of standard input or of a peer; returns the answer. */
    std::string obey(const std::string& line)
    {
        const control::Command command = control::parse(line);
        if (std::holds_alternative<control::Status>(command))
            return progress_as_json(progress(), state());
        if (finishing_)
            return "error: the recording is over, and its file is being finished";
        if (std::holds_alternative<control::Pause>(command))
            pause();
        else if (std::holds_alternative<control::Resume>(command))
            resume();
        else if (std::holds_alternative<control::Stop>(command))
            stop_asked_ = true;
        else
            return "error: a recording accepts pause, resume, status and stop";
        return "ok";
    }

    void finish()
    {
        finishing_ = true;
        stream_->stop();
        try {
            take_the_rest();
            count_unread();
            if (!broken_ && !disk_failed_ && !reader_gone_)
                movie_.finish();
        } catch (const Failure& failure) {
            give_up(failure);
        }
        stream_.reset();
        sound_.reset();
        check(sink_.finish(Clock::now() + (context_.signals.raised() ? disk_patience_of_a_stop
                                                                     : disk_patience_at_the_end)));
        if (disk_failed_)
            cut_torn_piece();
        else if (sink_.look() == ByteSink::State::pending && !problem_ && sink_.file())
            problem_ = "the end is missing from " + path_ + ": its disk does not respond";
        else if (auto lost = sink_.problem_at_end(); lost && !problem_) {
            problem_ = std::move(lost);
            output_lost_ = true;
        }
    }

    void take_the_rest()
    {
        const TimePoint limit = Clock::now() + milliseconds(100);
        while (!broken_ && take())
            ;
        while (sound_ && !movie_.has_sound_for_all() && Clock::now() < limit && !broken_) {
            take();
            poll(nullptr, 0, 5);
        }
    }

    /** Call it once no more frames are encoded and none waits. */
    void count_unread()
    {
        const auto counted = statistics_.read();
        // The time stamp of a key frame may be a frame late, so one proves no loss.
        const uint64_t between = lost_.count() > 1 ? lost_.count() : 0;
        const uint64_t given = counted ? counted->pictures_encoded : taken_ + between;
        unread_ = given - std::min(given, taken_);
    }

    /** A full disk can end the file in the middle of a piece. */
    void cut_torn_piece()
    {
        if (is_ordinary_file())
            sink_.cut_file(movie_.end_of_pieces(sink_.delivered()));
    }

    bool nothing_came() const
    {
        return movie_.frames() == 0 || movie_.end_of_pieces(sink_.delivered()) == 0;
    }

    ExitCode conclude()
    {
        const auto shortfall = lacking();
        const std::string path = sink_.path();
        const bool usable = !nothing_came() && !output_lost_;
        std::optional<std::string> notice;
        if (usable && container_ == Container::mp4 && !options_.fragmented && !disk_failed_ &&
            !path.empty() && sink_.look() == ByteSink::State::ready)
            notice = put_index_in_front(path);
        report_.finish(progress(), usable);
        for (const auto& sentence : {problem_, shortfall, notice})
            if (sentence)
                print_message(*sentence);
        if (nothing_came() && !output_lost_) {
            print_message("cannot record: nothing reached " + path_);
            return ExitCode::failed;
        }
        if (!path.empty())
            context_.output.print_path(path);
        return problem_ || shortfall ? ExitCode::ended_early : ExitCode::complete;
    }

    /** The missing pictures or sound as a sentence; nullopt if the movie is complete. */
    std::optional<std::string> lacking() const
    {
        // While the output is too slow, the library drops frames as well, up to the key frame.
        if (movie_.left_out() > 0) {
            const unsigned long long missing = movie_.left_out() + unread_;
            return format_text("%llu pictures are missing from %s: its %s too slow", missing,
                               path_.c_str(), is_ordinary_file() ? "disk was" : "reader was");
        }
        if (unread_ > 0)
            return format_text("%llu pictures are missing from %s: this machine was too busy to "
                               "read them in time",
                               static_cast<unsigned long long>(unread_), path_.c_str());
        const auto counted = statistics_.read();
        if (options_.audio && counted && counted->sound_lost)
            return "the sound server went away for a while: " + path_ + " is silent there";
        return std::nullopt;
    }

    /** Why the file stays in fragments, as a sentence; nullopt if the index is in front. */
    std::optional<std::string> put_index_in_front(const std::string& path)
    {
        const TimePoint begin = Clock::now();
        try {
            auto copy = MovieCopy::with_index_in_front(*sink_.file(), path);
            copy.attend(context_.signals, context_.signals.stops(), [this, begin](double part) {
                serve_peers();
                if (!report_.due() || Clock::now() - begin < std::chrono::seconds(1))
                    return;
                Progress now = progress();
                now.finished_part = part;
                report_.update(now, "finishing");
            });
            copy.finish();
            return std::nullopt;
        } catch (const std::exception& failure) {
            return path + " stays in fragments and plays, but its index is not in front: " +
                   failure.what();
        }
    }

    const RecordOptions& options_;
    CommandContext& context_;
    const Container container_;
    const std::string path_;
    const Size size_;
    StatusReport report_;
    ByteSink sink_;
    MovieRecording movie_;
    std::optional<TimedSound> sound_;
    std::optional<EncodedStream> stream_;
    ControlInput control_{options_.control};
    ControlSocket socket_{options_.verbose};
    TerminalKeys keys_;
    const int event_ = frame_event();
    StatisticsDelta statistics_;
    RecordProgress progress_;
    /** for platforms that count no frames */
    LostFrames lost_{options_.fps};
    uint64_t taken_ = 0;
    /** encoded frames that the library dropped before they were read */
    uint64_t unread_ = 0;
    TimePoint stop_limit_ = TimePoint::max();
    TimePoint next_check_;
    bool paused_ = false;
    bool finishing_ = false;
    bool warned_ = false;
    bool key_asked_ = false;
    bool stop_asked_ = false;
    bool ended_ = false;
    bool broken_ = false;
    bool disk_failed_ = false;
    bool reader_gone_ = false;
    bool output_lost_ = false;
    std::optional<std::string> problem_;
};

} // namespace

ExitCode record_movie(const RecordOptions& options, Container container, CommandContext& context)
{
    if (options.audio)
        check_chosen_sound();
    return MovieRun(options, container, context).run();
}

} // namespace client
