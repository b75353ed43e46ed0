// What an encoder lends within a capture's callback: the captured picture itself.
#include "capture/picture_leases.h"
#include "capture/picture_pool.h"
#include "encoder/input_memory.h"
#include "encoder_fixture.h"

#include <gtest/gtest.h>

namespace zu3host {
namespace {

constexpr PictureLayout layout = PictureLayout::of(64, 64);

CapturedPicture picture_of(const std::shared_ptr<PicturePool>& pool, uint32_t index)
{
    return {pool->picture(index), pool->layout(), pool};
}

// Catches a picture that is captured into while the encoder reads it, and memory that goes under it.
TEST(EncoderLending, HoldsTheCapturedPictureUntilItIsReleased)
{
    auto pool = PicturePool::own(layout, 0);
    const std::weak_ptr<PicturePool> memory = pool;
    const uint32_t index = *pool->take();
    CapturedPicture picture = picture_of(pool, index);
    LentBuffers buffers(layout);
    ASSERT_EQ(buffers.lend(&picture), picture.data);
    EXPECT_TRUE(buffers.is_lent(picture.data));
    buffers.complete();
    EXPECT_TRUE(pool->give_back(index));
    EXPECT_NE(*pool->take(), index);
    uint8_t* const data = std::exchange(picture, {}).data;
    pool.reset();
    EXPECT_FALSE(memory.expired());
    buffers.release(data);
    EXPECT_TRUE(memory.expired());
    EXPECT_FALSE(picture_is_leased(data));
}

// Catches a reader of a file, or the next callback, that writes into a captured picture which was lent before
// and never handed in; and a picture of another layout being taken for one of the encoder's.
TEST(EncoderLending, LendsMemoryOfItsOwnOrTheNewPictureInsteadOfAnOlderOne)
{
    const auto pool = PicturePool::own(layout, 0);
    const CapturedPicture first = picture_of(pool, *pool->take());
    const CapturedPicture second = picture_of(pool, *pool->take());
    CapturedPicture other = second;
    other.layout.lines *= 2;
    LentBuffers buffers(layout);
    ASSERT_EQ(buffers.lend(&first), first.data);
    uint8_t* const own = buffers.lend(nullptr);
    EXPECT_NE(own, first.data);
    EXPECT_FALSE(picture_is_leased(first.data));
    EXPECT_EQ(buffers.lend(&second), second.data);
    EXPECT_EQ(buffers.lend(&other), own);
    EXPECT_FALSE(picture_is_leased(second.data));
}

// Catches a capture that can fill an encoder's queue and then has no picture to write into.
TEST(EncoderLending, LeavesTheCaptureAPictureWhenEverythingIsLent)
{
    const auto pool = PicturePool::own(layout, 0);
    LentBuffers buffers(layout);
    while (buffers.any_to_lend()) {
        const uint32_t index = *pool->take();
        const CapturedPicture picture = picture_of(pool, index);
        ASSERT_EQ(buffers.lend(&picture), picture.data);
        buffers.complete();
        pool->give_back(index);
    }
    EXPECT_TRUE(pool->take().has_value());
}

// Catches a still screen being searched for changes, and a picture taken for unchanged that is not: what
// differs only becomes a large frame where x264 looks for it.
TEST(EncoderLending, TellsX264WhichPicturesAreUnchanged)
{
    const auto pool = PicturePool::own(layout, 0);
    CapturedPicture picture = picture_of(pool, *pool->take());
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    for (const uint64_t serial : {1, 1, 2, 0, 0}) {
        picture.serial = serial;
        const CapturedPictureInCallback in_callback(picture);
        encoder.encode(1); // draws another picture every time
    }
    const auto size = [&](size_t frame) { return encoder.receiver.frames[frame].bytes.size(); };
    EXPECT_LT(size(1), 40u);
    for (const size_t changed : {2, 3, 4})
        EXPECT_GT(size(changed), 80u) << changed;
}

} // namespace
} // namespace zu3host
