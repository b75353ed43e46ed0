#include "running/recording_monitor.h"

#include <sys/statvfs.h>

#include "machine/display.h"
#include "process/messages.h"

namespace client {
namespace {

constexpr uint64_t writer_batch_bytes = uint64_t{128} * 1024;

uint64_t free_bytes(int fd)
{
    struct statvfs volume = {};
    return fstatvfs(fd, &volume) == 0 ? uint64_t{volume.f_bavail} * volume.f_frsize : UINT64_MAX;
}

} // namespace

RecordingMonitor::RecordingMonitor(const OutputFile& file) : file_(file), last_growth_(Clock::now())
{
}

std::optional<std::string> RecordingMonitor::write_problem(const zu3_host_statistics_t& now) const
{
    if (now.write_failures == 0)
        return std::nullopt;
    return "cannot write to " + file_.path() + " any more: " + error_text(now.last_write_errno);
}

// Without statistics: a file that does not grow on a full disk.
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
    if (!now)
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
           file_.path() + ": its disk did not accept them";
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
