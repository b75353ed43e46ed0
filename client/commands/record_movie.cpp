#include "commands/commands.h"

#include <algorithm>
#include <cmath>
#include <sys/stat.h>

#include "files/output_format.h"
#include "machine/display.h"
#include "machine/host.h"
#include "movie/live_movie.h"
#include "movie/movie_copy.h"
#include "movie/movie_destination.h"
#include "process/messages.h"
#include "process/terminal_keys.h"
#include "running/attended_work.h"
#include "running/control_socket.h"
#include "running/encoded_stream.h"
#include "running/sound_capture.h"
#include "running/stream_control.h"
#include "showing/status_report.h"

namespace client {
namespace {

using namespace movie;

using std::chrono::milliseconds;

/** Longest wait for a disk that is behind: a stop must end the program within three seconds. */
constexpr milliseconds disk_patience_of_a_stop(2000), disk_patience_at_the_end(15'000);
/** Longest wait for the screen's first picture; without one a stop would leave no file. */
constexpr milliseconds first_frame_patience(1500);

StreamOptions stream_options(const RecordOptions& options, bool into_file)
{
    StreamOptions stream;
    stream.fps = options.fps;
    stream.bit_rate = options.bit_rate;
    stream.quality = options.bit_rate ? std::nullopt : options.quality;
    if (!options.bit_rate && !options.quality)
        stream.quality = usual_quality;
    stream.rare_key_frames = into_file;
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

MovieFormat format_of(const RecordOptions& options, Container container, Size size, bool seekable)
{
    return {.container = container,
            .width = size.width,
            .height = size.height,
            .fps = options.fps,
            .sound = options.audio,
            .seekable = seekable};
}

int64_t frame_limit(const RecordOptions& options)
{
    return options.time ? std::max<int64_t>(1, std::llround(options.time->count() * options.fps))
                        : INT64_MAX;
}

class MovieRun {
public:
    MovieRun(const RecordOptions& options, Container container, CommandContext& context)
        : options_(options), context_(context), container_(container),
          path_(checked_output(options.output, options.overwrite)),
          size_(size_to_capture(attended_display_to_capture(context.signals), options.size)),
          report_(options.json, options.status_file),
          output_(path_, options.overwrite, context.output.fd(), context.signals),
          recording_(format_of(options, container, size_, output_.is_ordinary_file()),
                     frame_limit(options), output_.sink()),
          keys_(may_read_keys(options, report_, context.output.fd()))
    {
    }

    ExitCode run()
    {
        recording_.start(stream_options(options_, output_.is_ordinary_file()), context_.signals);
        print_settings();
        try {
            const Preferred preferred;
            while (!ended_)
                if (!take())
                    wait();
        } catch (const Failure& failure) {
            output_.give_up(failure);
        }
        finish();
        return conclude();
    }

private:
    const MovieRecording& movie() const { return recording_.movie(); }

    void print_settings() const
    {
        if (options_.verbose)
            print_message(format_text("screen, %ux%u at %u fps, H.264, %s, %s, into %s",
                                      size_.width, size_.height, options_.fps,
                                      recording_.aim().c_str(),
                                      options_.audio ? "AAC sound" : "no sound", path_.c_str()));
    }

    bool take()
    {
        const bool taken = recording_.take();
        ended_ = ended_ || movie().at_end();
        return taken;
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
        output_.look();
        check_end();
        ended_ = ended_ || output_.ended();
        if (report_.due())
            show_progress();
    }

    void check_end()
    {
        if (context_.signals.raised() || stop_asked_)
            stop_limit_ = std::min(stop_limit_, Clock::now() + first_frame_patience);
        const bool stopped = stop_limit_ != TimePoint::max() &&
                             (movie().frames() > 0 || Clock::now() >= stop_limit_);
        ended_ = ended_ || stopped;
        obey(context_.signals.take_pause_request());
        if (Clock::now() < next_check_)
            return;
        next_check_ = Clock::now() + milliseconds(200);
        keys_.look();
        if (movie().left_out() > 0)
            output_.warn_of_slowness();
        output_.look_at_file();
        if (const auto counted = statistics_.read())
            output_.end_for(display_problem(*counted, "cannot record"));
    }

    Progress progress()
    {
        Progress now = progress_.measure(output_.sink().delivered());
        now.has_reader = !output_.is_ordinary_file();
        now.disk_waiting_seconds =
            std::chrono::duration<double>(output_.sink().standstill()).count();
        if (now.dropped)
            *now.dropped += recording_.missing();
        return now;
    }

    const char* state() const
    {
        return finishing_ ? "finishing" : recording_.paused() ? "paused" : "recording";
    }

    void show_progress() { report_.update(progress(), state()); }

    void obey(PauseRequest request)
    {
        if (request == PauseRequest::pause)
            recording_.pause();
        else if (request == PauseRequest::resume)
            recording_.resume();
    }

    void obey(char key)
    {
        if (key != 'p' && key != 'P')
            return;
        recording_.paused() ? recording_.resume() : recording_.pause();
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
            recording_.pause();
        else if (std::holds_alternative<control::Resume>(command))
            recording_.resume();
        else if (std::holds_alternative<control::Stop>(command))
            stop_asked_ = true;
        else
            return "error: a recording accepts pause, resume, status and stop";
        return "ok";
    }

    void finish()
    {
        finishing_ = true;
        try {
            if (output_.broken())
                recording_.stop();
            else
                recording_.take_the_rest();
            recording_.count_unread();
            if (output_.accepts())
                recording_.complete();
        } catch (const Failure& failure) {
            output_.give_up(failure);
        }
        recording_.close();
        output_.finish(Clock::now() + (context_.signals.raised() ? disk_patience_of_a_stop
                                                                 : disk_patience_at_the_end));
        if (output_.disk_failed())
            output_.cut_torn_piece(movie().end_of_pieces(output_.sink().delivered()));
    }

    bool nothing_came() const
    {
        return movie().frames() == 0 || movie().end_of_pieces(output_.sink().delivered()) == 0;
    }

    ExitCode conclude()
    {
        const auto shortfall = recording_.lacking(path_, output_.kind());
        const std::string path = output_.sink().path();
        const bool usable = !nothing_came() && !output_.lost();
        std::optional<std::string> notice;
        if (usable && container_ == Container::mp4 && !options_.fragmented &&
            !output_.disk_failed() && !path.empty() &&
            output_.sink().look() == ByteSink::State::ready)
            notice = put_index_in_front(path);
        report_.finish(progress(), usable);
        for (const auto& sentence : {output_.problem(), shortfall, notice})
            if (sentence)
                print_message(*sentence);
        if (nothing_came() && !output_.lost()) {
            print_message("cannot record: nothing reached " + path_);
            return ExitCode::failed;
        }
        if (!path.empty())
            context_.output.print_path(path);
        return output_.problem() || shortfall ? ExitCode::ended_early : ExitCode::complete;
    }

    /** Why the file stays in fragments, as a sentence; nullopt if the index is in front. */
    std::optional<std::string> put_index_in_front(const std::string& path)
    {
        const TimePoint begin = Clock::now();
        try {
            auto copy = MovieCopy::with_index_in_front(*output_.sink().file(), path);
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
    MovieDestination output_;
    LiveMovie recording_;
    ControlInput control_{options_.control};
    ControlSocket socket_{options_.verbose};
    TerminalKeys keys_;
    const int event_ = frame_event();
    StatisticsDelta statistics_;
    RecordProgress progress_;
    TimePoint stop_limit_ = TimePoint::max();
    TimePoint next_check_;
    bool finishing_ = false;
    bool stop_asked_ = false;
    bool ended_ = false;
};

} // namespace

ExitCode record_movie(const RecordOptions& options, Container container, CommandContext& context)
{
    if (options.audio)
        check_chosen_sound();
    return MovieRun(options, container, context).run();
}

} // namespace client
