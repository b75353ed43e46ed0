#include "statistics/counters.h"
#include "zu3_host/statistics.h"

#include <utils/RefBase.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

namespace {

std::atomic<int> first_references, last_references, destroyed;

class Counted : public android::RefBase {
protected:
    void onFirstRef() override { ++first_references; }
    void onLastStrongRef(const void*) override { ++last_references; }
    ~Counted() override { ++destroyed; }
};

// Catches an object that is destroyed early, twice or never when several threads let it go.
TEST(RefBase, DestroysItsObjectOnceWithTheLastReference)
{
    first_references = last_references = destroyed = 0;
    android::sp<Counted> kept(new Counted);
    auto share = [](android::sp<Counted> copy) {
        for (int i = 0; i < 2000; ++i) {
            const android::sp<Counted> one(copy);
            ASSERT_GE(one->getStrongCount(), 2);
        }
    };
    std::thread first(share, kept), second(share, kept);
    first.join();
    second.join();
    EXPECT_EQ(destroyed, 0);
    kept.clear();
    EXPECT_EQ(first_references, 1);
    EXPECT_EQ(last_references, 1);
    EXPECT_EQ(destroyed, 1);
}

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
