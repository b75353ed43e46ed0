// Files after writes, refusals and on a full disk.
#include "files_fixture.h"
#include "multiplexer_fixture.h"
#include "statistics/counters.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <sys/resource.h>

namespace {

namespace fs = std::filesystem;
using zu3host::counters;

// Catches a position of 32 bits, a read that stops at a short count, and a handle after its close.
TEST_F(Files, ReadBackWhatWasWrittenBeyondFourGigabytes)
{
    const s64 far = s64{5} << 30;
    u32 file = open("far", "wb");
    ASSERT_NE(file, 0u);
    EXPECT_EQ(ZU_FS_Fseek(file, far, 0), ZU_OK);
    EXPECT_EQ(ZU_FS_Fwrite("abcdef", 2, 3, file), 3);
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
    EXPECT_EQ(ZU_FS_Sync(), ZU_OK);
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_INVALID_ARGUMENT);
    EXPECT_LT(ZU_FS_Fwrite("a", 1, 1, file), 0);

    file = open("far", "rb");
    ASSERT_NE(file, 0u);
    EXPECT_EQ(ZU_FS_Fseek(file, far + 1, 0), ZU_OK);
    char text[16] = {};
    EXPECT_EQ(ZU_FS_Fread(text, 1, sizeof text, file), 5);
    EXPECT_STREQ(text, "bcdef");
    EXPECT_EQ(ZU_FS_Fread(text, 1, sizeof text, file), 0);
    EXPECT_LT(ZU_FS_Fread(text, 0xFFFFFFFF, 0xFFFFFFFF, file), 0);
    EXPECT_LT(ZU_FS_Fwrite("a", 1, 1, file), 0) << "the file was opened for reading";
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
}

// Catches buffered data, a file that others may read, and a planted link that is followed.
TEST_F(Files, GiveEachWriteToTheKernelAndKeepTheFilePrivate)
{
    for (const mode_t mask : {0u, 0777u}) {
        const mode_t before = umask(mask);
        const u32 file = open("out", "wb");
        umask(before);
        EXPECT_EQ(ZU_FS_Fwrite("abc", 3, 1, file), 1);
        struct stat status {};
        ASSERT_EQ(stat(path("out").c_str(), &status), 0);
        EXPECT_EQ(status.st_size, 3);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
        EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
        for (const char* target : {"out", "missing"}) {
            fs::remove(path("link"));
            fs::create_symlink(path(target), path("link"));
            const common::Descriptor here(::open(folder_.c_str(), O_PATH));
            const std::string by_kernel = "/proc/self/fd/" + std::to_string(here.get()) + "/link";
            for (const char* mode : {"wb", "ab", "r+b"}) {
                EXPECT_EQ(open("link", mode), 0u) << target << mode;
                EXPECT_EQ(ZU_FS_Fopen(by_kernel.c_str(), mode), 0u) << target << mode;
            }
        }
        EXPECT_EQ(fs::file_size(path("out")), 3u);
        EXPECT_FALSE(fs::exists(path("missing")));
        fs::remove(path("out"));
    }
}

// Catches another user's file or pipe that is written, and an open descriptor that is refused.
TEST_F(Files, OfAnotherUserAreNotWritten)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root makes files of another user";
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    std::ofstream(path("file")) << "his";
    for (const char* name : {"pipe", "file"}) {
        const common::Descriptor reader(::open(path(name).c_str(), O_RDONLY | O_NONBLOCK));
        ASSERT_EQ(chown(path(name).c_str(), 12345, 12345), 0);
        for (const char* mode : {"wb", "ab", "r+b"})
            EXPECT_EQ(open(name, mode), 0u) << name << mode;
    }
    EXPECT_EQ(fs::file_size(path("file")), 3u);
    const common::Descriptor held(::open(path("file").c_str(), O_RDONLY));
    const u32 file = ZU_FS_Fopen(("/proc/self/fd/" + std::to_string(held.get())).c_str(), "wb");
    EXPECT_NE(file, 0u);
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
}

/** Lets no file of this process grow beyond `bytes`, as a disk that fills up. */
void limit_files(rlim_t bytes)
{
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min(bytes, limit.rlim_max);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

// Catches a cut item on a full disk, a silent loss, and a line in the log for every batch.
TEST_F(Files, KeepWholeItemsWhenTheDiskIsFull)
{
    const std::string items(3000, 'x');
    const auto failures = counters().write_failures.load();
    const auto written = counters().bytes_written.load();
    u32 file = open("full", "wb");
    testing::internal::CaptureStderr();
    limit_files(2500);
    EXPECT_EQ(ZU_FS_Fwrite(items.data(), 1000, 3, file), 2);
    EXPECT_EQ(fs::file_size(path("full")), 2000u);
    EXPECT_LT(ZU_FS_Fwrite(items.data(), 1000, 1, file), 0);
    limit_files(RLIM_INFINITY);
    const std::string log = zu3host::captured_log();
    EXPECT_EQ(fs::file_size(path("full")), 2000u);
    EXPECT_NE(log.find(path("full") + "\": File too large"), std::string::npos) << log;
    EXPECT_EQ(log.find("File too large"), log.rfind("File too large")) << "said twice";
    EXPECT_EQ(counters().write_failures - failures, 2u);
    EXPECT_EQ(counters().bytes_written - written, 2000u);
    EXPECT_EQ(counters().last_write_errno, EFBIG);
    EXPECT_EQ(ZU_FS_Fwrite(items.data(), 1000, 1, file), 1) << "there is room again";
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
    EXPECT_EQ(fs::file_size(path("full")), 3000u);

    file = open("full", "r+b");
    limit_files(500);
    EXPECT_LT(ZU_FS_Fwrite(items.data(), 1000, 1, file), 0);
    limit_files(RLIM_INFINITY);
    EXPECT_EQ(fs::file_size(path("full")), 3000u) << "what lies behind a failed write is kept";
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
}

// Catches a handle of a file that cannot be used, and an open that waits for a pipe's reader.
TEST_F(Files, AreRefusedWithAReason)
{
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const struct {
        std::string name;
        const char* mode;
        const char* reason;
    } cases[] = {
        {path("no/such/folder"), "wb", "No such file"},
        {path("missing"), "rb", "No such file"},
        {folder_, "rb", "Is a directory"},
        {folder_, "wb", "Is a directory"},
        {path("pipe"), "wb", "No such device"},
        {path("x"), "xb", "mode"},
        {path("x"), "wb,ccs=x", "mode"},
        {path("x"), nullptr, "mode"},
    };
    for (const auto& each : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(ZU_FS_Fopen(each.name.c_str(), each.mode), 0u) << each.name;
        EXPECT_NE(zu3host::captured_log().find(each.reason), std::string::npos) << each.name;
    }
    EXPECT_FALSE(fs::exists(path("x")));
}

/** A stream, and the end of each of its pictures. */
struct Stream {
    zu3host::Bytes bytes;
    std::vector<size_t> ends;
    size_t packet;

    /** Whether the packet whose 188 bytes begin there is of pictures. */
    bool of_pictures(size_t at) const
    {
        return (bytes[at + 1] & 0x1f) == zu3host::picture_pid >> 8 &&
               bytes[at + 2] == (zu3host::picture_pid & 0xff);
    }
    /** Pictures that begin within the first so many bytes. */
    size_t begun(size_t size) const
    {
        size_t count = 0;
        for (size_t at = packet - 188; at < size; at += packet)
            count += (bytes[at + 1] & 0x40) != 0 && of_pictures(at);
        return count;
    }
    /** Where the last packet of a picture begins that has a payload. */
    size_t last_of_pictures() const
    {
        size_t last = 0;
        for (size_t at = packet - 188; at < bytes.size(); at += packet)
            if (of_pictures(at) && (bytes[at + 3] & 0x10) != 0)
                last = at + 188 - packet;
        return last;
    }
};

Stream stream_of_pictures(u32 packet_size, uint32_t rate, size_t greatest)
{
    zu3host::Recording recording({packet_size, rate, true, true, 2 << 20});
    EXPECT_EQ(recording.start(), ZU_OK);
    zu3host::UnitMaker units;
    Stream stream{{}, {}, packet_size};
    for (unsigned i = 0; i < 60; ++i) {
        const bool key = i % 30 == 0;
        recording.push_captured(key ? units.make(true, greatest) : units.make_any(false, 20000),
                                5000000 + i * 33333);
        recording.drain();
        stream.ends.push_back(recording.output.size());
    }
    stream.bytes = recording.output;
    return stream;
}

// Catches a killed recording that ends within a picture, and a picture that is held back too long.
TEST_F(Files, OfPicturesEndWithAWholeOneUntilTheyAreClosed)
{
    const struct {
        u32 packet_size;
        uint32_t rate;
        size_t greatest, batch;
    } cases[] = {{188, 0, 15000, 348},
                 {188, 0, 300000, 348},
                 {192, 0, 300000, 341},
                 {188, 4194304, 200000, 700},
                 {188, 0, 300000, 1}};
    for (const auto& each : cases) {
        const Stream stream = stream_of_pictures(each.packet_size, each.rate, each.greatest);
        const u32 file = open("stream", "wb");
        for (size_t at = 0, size = 0; at < stream.bytes.size(); at += size) {
            size = std::min(each.batch * each.packet_size, stream.bytes.size() - at);
            ASSERT_EQ(ZU_FS_Fwrite(stream.bytes.data() + at, static_cast<u32>(size), 1, file), 1);
            const size_t begun = stream.begun(at + size), written = fs::file_size(path("stream"));
            const size_t whole = stream.begun(written);
            ASSERT_TRUE(begun == 0 || whole == begun - 1)
                << whole << " of " << begun << " pictures";
            ASSERT_TRUE(whole == 0 || written >= stream.ends[whole - 1]) << "picture " << whole;
        }
        EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
        std::ifstream written(path("stream"), std::ios::binary);
        EXPECT_TRUE(zu3host::Bytes(std::istreambuf_iterator<char>(written), {}) == stream.bytes);

        const size_t cut = stream.last_of_pictures();
        const u32 shorter = open("shorter", "wb");
        EXPECT_EQ(ZU_FS_Fwrite(stream.bytes.data(), static_cast<u32>(cut), 1, shorter), 1);
        EXPECT_EQ(ZU_FS_Fclose(shorter), ZU_OK);
        EXPECT_EQ(stream.begun(fs::file_size(path("shorter"))), stream.ends.size() - 1)
            << "without its end";
        EXPECT_GE(fs::file_size(path("shorter")), stream.ends[stream.ends.size() - 2]);
    }
}

// Catches a full disk's file that ends within a picture or goes on without the pictures it needs.
TEST_F(Files, OfPicturesGoOnBehindAFullDiskWhereDecodingCanStart)
{
    const Stream stream = stream_of_pictures(188, 0, 30000);
    const size_t before = stream.ends[14], key = stream.ends[29], after = stream.ends[44];
    const u32 file = open("stream", "wb");
    const auto write = [&](size_t from, size_t to) {
        return ZU_FS_Fwrite(stream.bytes.data() + from, static_cast<u32>(to - from), 1, file);
    };
    EXPECT_EQ(write(0, before), 1);
    const size_t kept = fs::file_size(path("stream"));
    testing::internal::CaptureStderr();
    limit_files(kept + 30000);
    EXPECT_LT(write(before, before + 188 * 400), 0);
    limit_files(RLIM_INFINITY);
    zu3host::captured_log();
    EXPECT_EQ(fs::file_size(path("stream")), kept);
    EXPECT_EQ(write(before + 188 * 400, key), 1);
    EXPECT_EQ(fs::file_size(path("stream")), kept) << "no picture that lacks others";
    EXPECT_EQ(write(key, after), 1);
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
    std::ifstream written(path("stream"), std::ios::binary);
    const zu3host::Bytes bytes(std::istreambuf_iterator<char>(written), {});
    ASSERT_GT(bytes.size(), kept);
    const size_t resumed = after - (bytes.size() - kept);
    EXPECT_TRUE(std::equal(bytes.begin() + static_cast<ptrdiff_t>(kept), bytes.end(),
                           stream.bytes.begin() + static_cast<ptrdiff_t>(resumed)));
    EXPECT_EQ(stream.begun(resumed), 30u) << "the next one is the second key frame";
}

} // namespace
