#include "statistics/counters.h"
#include "zu3_host/statistics.h"

#include <gtest/gtest.h>

namespace {

// Catches a record that is filled past the size its reader knows, and fields that are mixed up.
TEST(Statistics, FillNoMoreThanTheReaderHasRoomFor)
{
    zu3host::count(zu3host::counters().pictures_due, 11);
    zu3host::count(zu3host::counters().audio_frames_encoded, 22);
    zu3_host_statistics_t record{};
    EXPECT_EQ(zu3_host_statistics(&record, 8), sizeof record);
    EXPECT_EQ(record.pictures_due, 11u);
    EXPECT_EQ(record.audio_frames_encoded, 0u);
    EXPECT_EQ(zu3_host_statistics(&record, sizeof record + 100), sizeof record);
    EXPECT_EQ(record.audio_frames_encoded, 22u);
    EXPECT_EQ(zu3_host_statistics(nullptr, 0), sizeof record);
}

} // namespace
