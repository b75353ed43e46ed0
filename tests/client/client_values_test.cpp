// What the client computes from words, sizes and times; end-to-end tests judge the commands.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <sys/ioctl.h>
#include <unistd.h>

#include "command_line/options.h"
#include "machine/host.h"
#include "process/messages.h"
#include "running/encoded_stream.h"
#include "running/sound_capture.h"
#include "running/stream_control.h"
#include "showing/status_report.h"

namespace {

using namespace client;
using namespace std::chrono_literals;

// Catches a counter that still contains earlier recordings; new fields that are none belong below.
TEST(Statistics, EveryCounterBeginsAtZero)
{
    using Record = zu3_host_statistics_t;
    const std::map<size_t, uint32_t> no_counters = {
        {offsetof(Record, last_write_errno), 3}, // and sound_level
        {offsetof(Record, display_lost), 0},     // and sound_lost: lost before, so not since then
        {offsetof(Record, display_silent_ms), 3},
        {offsetof(Record, write_waiting_us), 3},
    };
    for (size_t at = 0; at < sizeof(Record); at += sizeof(uint64_t)) {
        Record before{}, now{};
        uint32_t value = 1;
        std::memcpy(reinterpret_cast<char*>(&before) + at, &value, sizeof value);
        value = 3;
        std::memcpy(reinterpret_cast<char*>(&now) + at, &value, sizeof value);
        const Record since = statistics_since(before, now);
        std::memcpy(&value, reinterpret_cast<const char*>(&since) + at, sizeof value);
        const auto other = no_counters.find(at);
        EXPECT_EQ(value, other == no_counters.end() ? 2 : other->second) << "offset " << at;
    }
}

// Catches a count or a size of 32 bits, which a recording of days passes.
TEST(Progress, CountsBeyondFourThousandMillion)
{
    Progress days;
    days.elapsed_seconds = 1e7;
    days.frames = 5'000'000'001;
    days.dropped = 5'000'000'002;
    days.fps = 120;
    days.file_bytes = 5'000'000'000'003;
    days.bits_per_second = 5e9;
    const std::string json = progress_as_json(days, "recording"),
                      line = progress_as_line(days, 200);
    for (const char* part :
         {"\"elapsed\":10000000.000", "\"frames\":5000000001", "\"dropped\":5000000002",
          "\"file_bytes\":5000000000003", "\"bits_per_second\":5000000000"})
        EXPECT_NE(json.find(part), std::string::npos) << part << " in " << json;
    for (const char* part :
         {"2777:46:40", "5000000001 frames", "5000000002 dropped", "5000000.0 MB"})
        EXPECT_NE(line.find(part), std::string::npos) << part << " in " << line;
}

// Catches a size that is cut off, overflows or is accepted with something behind it.
TEST(OptionValues, SizesAreWholeOrNothing)
{
    EXPECT_EQ(parse_size("1280x720"), (Size{1280, 720}));
    for (const char* wrong :
         {"", "x", "1280", "1280x", "x720", "1280x720x1", "1280X720", " 1280x720", "1280x720 ",
          "-1280x720", "+2x2", "1280x-720", "4294967297x64", "1e3x64"})
        EXPECT_FALSE(parse_size(wrong)) << wrong;
}

// Catches a limit that is off by one.
TEST(OptionValues, SizesHaveLimits)
{
    for (const Size good : {Size{64, 64}, Size{3840, 2160}, Size{1366, 768}})
        EXPECT_EQ(size_problem(good), "");
    for (const Size bad : {Size{62, 64}, Size{64, 62}, Size{3842, 2160}, Size{3840, 2162},
                           Size{65, 64}, Size{64, 65}})
        EXPECT_NE(size_problem(bad), "") << bad.width << "x" << bad.height;
}

// Catches a display whose own size cannot be recorded: odd, too large in one direction, tiny.
TEST(OptionValues, EveryDisplayHasASizeToRecord)
{
    const Size cases[][2] = {{{1365, 767}, {1364, 766}},   {{5120, 1440}, {3840, 1080}},
                             {{2160, 3840}, {1214, 2160}}, {{1, 1}, {64, 64}},
                             {{7680, 4320}, {3840, 2160}}, {{1920, 1080}, {1920, 1080}}};
    for (const auto& [display, expected] : cases) {
        EXPECT_EQ(size_for_display(display), expected) << display.width << "x" << display.height;
        EXPECT_EQ(size_problem(size_for_display(display)), "");
    }
}

// Catches suffixes of 1024, lost fractions, an overflow of 32 bits, and words after a number.
TEST(OptionValues, BitRates)
{
    EXPECT_EQ(parse_bit_rate("800000"), 800000u);
    EXPECT_EQ(parse_bit_rate("500k"), 500000u);
    EXPECT_EQ(parse_bit_rate("2.5M"), 2500000u);
    EXPECT_EQ(parse_bit_rate("2m"), 2000000u);
    EXPECT_EQ(parse_bit_rate("240M"), 240000000u);
    for (const char* wrong :
         {"", "k", "M", "9999", "-1M", "240000001", "5000M", "1e6", "2.5MM", "nan", "inf", "3 M"})
        EXPECT_FALSE(parse_bit_rate(wrong)) << wrong;
}

// Catches a unit that is taken for another, and a clock whose minutes pass for hours.
TEST(OptionValues, Times)
{
    const auto seconds = [](const char* text) { return parse_time(text).value_or(-1s).count(); };
    const std::pair<const char*, double> cases[] = {
        {"10", 10},     {"0.5", 0.5},      {"10s", 10},  {"1m30s", 90},       {"1.5h", 5400},
        {"2h3s", 7203}, {"00:01:30", 90},  {"1:30", 90}, {"90:00.5", 5400.5}, {"100:00:00", 360000},
        {"1e7", -1},    {"10000000", 1e7}, {"1e1", -1},  {"10000001", -1},    {"0", -1},
        {"", -1},       {"s", -1},         {"1s1m", -1}, {"10 s", -1},        {"1m30", -1},
        {"1:60", -1},   {"1:2:3:4", -1},   {":30", -1},  {"1.5:00", -1},      {"-1", -1},
        {"1m-1s", -1},  {"0:00", -1},      {"inf", -1},  {"10S", -1},         {"5000h", -1},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(seconds(text), expected) << text;
}

// Catches a table that is shifted: the library has one bit a level.
TEST(OptionValues, Levels)
{
    for (const auto& [word, bit] :
         {std::pair{"1", 0x1u}, {"1b", 0x2u}, {"3.1", 0x200u}, {"4.1", 0x1000u}})
        EXPECT_EQ(parse_level(word), bit) << word;
    EXPECT_FALSE(parse_level("4.2"));
}

// Catches numbers taken for a part of the file's name, and the other way round.
TEST(StreamControl, WatermarkLines)
{
    const auto watermark = [](const char* line) {
        return std::get<WatermarkOptions>(control::parse(line));
    };
    EXPECT_EQ(watermark("watermark none").image, "");
    EXPECT_EQ(watermark("watermark my logo.png").image, "my logo.png");
    EXPECT_EQ(watermark("watermark none 1,2").image, "none");
    const WatermarkOptions placed = watermark("watermark a 7.png -5,10 128");
    EXPECT_EQ(placed.image, "a 7.png");
    EXPECT_EQ(placed.at, (Position{-5, 10}));
    EXPECT_EQ(placed.opacity, 128u);
    for (const char* wrong : {"watermark", "watermark a.png 1,2 256", "bitrate", "bitrate 5k",
                              "bitrate 241M", "bitrate 1M now", "stop it"})
        EXPECT_TRUE(std::holds_alternative<control::Unknown>(control::parse(wrong))) << wrong;
}

// Catches a file name that drives the terminal or reads backwards, and a harmless one mangled.
TEST(Messages, HaveNoControlCharactersOfOthers)
{
    const std::pair<const char*, const char*> cases[] = {
        {"plain ~ \\x41", "plain ~ \\x41"},
        {"\x1b]0;mine\x07\n\t\x7f", "\\x1b]0;mine\\x07\\x0a\\x09\\x7f"},
        {"Gr\u00fc\u00dfe \u65e5\u672c \U0001F600 \u00a0",
         "Gr\u00fc\u00dfe \u65e5\u672c \U0001F600 \u00a0"},
        {"\x9b"
         "2J \xc2\x9b"
         "2J",
         "\\x9b2J \\xc2\\x9b2J"},
        {"gpj.\u202e \u2066 \u2028", "gpj.\\xe2\\x80\\xae \\xe2\\x81\\xa6 \\xe2\\x80\\xa8"},
        {"\xc0\x9b \xe0\x82\x9b \xed\xa0\x80 \xf4\x90\x80\x80 \xe6\x97", // overlong, no character, cut
         "\\xc0\\x9b \\xe0\\x82\\x9b \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80 \\xe6\\x97"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(printable(text), expected);
}

// Catches a line that is cut in the middle of a number, or wraps and leaves old lines standing.
TEST(StatusLine, LosesOnANarrowTerminalWhatMattersLeast)
{
    Progress progress;
    progress.elapsed_seconds = 3723;
    progress.frames = 111690;
    progress.dropped = 2;
    progress.fps = 30;
    progress.file_bytes = 1'234'500'000;
    progress.bits_per_second = 2.5e6;
    progress.sound_level = 0.1;
    const std::string whole =
        "01:02:03  111690 frames  30.0 fps  2 dropped  1234.5 MB  2.50 Mbit/s  sound -20 dB";
    for (size_t columns = 0; columns < 100; ++columns) {
        const std::string line = progress_as_line(progress, columns);
        EXPECT_LE(line.size(), columns);
        EXPECT_EQ(line == whole, columns >= whole.size());
        const bool size_and_rate = line.find("1234.5 MB  2.50 Mbit/s") != line.npos;
        // of 40: mark and last column are used
        EXPECT_TRUE(size_and_rate || columns < 36) << line;
    }
    EXPECT_EQ(progress_as_line(progress, 36), "01:02:03  1234.5 MB  2.50 Mbit/s");
}

// Catches the tail of a line that is too long being run as a command.
TEST(StreamControl, LinesThatAreTooLongAreRefusedWhole)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
    std::vector<std::string> lines;
    ControlInput input(true);
    const std::string parts[] = {std::string(9000, 'x'), std::string(9000, 'x'),
                                 "stop\nkeyframe\n"};
    for (const std::string& part : parts) {
        ASSERT_EQ(write(ends[1], part.data(), part.size()), static_cast<ssize_t>(part.size()));
        for (int available = 1; ioctl(STDIN_FILENO, FIONREAD, &available) == 0 && available > 0;)
            input.read_lines([&](const std::string& line) { lines.push_back(line); });
    }
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(std::holds_alternative<control::Unknown>(control::parse(lines[0])));
    EXPECT_TRUE(std::holds_alternative<control::Unknown>(control::parse("watermark " + lines[0])));
    EXPECT_EQ(lines[1], "keyframe");
}

// Catches a wrap to a tiny size beyond 4 GiB.
TEST(WavHeader, SaysTheGreatestSizeForMore)
{
    const auto header = wav_header({}, uint64_t{5} << 30);
    for (const size_t place : {4, 40})
        EXPECT_EQ(std::string(header.data() + place, header.data() + place + 4), "\xFF\xFF\xFF\xFF")
            << place;
}

// Catches losses that jitter makes up, losses that are missed, and a pause counted as a loss.
TEST(LostFrames, CountsByTimeStamps)
{
    LostFrames lost(30);
    const auto take = [&lost](int frame, int jitter_us = 0) {
        lost.frame_taken(static_cast<uint64_t>(1'000'000 + frame * 1'000'000 / 30 + jitter_us));
    };
    for (int frame = 0; frame < 300; ++frame)
        take(frame, frame % 3 * 5000);
    EXPECT_EQ(lost.count(), 0u);
    take(310);
    EXPECT_EQ(lost.count(), 10u);
    lost.break_stretch();
    take(400);
    take(401);
    EXPECT_EQ(lost.count(), 10u);
    take(404);
    EXPECT_EQ(lost.count(), 12u);
}

} // namespace
