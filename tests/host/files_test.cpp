#include "statistics/counters.h"

#include <zu3/fs.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using zu3host::counters;

class Files : public testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "files_test_XXXXXX").string();
        ASSERT_TRUE(mkdtemp(pattern.data()));
        folder_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }
    std::string path(const char* name) const { return (folder_ / name).string(); }

    std::filesystem::path folder_;
};

// Catches a position of 32 bits, a read that stops at a short count, and a handle that outlives its file.
TEST_F(Files, ReadBackWhatWasWrittenBeyondFourGigabytes)
{
    const s64 far = s64{5} << 30;
    u32 file = ZU_FS_Fopen(path("far").c_str(), "wb");
    ASSERT_NE(file, 0u);
    EXPECT_EQ(ZU_FS_Fseek(file, far, 0), ZU_OK);
    EXPECT_EQ(ZU_FS_Fwrite("abcdef", 2, 3, file), 3);
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
    EXPECT_EQ(ZU_FS_Sync(), ZU_OK);
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_INVALID_ARGUMENT);
    EXPECT_LT(ZU_FS_Fwrite("a", 1, 1, file), 0);

    file = ZU_FS_Fopen(path("far").c_str(), "rb");
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

// Catches data kept back in the process, a file that children inherit or others may read, and a planted link
// that has somebody's file overwritten, or made.
TEST_F(Files, GiveEachWriteToTheKernelAndKeepTheFilePrivate)
{
    for (const mode_t mask : {0u, 0777u}) {
        const mode_t before = umask(mask);
        const int next_fd = dup(STDERR_FILENO);
        close(next_fd);
        const u32 file = ZU_FS_Fopen(path("out").c_str(), "wb");
        umask(before);
        EXPECT_TRUE(fcntl(next_fd, F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(ZU_FS_Fwrite("abc", 3, 1, file), 1);
        struct stat status {};
        ASSERT_EQ(stat(path("out").c_str(), &status), 0);
        EXPECT_EQ(status.st_size, 3);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
        EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
        for (const char* target : {"out", "nobody's"}) {
            std::filesystem::remove(path("link"));
            std::filesystem::create_symlink(path(target), path("link"));
            for (const char* mode : {"wb", "ab", "r+b"})
                EXPECT_EQ(ZU_FS_Fopen(path("link").c_str(), mode), 0u) << target << mode;
        }
        EXPECT_EQ(std::filesystem::file_size(path("out")), 3u);
        EXPECT_FALSE(std::filesystem::exists(path("nobody's")));
        std::filesystem::remove(path("out"));
    }
}

/** Lets no file of this process grow beyond `bytes`, as a disk that fills up. */
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        handler_ = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }

private:
    rlimit before_{};
    void (*handler_)(int);
};

// Catches a cut item at the end of a full disk's file, a silent loss, a line in the log for every batch, and
// a failure that cuts off what lies behind a write in the middle of a file.
TEST_F(Files, KeepWholeItemsWhenTheDiskIsFull)
{
    const std::string items(3000, 'x');
    const auto failures = counters().write_failures.load();
    const auto written = counters().bytes_written.load();
    u32 file = ZU_FS_Fopen(path("full").c_str(), "wb");
    testing::internal::CaptureStderr();
    {
        const FileSizeLimit limit(2500);
        EXPECT_EQ(ZU_FS_Fwrite(items.data(), 1000, 3, file), 2);
        EXPECT_EQ(std::filesystem::file_size(path("full")), 2000u);
        EXPECT_LT(ZU_FS_Fwrite(items.data(), 1000, 1, file), 0);
    }
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::filesystem::file_size(path("full")), 2000u);
    EXPECT_NE(log.find(path("full") + "\": File too large"), std::string::npos) << log;
    EXPECT_EQ(log.find("File too large"), log.rfind("File too large")) << "said twice";
    EXPECT_EQ(counters().write_failures - failures, 2u);
    EXPECT_EQ(counters().bytes_written - written, 2000u);
    EXPECT_EQ(counters().last_write_errno, EFBIG);
    EXPECT_EQ(ZU_FS_Fwrite(items.data(), 1000, 1, file), 1) << "there is room again";
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
    EXPECT_EQ(std::filesystem::file_size(path("full")), 3000u);

    file = ZU_FS_Fopen(path("full").c_str(), "r+b");
    {
        const FileSizeLimit limit(500);
        EXPECT_LT(ZU_FS_Fwrite(items.data(), 1000, 1, file), 0);
    }
    EXPECT_EQ(std::filesystem::file_size(path("full")), 3000u) << "what lies behind a failed write is kept";
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);

    file = ZU_FS_Fopen("/dev/full", "wb");
    EXPECT_LT(ZU_FS_Fwrite(items.data(), 1000, 1, file), 0);
    EXPECT_EQ(counters().last_write_errno, ENOSPC);
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
}

// Catches a handle for what cannot be written or read, and an open that waits for a pipe's reader for ever.
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
        {folder_.string(), "rb", "Is a directory"},
        {folder_.string(), "wb", "Is a directory"},
        {path("pipe"), "wb", "No such device"},
        {path("x"), "xb", "mode"},
        {path("x"), "wb,ccs=x", "mode"},
        {path("x"), nullptr, "mode"},
    };
    for (const auto& each : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(ZU_FS_Fopen(each.name.c_str(), each.mode), 0u) << each.name;
        EXPECT_NE(testing::internal::GetCapturedStderr().find(each.reason), std::string::npos) << each.name;
    }
    EXPECT_FALSE(std::filesystem::exists(path("x")));
}

} // namespace
