#include "capture/wayland/frame_copy.h"

#include "capture/wayland/upright_image.h"

#include <algorithm>
#include <cstdio>
#include <new>

namespace zu3host {

namespace {

std::string hexadecimal(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", value);
    return text;
}

} // namespace

const ScreencopyFrameListener FrameCopy::listener{
    .buffer =
        [](void* data, ScreencopyFrame*, uint32_t format, uint32_t width, uint32_t height,
           uint32_t stride) {
            FrameCopy& copy = self(data);
            copy.offer({format, {width, height}, stride}, !copy.done_follows_);
        },
    .flags =
        [](void* data, ScreencopyFrame*, uint32_t flags) {
            constexpr uint32_t first_line_is_lowest = 1;
            self(data).upside_down_ = (flags & first_line_is_lowest) != 0;
        },
    .ready =
        [](void* data, ScreencopyFrame*, uint32_t, uint32_t seconds, uint32_t nanoseconds) {
            FrameCopy& copy = self(data);
            copy.shown_ = std::chrono::seconds(seconds) + std::chrono::nanoseconds(nanoseconds);
            copy.end(State::complete);
        },
    .failed = [](void* data, ScreencopyFrame*) { self(data).end(State::failed); },
    .damage =
        [](void* data, ScreencopyFrame*, uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
            self(data).add_damage({x, y, {width, height}});
        },
    .linux_dmabuf = [](void*, ScreencopyFrame*, uint32_t, uint32_t, uint32_t) {},
    .buffer_done =
        [](void* data, ScreencopyFrame*) {
            FrameCopy& copy = self(data);
            copy.offer(copy.layout_, true);
        },
};

FrameCopy::FrameCopy(const WaylandSession& session, wl_output* output, bool pointer)
    : pointer_(pointer), done_follows_(session.copy_tells_its_last_buffer()),
      proxy_(capture_output(session.screencopy(), pointer, output))
{
    if (!proxy_)
        throw std::bad_alloc();
    listen(proxy_, listener, this);
}

FrameCopy::~FrameCopy()
{
    destroy(proxy_);
}

WaylandProblem FrameCopy::problem() const
{
    const auto fail = [](std::string reason) {
        return WaylandProblem{ScreenFailure::failed, std::move(reason)};
    };
    if (state_ == State::failed)
        return fail("the Wayland compositor refuses to copy the output");
    if (!layout_.is_possible())
        return fail("the Wayland compositor offers an impossible copy: " +
                    std::to_string(layout_.size.width) + "x" + std::to_string(layout_.size.height) +
                    " pixels in lines of " + std::to_string(layout_.stride) + " bytes");
    if (!is_known_format(layout_.format))
        return fail("the output's pixels have the unknown format " + hexadecimal(layout_.format) +
                    "; XRGB8888, ARGB8888, XBGR8888 and ABGR8888 can be captured, so set the "
                    "output to 8 bits per color");
    return {};
}

void FrameCopy::ask(const CopyBuffer& buffer, bool only_if_changed)
{
    if (only_if_changed)
        copy_with_damage(proxy_, buffer.proxy());
    else
        copy(proxy_, buffer.proxy());
    state_ = State::asked;
}

void FrameCopy::end(State end)
{
    if (state_ == State::complete)
        return;
    state_ = state_ == State::asked ? end : State::failed;
}

void FrameCopy::offer(const CopyLayout& layout, bool last)
{
    if (state_ != State::announced)
        return;
    layout_ = layout;
    if (last)
        state_ = State::offered;
}

void FrameCopy::add_damage(PictureRectangle part)
{
    if (state_ != State::asked)
        return;
    part.x = std::min(part.x, layout_.size.width);
    part.y = std::min(part.y, layout_.size.height);
    part.size.width = std::min(part.size.width, layout_.size.width - part.x);
    part.size.height = std::min(part.size.height, layout_.size.height - part.y);
    if (!part.size.width || !part.size.height)
        return;
    if (damage_count_ == damage_.size())
        damage_is_known_ = false;
    else
        damage_[damage_count_++] = part;
}

} // namespace zu3host
