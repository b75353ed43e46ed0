// Reads and writes that wait: for the other end of a pipe, or for a disk.
#include "encoder_fixture.h"
#include "files_fixture.h"
#include "memory/memory_register.h"

#include <zu3/os.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <sys/ioctl.h>

namespace {

using FilesThatWait = Files;

int bytes_in(int pipe)
{
    int bytes = -1;
    return ioctl(pipe, FIONREAD, &bytes) == 0 ? bytes : -1;
}

bool sleeps(pid_t thread)
{
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(status, line);
    const size_t name_end = line.rfind(')');
    return name_end != std::string::npos && line[name_end + 2] == 'S';
}

// Catches a pipe that ends before its writer has come, and one that never ends once it has gone.
TEST_F(FilesThatWait, OfAPipeEndWhenItsWriterGoes)
{
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const u32 file = open("pipe", "rb");
    std::atomic<pid_t> reader{0};
    std::string memory(10, '-');
    auto answer = std::async(std::launch::async, [&] {
        reader = gettid();
        return ZU_FS_Fread(memory.data(), 1, 10, file);
    });
    const auto answered = [&] {
        return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    EXPECT_TRUE(zu3host::wait_until([&] { return answered() || (reader != 0 && sleeps(reader)); }));
    {
        const common::Descriptor writer(::open(path("pipe").c_str(), O_WRONLY));
        EXPECT_EQ(write(writer.get(), "abc", 3), 3);
    }
    EXPECT_EQ(answer.get(), 3);
    EXPECT_EQ(memory.substr(0, 4), "abc-");
    EXPECT_EQ(ZU_FS_Fread(memory.data(), 1, 10, file), 0);
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
}

// Catches a deleted task that stays in a read or write of a pipe, and a part reported as the whole.
TEST_F(FilesThatWait, LetATaskGoThatWaitsForTheOtherEndOfAPipe)
{
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const common::Descriptor end(::open(path("pipe").c_str(), O_RDWR | O_NONBLOCK));
    std::string memory(1 << 20, 'x');
    const struct {
        const char* mode;
        std::string there;
        std::function<s32(u32)> call;
        /** bytes in the pipe once the task waits */
        int left;
        s32 answer;
    } cases[] = {
        {"rb", "", [&](u32 file) { return ZU_FS_Fread(memory.data(), 1, 1000, file); }, 0, -1},
        {"rb", "abc", [&](u32 file) { return ZU_FS_Fread(memory.data(), 1, 1000, file); }, 0, -1},
        {"wb", "", [&](u32 file) { return ZU_FS_Fwrite(memory.data(), 1000, 1000, file); }, 65536,
         65},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.mode + each.there);
        std::promise<s32> answer;
        const u32 file = open("pipe", each.mode);
        std::atomic<bool> begun{false};
        std::function<void()> body = [&] {
            begun = true;
            answer.set_value(each.call(file));
        };
        ASSERT_EQ(write(end.get(), each.there.data(), each.there.size()),
                  ssize_t(each.there.size()));
        const auto run = [](void* task) { (*static_cast<std::function<void()>*>(task))(); };
        const ZU_OS_TaskAttr_t attributes{run, &body, 4, 1, {}, nullptr, 4096, "test"};
        s32 task = -1;
        ASSERT_EQ(ZU_OS_CreateTask(&attributes, &task), ZU_OK);
        EXPECT_TRUE(zu3host::wait_until([&] { return begun && bytes_in(end.get()) == each.left; }));
        ASSERT_EQ(ZU_OS_DeleteTask(task), ZU_OK);
        EXPECT_EQ(answer.get_future().get(), each.answer);
        EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
    }
}

// Catches a descriptor that is closed under a call that uses it.
TEST_F(FilesThatWait, AreClosedBehindACallThatUsesThem)
{
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const u32 file = open("pipe", "rb");
    common::Descriptor writer(::open(path("pipe").c_str(), O_WRONLY));
    char text[3] = {};
    auto read = std::async(std::launch::async, [&] { return ZU_FS_Fread(text, 1, 2, file); });
    ASSERT_EQ(write(writer.get(), "a", 1), 1);
    EXPECT_TRUE(zu3host::wait_until([&] { return bytes_in(writer.get()) == 0; }));
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_FAILURE);
    EXPECT_EQ(write(writer.get(), "b", 1), 1);
    EXPECT_EQ(read.get(), 2);
    EXPECT_STREQ(text, "ab");
    EXPECT_LT(::open(path("pipe").c_str(), O_WRONLY | O_NONBLOCK), 0)
        << "the reading end is still open";
}

/** Memory that is lent out to be filled; gone with its owner. */
class Lender {
public:
    explicit Lender(bool encoder)
    {
        if (encoder) {
            encoder_.emplace(zu3host::params_of(1920, 1088));
            start = encoder_->lend().pu8Data;
        } else {
            block_.emplace(3 << 20);
            start = block_->virt;
        }
    }

    uint8_t* start = nullptr;

private:
    std::optional<zu3host::TestEncoder> encoder_;
    std::optional<zu3host::DeviceBlock> block_;
};

// Catches a late read of a dead disk that writes into memory which was given up meanwhile.
TEST_F(FilesThatWait, AreReadIntoMemoryThatWasGivenUpMeanwhile)
{
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const u32 file = open("pipe", "rb");
    const common::Descriptor writer(::open(path("pipe").c_str(), O_WRONLY));
    for (const bool of_encoder : {true, false}) {
        std::atomic<pid_t> reader{0};
        auto lender = std::make_unique<Lender>(of_encoder);
        auto answer = std::async(std::launch::async, [&, memory = lender->start] {
            reader = gettid();
            return ZU_FS_Fread(memory, 1, 4096, file);
        });
        EXPECT_TRUE(zu3host::wait_until([&] { return reader != 0 && sleeps(reader); }));
        const std::weak_ptr<const void> memory = zu3host::hold_memory(lender->start);
        lender.reset();
        EXPECT_FALSE(memory.expired());
        EXPECT_EQ(write(writer.get(), std::string(4096, 'x').data(), 4096), 4096);
        EXPECT_EQ(answer.get(), 4096);
        EXPECT_TRUE(memory.expired()) << "a leak";
    }
    EXPECT_EQ(ZU_FS_Fclose(file), ZU_OK);
}

} // namespace
