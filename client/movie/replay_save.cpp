#include "movie/replay_save.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <span>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "files/output_file.h"
#include "movie/timeline.h"
#include "process/messages.h"
#include <common/descriptor.h>

namespace client::movie {
namespace {

[[noreturn]] void fail_to_save(int error)
{
    throw Failure(error_text(error));
}

/** A file in the folder without a name, or with a hidden one; removed unless it gets a name. */
class NamelessFile {
public:
    explicit NamelessFile(int folder)
        : folder_(folder), fd_(openat(folder, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600))
    {
        if (fd_)
            return;
        static unsigned number = 0;
        hidden_ = format_text(".screenrecord-%d-%u.part", getpid(), number++);
        fd_ = common::Descriptor(openat(folder, hidden_.c_str(),
                                        O_CREAT | O_EXCL | O_NOFOLLOW | O_RDWR | O_CLOEXEC, 0600));
        if (!fd_)
            fail_to_save(errno);
    }
    NamelessFile(const NamelessFile&) = delete;
    NamelessFile& operator=(const NamelessFile&) = delete;
    ~NamelessFile()
    {
        if (fd_ && !hidden_.empty())
            unlinkat(folder_, hidden_.c_str(), 0);
    }

    int fd() const { return fd_.get(); }
    /** Names it, with a number appended if that file exists; returns the name. */
    std::string appear(const std::string& begin)
    {
        for (int number = 1; number < 1000; ++number) {
            std::string name = begin + (number > 1 ? format_text("-%d", number) : "") + ".mp4";
            if (put_at(name) == 0) {
                hidden_.clear();
                return name;
            }
            if (errno != EEXIST)
                fail_to_save(errno);
        }
        fail_to_save(EEXIST);
    }

private:
    // A file system without nameless files, such as FAT, may have no links either.
    int put_at(const std::string& name) const
    {
        if (!hidden_.empty())
            return rename_to_free_name(folder_, hidden_.c_str(), name.c_str());
        return linkat(AT_FDCWD, format_text("/proc/self/fd/%d", fd()).c_str(), folder_,
                      name.c_str(), AT_SYMLINK_FOLLOW);
    }

    const int folder_;
    std::string hidden_;
    common::Descriptor fd_;
};

class FileOutput final : public MovieOutput {
public:
    explicit FileOutput(int fd) : fd_(fd) {}
    void write(uint64_t at, std::span<const uint8_t> bytes) override
    {
        while (!bytes.empty()) {
            const ssize_t n = pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(at));
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                fail_to_save(errno);
            bytes = bytes.subspan(static_cast<size_t>(n));
            at += static_cast<uint64_t>(n);
        }
    }

private:
    const int fd_;
};

/** Joins the frames and sound of a snapshot into a fragmented movie. */
class Joined {
public:
    Joined(const MovieFormat& format, int fd)
        : format_(format), output_(fd), writer_(movie_module().open(format, output_)),
          frames_(format.fps, [this](const PlacedFrame& frame) { take(frame); }),
          sound_([this](std::span<const int16_t> samples) { writer_->put_sound(samples); })
    {
    }

    /** @param show called with the finished part, 0 to 1 */
    void write(Snapshot& snapshot, const std::function<void(double)>& show)
    {
        KeptPiece piece;
        while (snapshot.next(piece)) {
            put(piece);
            show(snapshot.part_read());
        }
        frames_.flush();
        if (format_.sound) {
            pass_on_sound();
            sound_.fill(end());
        }
        writer_->finish();
    }

private:
    int64_t end() const { return frames_.sample_behind(frames_.next()); }
    void put(const KeptPiece& piece)
    {
        if (piece.kind != KeptPiece::Kind::sound)
            frames_.put({.bytes = piece.bytes,
                         .pts_us = piece.time_us,
                         .key = piece.kind == KeptPiece::Kind::key_frame});
        else if (format_.sound)
            sound_.put(piece.time_us, piece.samples());
    }
    void take(const PlacedFrame& frame)
    {
        writer_->put_frame(frame.bytes, frame.index, frame.key);
        if (format_.sound && frames_.settled())
            pass_on_sound();
    }
    void pass_on_sound()
    {
        sound_.hand_on(end(), [this](uint64_t us) { return frames_.sample_at(us); });
    }

    const MovieFormat format_;
    FileOutput output_;
    const std::unique_ptr<MovieWriter> writer_;
    FrameLine frames_;
    SoundLine sound_;
};

using GoOn = AttendedProcess::GoOn;

/** The finished part of a save after each step. */
constexpr double read_end = 0.5, copied_end = 0.75;

void check_goes_on(const GoOn& go_on, double part)
{
    if (!go_on(part))
        throw Failure("it was interrupted");
}

/** Waits until the disk has the file, in pieces that show that the disk moves. */
void synchronize(int fd, const GoOn& go_on)
{
    constexpr off_t piece = 4 << 20;
    struct stat file = {};
    if (fstat(fd, &file) != 0)
        fail_to_save(errno);
    for (off_t at = 0; at < file.st_size; at += piece) {
        check_goes_on(go_on, copied_end + (1 - copied_end) * static_cast<double>(at) /
                                              static_cast<double>(file.st_size));
        if (sync_file_range(fd, at, piece,
                            SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE |
                                SYNC_FILE_RANGE_WAIT_AFTER) != 0)
            fail_to_save(errno);
    }
    if (fsync(fd) != 0)
        fail_to_save(errno);
}

/** Returns the size and the path of the file, with a space between. */
std::string save(Snapshot snapshot, const MovieFormat& format, const std::string& folder,
                 const GoOn& go_on)
{
    const common::Descriptor place(
        open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!place)
        fail_to_save(errno);
    const NamelessFile fragments(place.get());
    NamelessFile whole(place.get());
    Joined(format, fragments.fd()).write(snapshot, [&go_on](double part) {
        check_goes_on(go_on, part * read_end);
    });
    movie_module().copy({.from = fragments.fd(),
                         .to = whole.fd(),
                         .container = Container::mp4,
                         .own = true,
                         .go_on = [&go_on](double part) {
                             return go_on(read_end + part * (copied_end - read_end));
                         }});
    synchronize(whole.fd(), go_on);
    struct stat file = {};
    fstat(whole.fd(), &file);
    check_goes_on(go_on, 1);
    return std::to_string(file.st_size) + " " + (folder.empty() ? "" : folder + "/") +
           whole.appear(dated_name());
}

} // namespace

ReplaySave::ReplaySave(const ReplayBuffer& buffer, const MovieFormat& format,
                       const std::string& folder)
    : handover_(buffer)
{
    movie_module(); // a missing module fails here, not at the first save
    process_ = std::make_unique<AttendedProcess>(
        "replay saver", std::span<const int>(), [this, &format, &folder](const GoOn& go_on) {
            // A save is not urgent.
            setpriority(PRIO_PROCESS, 0, 10);
            return save(handover_.get(), format, folder, go_on);
        });
}

void ReplaySave::begin(Snapshot snapshot)
{
    handover_.put(snapshot);
    process_->begin();
    snapshot_.emplace(std::move(snapshot));
}

void ReplaySave::give_back()
{
    if (snapshot_)
        snapshot_->give_back(std::min(part() / read_end, 1.0));
}

ReplaySave::File ReplaySave::finish()
{
    snapshot_.reset();
    const std::string text = process_->finish();
    const size_t space = text.find(' ');
    return {.path = text.substr(space + 1), .bytes = std::stoull(text.substr(0, space))};
}

} // namespace client::movie
