#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "commands/commands.h"
#include "files/output_format.h"
#include "machine/display.h"
#include "machine/host.h"
#include "movie/movie_module.h"
#include "movie/replay_buffer.h"
#include "movie/replay_save.h"
#include "process/desktop_notification.h"
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

/**
 * Longest waits at the end for a file that is being written. A stop must end the program within
 * three seconds even if the disk stands still; one that is slow gets more time.
 */
constexpr milliseconds patience_with_a_standstill(2000);
constexpr std::chrono::seconds patience_with_a_slow_disk(10);
/** The same for the last notification. */
constexpr milliseconds patience_with_a_notice(500);

/** The highest bit rate of the encoder, in bits per second. */
uint32_t ceiling_of(const ReplayOptions& options, Size size)
{
    return options.bit_rate.value_or(2 * sensible_bit_rate(size, options.fps));
}

StreamOptions stream_options(const ReplayOptions& options, Size size)
{
    StreamOptions stream;
    stream.fps = options.fps;
    stream.bit_rate = options.bit_rate;
    if (!options.bit_rate)
        stream.quality = options.quality.value_or(usual_quality);
    stream.ceiling = ceiling_of(options, size);
    return stream;
}

/**
 * Most bytes of kept frames and sound: the requested time plus two seconds, and a large picture.
 */
uint64_t most_bytes_of(const ReplayOptions& options, Size size)
{
    constexpr uint64_t large_picture = 1 << 20;
    const double seconds = options.last.count() + 2;
    const double sound = options.audio ? double{sound_rate} * sound_channels * sizeof(int16_t) : 0;
    return static_cast<uint64_t>(seconds * (ceiling_of(options, size) / 8.0 + sound)) +
           large_picture;
}

/** Memory that programs can still use without swapping; nullopt if the system does not tell. */
std::optional<uint64_t> available_memory()
{
    std::ifstream told("/proc/meminfo");
    uint64_t kib = 0;
    for (std::string name; told >> name;)
        if (name == "MemAvailable:" && told >> kib)
            return kib * 1024;
    return std::nullopt;
}

/** Twice the kept data, since as much again arrives while a save reads it. Throws Failure. */
uint64_t checked_memory(const ReplayOptions& options, Size size)
{
    const uint64_t most = 2 * most_bytes_of(options, size);
    const auto available = available_memory();
    if (available && most > *available / 2)
        throw Failure(
            format_text("cannot keep %.0f s: that needs up to %.0f MB of memory, and half of what "
                        "is free is %.0f MB; give a shorter --last or a lower --bitrate",
                        options.last.count(), static_cast<double>(most) / 1e6,
                        static_cast<double>(*available) / 2e6),
            ExitCode::usage);
    return most;
}

/** The folder for the files, which must be there and writable. */
std::string checked_folder(const ReplayOptions& options)
{
    std::string folder = options.output.empty() ? folder_for_videos() : options.output;
    while (folder.size() > 1 && folder.ends_with('/'))
        folder.pop_back();
    std::error_code error;
    const std::string named = folder.empty() ? "." : folder;
    if (!std::filesystem::is_directory(named, error))
        throw Failure("cannot save into " + named + ": it is not a folder", ExitCode::usage);
    if (access(named.c_str(), W_OK | X_OK) != 0)
        throw Failure("cannot save into " + named + ": " + error_text(errno), ExitCode::usage);
    return folder;
}

class ReplayRun {
public:
    ReplayRun(const ReplayOptions& options, CommandContext& context)
        : options_(options), context_(context), folder_(checked_folder(options)),
          size_(size_to_capture(attended_display_to_capture(context.signals), options.size)),
          most_bytes_(checked_memory(options, size_)), report_(options.json, options.status_file),
          kept_(std::chrono::duration_cast<std::chrono::microseconds>(options.last), most_bytes_),
          save_(kept_, format(), folder_), control_(options.control),
          keys_(report_.on_terminal() && !options.control)
    {
        if (options.time)
            end_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(*options.time);
    }

    ExitCode run()
    {
        if (options_.audio)
            sound_.emplace();
        stream_.emplace(stream_options(options_, size_), size_, context_.signals, "cannot replay");
        if (options_.verbose)
            print_message(format_text(
                "screen, %ux%u at %u fps, H.264, %s, at most %.1f MB", size_.width, size_.height,
                options_.fps, stream_->aim().c_str(), static_cast<double>(most_bytes_) / 1e6));
        keep_until_the_end();
        const TimePoint end = Clock::now();
        stream_.reset();
        sound_.reset();
        const bool saved = finish_save(end);
        report_.finish(measure(), !problem_);
        if (problem_)
            print_message(*problem_);
        if (!saved)
            return ExitCode::failed;
        return problem_ ? ExitCode::ended_early : ExitCode::complete;
    }

private:
    void keep_until_the_end()
    {
        const Preferred preferred;
        while (!ended_)
            if (!take())
                wait();
    }

    /** Keeps all waiting sound and one frame; false if no frame was waiting. */
    bool take()
    {
        if (sound_)
            sound_->read([this](uint64_t time_us, std::span<const int16_t> samples) {
                kept_.put_sound(time_us, samples);
            });
        EncodedFrame frame;
        if (!stream_->take(frame))
            return false;
        encoded_bytes_ += frame.bytes.size();
        lost_.frame_taken(frame.pts_us);
        kept_.put_frame(frame);
        return true;
    }

    void wait()
    {
        const Awaited awaited[] = {
            {context_.signals.fd()},
            {event_, reset(event_)},
            {control_.fd(),
             [this] {
                 control_.read_lines([this](const std::string& line) { answer_line(obey(line)); });
             }},
            {keys_.fd(), [this] { keys_.read_keys([this](char key) { obey_key(key); }); }},
            {socket_.fd(), [this] { serve_peers(); }},
            {save_.fd()}};
        wait_for(awaited, next_check_beside_frames(event_));
        save_.give_back();
        conclude_save();
        check_end();
        if (report_.due())
            report_.update(measure(), "recording");
    }

    void obey_key(char key)
    {
        if (key == 's' || key == 'S')
            save_for_user();
    }

    void check_end()
    {
        if (context_.signals.take_pause_request() == PauseRequest::pause)
            save_for_user();
        ended_ = ended_ || context_.signals.raised() || stop_asked_ || Clock::now() >= end_;
        if (Clock::now() < next_check_)
            return;
        next_check_ = Clock::now() + milliseconds(200);
        keys_.look();
        if (const auto counted = statistics_.read())
            problem_ = display_problem(*counted, "cannot replay");
        ended_ = ended_ || problem_;
    }

    Progress measure()
    {
        Progress progress = progress_.measure(encoded_bytes_);
        if (progress.dropped)
            // The library's ring also drops frames that are not read in time.
            progress.dropped = std::max(*progress.dropped, lost_.count());
        progress.file_bytes = saved_bytes_;
        progress.kept_seconds = std::chrono::duration<double>(kept_.length()).count();
        progress.kept_bytes = kept_.bytes_in_memory();
        progress.most_kept_bytes = most_bytes_;
        return progress;
    }

    void serve_peers()
    {
        socket_.serve([this](const std::string& line, ControlSocket::Ticket ticket) {
            auto answer = obey(line);
            if (!answer)
                waiting_peer_ = ticket;
            return answer;
        });
    }

    /** The answer to a line; nullopt = it follows once the file is written. */
    std::optional<std::string> obey(const std::string& line)
    {
        const control::Command command = control::parse(line);
        if (std::holds_alternative<control::Status>(command))
            return progress_as_json(measure(), "recording");
        if (std::holds_alternative<control::Save>(command)) {
            const std::string refusal = begin_save();
            return refusal.empty() ? std::nullopt : std::optional("error: " + refusal);
        }
        stop_asked_ = stop_asked_ || std::holds_alternative<control::Stop>(command);
        return stop_asked_ ? "ok" : "error: a replay accepts save, status and stop";
    }

    static void answer_line(const std::optional<std::string>& answer)
    {
        if (answer)
            print_error_line(*answer);
    }

    void save_for_user()
    {
        const std::string refusal = begin_save();
        if (!refusal.empty())
            print_message("cannot save now: " + refusal);
    }

    /** Starts a save; returns the reason if it cannot, or "". */
    std::string begin_save()
    {
        if (save_.busy())
            return "the previous file is still being written";
        try {
            Snapshot snapshot = kept_.snapshot();
            if (snapshot.empty())
                return "there is no picture yet";
            save_.begin(std::move(snapshot));
            return "";
        } catch (const std::exception& failure) { // without memory or the process
            return failure.what();
        }
    }

    MovieFormat format() const
    {
        return {.container = Container::mp4,
                .width = size_.width,
                .height = size_.height,
                .fps = options_.fps,
                .sound = options_.audio,
                .seekable = true};
    }

    /** False if a file could not be saved. */
    bool conclude_save()
    {
        if (!save_.through())
            return true;
        bool saved = true;
        std::string answer;
        try {
            const ReplaySave::File file = save_.finish();
            saved_bytes_ += file.bytes;
            context_.output.print_path(file.path);
            std::error_code error;
            answer = "ok: " + std::filesystem::absolute(file.path, error).string();
            tell("Saved", file.path);
        } catch (const std::exception& failure) {
            saved = false;
            answer = std::string("error: cannot save into ") + (folder_.empty() ? "." : folder_) +
                     ": " + failure.what();
            print_message(answer.substr(std::string("error: ").size()));
            tell("Not saved", failure.what());
        }
        answer_waiting_peer(answer);
        return saved;
    }

    void answer_waiting_peer(const std::string& answer)
    {
        if (waiting_peer_)
            socket_.answer(*std::exchange(waiting_peer_, std::nullopt), answer);
    }

    void tell(const char* title, const std::string& text)
    {
        if (!options_.notify)
            return;
        try {
            notice_.emplace([title = std::string(title), text] { notify_desktop(title, text); });
        } catch (const std::exception&) {
            // The system has no descriptor or thread for it; the message is printed anyway.
        }
    }

    /** False if the file that was being written is not saved. */
    bool finish_save(TimePoint end)
    {
        await_save(end);
        bool saved = conclude_save();
        if (save_.busy()) {
            save_.cancel();
            const std::string problem = "the last file is not saved: its disk does not respond";
            print_message(problem);
            answer_waiting_peer("error: " + problem);
            saved = false;
        }
        if (notice_) {
            const Awaited shown[] = {{notice_->fd()}};
            wait_for(shown, Clock::now() + patience_with_a_notice);
        }
        return saved;
    }

    void await_save(TimePoint end)
    {
        double part = save_.part();
        TimePoint standstill = end;
        while (save_.busy() && !save_.through() &&
               Clock::now() < std::min(end + patience_with_a_slow_disk,
                                       standstill + patience_with_a_standstill)) {
            const Awaited written[] = {{save_.fd()}};
            wait_for(written, Clock::now() + milliseconds(100));
            const double now = save_.part();
            if (std::exchange(part, now) != now)
                standstill = Clock::now();
        }
    }

    const ReplayOptions& options_;
    CommandContext& context_;
    const std::string folder_;
    const Size size_;
    const uint64_t most_bytes_;
    StatusReport report_;
    ReplayBuffer kept_;
    ReplaySave save_;
    ControlInput control_;
    TerminalKeys keys_;
    ControlSocket socket_{options_.verbose};
    std::optional<TimedSound> sound_;
    std::optional<EncodedStream> stream_;
    std::optional<AttendedWork> notice_;
    /** requested the save that is being written */
    std::optional<ControlSocket::Ticket> waiting_peer_;
    const int event_ = frame_event();
    StatisticsDelta statistics_;
    RecordProgress progress_;
    TimePoint end_ = TimePoint::max();
    TimePoint next_check_;
    LostFrames lost_{options_.fps};
    uint64_t encoded_bytes_ = 0;
    uint64_t saved_bytes_ = 0;
    bool stop_asked_ = false;
    bool ended_ = false;
    std::optional<std::string> problem_;
};

} // namespace

ExitCode run(const ReplayOptions& options, CommandContext& context)
{
    if (options.audio)
        check_chosen_sound();
    // A key frame per second, since a saved file begins with one. The encoder has no threads yet.
    setenv("ZU3_X264_KEYINT", std::to_string(options.fps).c_str(), 1);
    return ReplayRun(options, context).run();
}

} // namespace client
