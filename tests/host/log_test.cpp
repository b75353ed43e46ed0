#include "helpers.h"
#include "log/log.h"
#include <common/descriptor.h>

#include <android/log.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

using namespace zu3host;

namespace {

// Read by the log at its first line, so set before any test.
const int environment_set = setenv("ANDROID_LOG_TAGS", "loud:V *:E", 1);

// Catches a priority that is off by one, a rule for the wrong tag, and a bad rule that silences
// all.
TEST(LogFilter, FollowsLogcatsExpressions)
{
    const struct {
        const char* expression;
        const char* tag;
        // SILENT = not even fatal lines
        int least_shown;
    } cases[] = {
        {nullptr, "a", ANDROID_LOG_WARN},         {"", "a", ANDROID_LOG_WARN},
        {"*:V", "a", ANDROID_LOG_VERBOSE},        {"*:S", "a", ANDROID_LOG_SILENT},
        {"a:D", "a", ANDROID_LOG_DEBUG},          {"a:D", "ab", ANDROID_LOG_WARN},
        {"a:D", "A", ANDROID_LOG_WARN},           {"a:i *:S", "a", ANDROID_LOG_INFO},
        {"*:S,a:E\tb:F", "a", ANDROID_LOG_ERROR}, {"*:S,a:E\tb:F", "b", ANDROID_LOG_FATAL},
        {"a:D a:E", "a", ANDROID_LOG_ERROR},      {"a", "a", ANDROID_LOG_VERBOSE},
        {"a:X *:Q :E a:", "a", ANDROID_LOG_WARN},
    };
    for (const auto& each : cases) {
        const LogFilter filter(each.expression);
        for (int priority = ANDROID_LOG_VERBOSE; priority <= ANDROID_LOG_FATAL; ++priority)
            EXPECT_EQ(filter.shows(priority, each.tag), priority >= each.least_shown)
                << (each.expression ? each.expression : "null") << " for " << each.tag << " at "
                << priority;
    }
}

// Catches a format that readers do not know, an ignored filter, and control characters of others.
TEST(Log, PrintsLogcatsBriefFormat)
{
    const std::string pid = std::to_string(getpid());
    const std::string process =
        "(" + std::string(5 - std::min<size_t>(5, pid.size()), ' ') + pid + "): ";
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_ERROR, "screenrecord", "[%s][%d]text\n", "f", 7);
    __android_log_print(ANDROID_LOG_DEBUG, "loud", "two\nlines\n\n");
    __android_log_print(ANDROID_LOG_WARN, "quiet", "nothing of this");
    __android_log_print(ANDROID_LOG_ERROR, "loud", "%s is %s\n", "\033[2J\r", "\xc2\x9b");
    __android_log_print(ANDROID_LOG_ERROR, "loud", "\033[35m%d\033[m", 1);
    const std::string expected = "E/screenrecord" + process + "[f][7]text\nD/loud    " + process +
                                 "two\nD/loud    " + process + "lines\nE/loud    " + process +
                                 "\\x1b[2J\\x0d is \\xc2\\x9b\nE/loud    " + process +
                                 "\033[35m1\033[m\n";
    EXPECT_EQ(captured_log(), expected);
}

// Catches a line in pieces, which lines of other threads would part, and one that overruns.
TEST(Log, WritesALineAtOnceWhateverItsLength)
{
    const common::Descriptor before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    int ends[2] = {-1, -1};
    // keeps every write apart
    ASSERT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC), 0);
    const common::Descriptor reader(ends[0]), writer(ends[1]);
    dup2(writer.get(), STDERR_FILENO);
    const std::string endless(100000, 'x');
    __android_log_print(ANDROID_LOG_ERROR, "b", "%s", "short");
    __android_log_print(ANDROID_LOG_ERROR, "a", "%s", endless.c_str());
    __android_log_print(ANDROID_LOG_ERROR, "a", "%s",
                        std::string(100000, '\n').append("x").c_str());
    dup2(before.get(), STDERR_FILENO);
    std::string lines[3];
    for (std::string& line : lines) {
        line.resize(8192);
        line.resize(static_cast<size_t>(read(reader.get(), line.data(), line.size())));
    }
    const auto& [first, second, third] = lines;
    EXPECT_TRUE(first.starts_with("E/b ") && first.ends_with(": short\n")) << first;
    EXPECT_TRUE(second.starts_with("E/a ") && second.ends_with("xxx\n")) << second;
    EXPECT_GT(second.size(), 3000u);
    EXPECT_LE(second.size(), 4096u);
    EXPECT_LE(third.size(), 4096u);
}

// Catches a line that ends the process because the reader of standard error has gone.
TEST(Log, SurvivesItsReader)
{
    const auto log_without_a_reader = [] {
        int ends[2] = {-1, -1};
        if (pipe(ends) != 0 || signal(SIGPIPE, SIG_DFL) == SIG_ERR)
            _exit(2);
        close(ends[0]);
        dup2(ends[1], STDERR_FILENO);
        _exit(__android_log_print(ANDROID_LOG_ERROR, "a", "unread") == -EPIPE ? 0 : 1);
    };
    EXPECT_EXIT(log_without_a_reader(), testing::ExitedWithCode(0), "");
}

} // namespace
