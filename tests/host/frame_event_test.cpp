#include "encoder/encoder.h"
#include "zu3_host/frame_event.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>

namespace {

// Catches an event that stays quiet, stays loud, or blocks a reader that reads once too often.
TEST(FrameEvent, TellsOfFramesUntilItIsRead)
{
    zu3host::signal_frame(); // without a listener
    const int event = zu3_host_frame_event();
    ASSERT_GE(event, 0);
    ASSERT_EQ(zu3_host_frame_event(), event);
    EXPECT_TRUE(fcntl(event, F_GETFD) & FD_CLOEXEC);
    const auto readable = [event] {
        pollfd asked{event, POLLIN, 0};
        return poll(&asked, 1, 0) == 1;
    };
    EXPECT_FALSE(readable());
    zu3host::signal_frame();
    zu3host::signal_frame();
    EXPECT_TRUE(readable());
    eventfd_t frames = 0;
    EXPECT_EQ(eventfd_read(event, &frames), 0);
    EXPECT_EQ(frames, 2u);
    EXPECT_FALSE(readable());
    EXPECT_NE(eventfd_read(event, &frames), 0);
}

} // namespace
