#include "running/recording.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <poll.h>
#include <sys/statvfs.h>

#include "machine/display.h"
#include "machine/host.h"
#include "process/messages.h"
#include "running/attended_display.h"
#include "running/library_log.h"
#include "running/repeated_look.h"
#include <screenrecord/screenrecord.h>

namespace client {
namespace {

using namespace std::chrono_literals;

/**
 * While it exists, it gives up a disk that has not answered for a second, also within calls of the
 * library.
 */
class DiskPatience {
public:
    explicit DiskPatience(const StatisticsDelta& statistics) : statistics_(statistics) {}

    bool given_up() const { return given_up_; }

private:
    bool look()
    {
        const auto now = statistics_.read();
        const bool waiting = now && std::chrono::microseconds(now->write_waiting_us) >=
                                        RepeatedLook::interval * looks_;
        looks_ = waiting && now->write_waiting_us > 0 ? looks_ + 1 : 0;
        if (looks_ < 20)
            return true;
        given_up_ = true;
        give_up_writes();
        return false;
    }

    const StatisticsDelta& statistics_;
    std::atomic<bool> given_up_{false};
    int looks_ = 0;
    // last member: it uses the others
    RepeatedLook watch_{[this] { return look(); }};
};

constexpr auto writer_look = 10ms;

/**
 * Waits for the writer's copy of everything multiplexed so far. A close during a pass makes that
 * pass the last one: it would lose the output since its copy, and anything beyond 64 KiB.
 */
void wait_for_writer(const StatisticsDelta& statistics, const DiskPatience& patience,
                     std::chrono::milliseconds limit)
{
    const auto stopped = statistics.read();
    const auto lags = [&] {
        const auto now = statistics.read();
        return stopped && now && now->bytes_copied_out < stopped->bytes_multiplexed;
    };
    // Counts looks instead of time: after SIGSTOP and SIGCONT the writer still has all of it.
    for (auto looks = limit / writer_look; lags() && looks > 0 && !patience.given_up(); --looks)
        poll(nullptr, 0, static_cast<int>(writer_look.count()));
}

uint8_t* bytes(std::string& text)
{
    return reinterpret_cast<uint8_t*>(text.data());
}

void require(uint32_t succeeded, const char* action)
{
    if (!succeeded)
        throw library_failure(std::string("cannot record: the library refused to ") + action);
    forget_library_log();
}

void ask_for_rate(const RecordOptions& options)
{
    const bool offered = options.bit_rate
                             ? want_bit_rate(std::min(*options.bit_rate, greatest_recorded_rate))
                         : options.quality ? want_quality(*options.quality, greatest_recorded_rate)
                                           : true;
    if (!offered)
        print_message("this platform chooses the quality of a .ts file: --bitrate and --quality "
                      "have no effect");
}

// "cap" means the screen; a file of that name needs a folder before it.
std::string source_name(const std::string& source)
{
    if (source.empty())
        return "cap";
    return source == "cap" ? "./cap" : source;
}

constexpr uint64_t writer_batch_bytes = uint64_t{128} * 1024;

uint64_t free_bytes(int fd)
{
    struct statvfs volume = {};
    return fstatvfs(fd, &volume) == 0 ? uint64_t{volume.f_bavail} * volume.f_frsize : UINT64_MAX;
}

} // namespace

Recording::Recording(const RecordOptions& options, const std::string& file, Size size,
                     StopSignals& signals)
    : slot_(options.slot), one_call_(options.one_call)
{
    ask_for_rate(options);
    try {
        attend_display(signals, [&] {
            if (one_call_)
                open_in_one_call(options, file, size);
            else
                open_step_by_step(options, file, size);
        });
        open_ = true;
    } catch (const Failure&) {
        close();
        SCREENRECORD_DeInit();
        throw;
    }
}

Recording::~Recording()
{
    if (open_)
        finish(patience_of_a_stop);
    SCREENRECORD_DeInit();
}

void Recording::open_step_by_step(const RecordOptions& options, std::string file, Size size)
{
    std::string source = source_name(options.source);
    std::string screen_sound = "cap";
    uint32_t fps = options.fps, packet_size = options.packet_size, rate = options.constant_mbit;

    require(SCREENRECORD_Init(), "initialise");
    require(SCREENRECORD_Open(&slot_, bytes(file)), "open the output file");
    if (options.audio)
        require(SCREENRECORD_SetAudio(&slot_, bytes(screen_sound), nullptr, nullptr),
                "open the sound");
    require(SCREENRECORD_SetVideo(&slot_, bytes(source), nullptr, &size.width, &size.height, &fps),
            "open the video with this size and rate");
    require(SCREENRECORD_SetTsMux(&slot_, &packet_size, &rate), "open the multiplexer");
    require(SCREENRECORD_Start(&slot_), "start");
}

// The time limit of the library counts whole seconds and adds one, so the client ends the
// recording.
void Recording::open_in_one_call(const RecordOptions& options, std::string file, Size size)
{
    const int32_t result =
        startScreenRecord(size.width, size.height, options.fps, options.constant_mbit,
                          options.packet_size, 0, 0, bytes(file));
    require(result == 0, "start");
}

// The first picture of the screen needs a moment to be encoded; a stop before that would leave no
// file.
void Recording::wait_for_first_picture() const
{
    const TimePoint limit = Clock::now() + std::chrono::milliseconds(1500);
    const auto may_come = [this] {
        const auto now = statistics_.read();
        return now && now->access_units_multiplexed == 0 && !now->display_lost;
    };
    while (may_come() && Clock::now() < limit)
        poll(nullptr, 0, 10);
}

bool Recording::finish(std::chrono::milliseconds writer_limit)
{
    wait_for_first_picture();
    const DiskPatience patience(statistics_);
    const bool stopped = SCREENRECORD_Stop(&slot_) == 1;
    wait_for_writer(statistics_, patience, writer_limit);
    const bool closed = close();
    disk_stalled_ = patience.given_up();
    return closed && stopped;
}

bool Recording::close()
{
    open_ = false;
    return one_call_ ? stopScreenRecord() == 0 : SCREENRECORD_Close(&slot_) == 1;
}

RecordingMonitor::RecordingMonitor(const OutputFile& file) : file_(file), last_growth_(Clock::now())
{
}

std::optional<std::string> RecordingMonitor::write_problem(const zu3_host_statistics_t& now) const
{
    if (now.write_failures == 0 || reader_gone())
        return std::nullopt;
    return "cannot write to " + file_.path() + " any more: " + error_text(now.last_write_errno);
}

bool RecordingMonitor::reader_gone() const
{
    const auto now = statistics_.read();
    return now && file_.named_pipe() && now->write_failures > 0 && now->last_write_errno == EPIPE;
}

// Used without statistics: detects a file that stops growing on a full disk.
std::optional<std::string> RecordingMonitor::growth_problem()
{
    const uint64_t size = file_.size();
    const bool room = !file_.regular() || free_bytes(file_.fd()) > writer_batch_bytes;
    if (size != last_size_ || room) {
        last_size_ = size;
        last_growth_ = Clock::now();
    }
    if (Clock::now() - last_growth_ < std::chrono::milliseconds(800))
        return std::nullopt;
    return "cannot write to " + file_.path() + " any more: the disk is full";
}

std::optional<std::string> RecordingMonitor::shortfall() const
{
    const auto now = statistics_.read();
    if (!now || reader_gone())
        return std::nullopt;
    const auto pictures = static_cast<unsigned long long>(now->pictures_left_out_for_room);
    const auto bytes = static_cast<unsigned long long>(unwritten_bytes(*now));
    std::string missing;
    if (pictures > 0)
        missing = format_text("%llu pictures", pictures);
    if (bytes > 0)
        missing += (missing.empty() ? "" : " and ") + format_text("the last %llu bytes", bytes);
    if (missing.empty())
        return std::nullopt;
    return missing + (pictures > 0 || bytes > 1 ? " are" : " is") + " missing from " +
           file_.path() + ": its " + (file_.named_pipe() ? "reader" : "disk") +
           " did not accept them";
}

std::optional<std::string> RecordingMonitor::coarsened() const
{
    const auto now = statistics_.read();
    if (!now || now->pictures_coarsened == 0)
        return std::nullopt;
    return format_text("the quality of %llu of %llu pictures is lower, since a .ts file has room "
                       "for 4.5 Mbit/s of video; .mp4 and .mkv have no such limit",
                       static_cast<unsigned long long>(now->pictures_coarsened),
                       static_cast<unsigned long long>(now->pictures_encoded));
}

bool RecordingMonitor::lost_sound() const
{
    const auto now = statistics_.read();
    return now && now->sound_lost;
}

std::optional<std::string> RecordingMonitor::problem()
{
    const auto now = statistics_.read();
    if (!now)
        return growth_problem();
    if (auto without_display = display_problem(*now, "cannot record"))
        return without_display;
    return write_problem(*now);
}

} // namespace client
