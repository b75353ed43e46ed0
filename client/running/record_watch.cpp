#include "running/record_watch.h"

#include <sys/statvfs.h>

#include "process/messages.h"

namespace client {
namespace {

constexpr uint64_t writer_batch_bytes = 128 * 1024;

uint64_t free_bytes(int fd)
{
    struct statvfs volume = {};
    return fstatvfs(fd, &volume) == 0 ? uint64_t{volume.f_bavail} * volume.f_frsize : UINT64_MAX;
}

} // namespace

RecordWatch::RecordWatch(const OutputFile& file)
    : file_(file), before_(read_statistics()), last_growth_(Clock::now())
{
}

std::optional<std::string> RecordWatch::write_problem(const zu3_host_statistics_t& now) const
{
    if (now.write_failures == before_->write_failures)
        return std::nullopt;
    return "cannot write to " + file_.path() + " any more: " + error_text(now.last_write_errno);
}

// Where nothing is counted: a file that stands still on a full disk.
std::optional<std::string> RecordWatch::growth_problem()
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

std::optional<std::string> RecordWatch::shortfall() const
{
    const auto now = read_statistics();
    if (!now || !before_)
        return std::nullopt;
    const auto pictures = static_cast<unsigned long long>(now->pictures_left_out_for_room -
                                                          before_->pictures_left_out_for_room);
    const uint64_t unwritten = unwritten_bytes(*now), unwritten_before = unwritten_bytes(*before_);
    const auto bytes = static_cast<unsigned long long>(
        unwritten > unwritten_before ? unwritten - unwritten_before : 0);
    std::string missing;
    if (pictures > 0)
        missing = format_text("%llu pictures", pictures);
    if (bytes > 0)
        missing += (missing.empty() ? "" : " and ") + format_text("the last %llu bytes", bytes);
    if (missing.empty())
        return std::nullopt;
    return missing + (pictures > 0 || bytes > 1 ? " are" : " is") + " missing from " +
           file_.path() + ": its disk did not take them";
}

bool RecordWatch::lost_sound() const
{
    const auto now = read_statistics();
    return now && before_ && now->sound_lost && !before_->sound_lost;
}

std::optional<std::string> RecordWatch::problem()
{
    const auto now = read_statistics();
    if (!now || !before_)
        return growth_problem();
    if (auto without_display = display_.problem("cannot record"))
        return without_display;
    return write_problem(*now);
}

} // namespace client
