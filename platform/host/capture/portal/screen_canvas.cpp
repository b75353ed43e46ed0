#include "capture/portal/screen_canvas.h"

#include <algorithm>
#include <cstring>
#include <libyuv/convert_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/rotate_argb.h>
#include <utility>

namespace zu3host {

namespace {

PictureSize turned_size(const FrameLayout& layout)
{
    const PictureSize size = layout.shown.size;
    return layout.turn.quarters % 2 ? PictureSize{size.height, size.width} : size;
}

void convert(const uint8_t* from, uint32_t from_stride, uint8_t* to, uint32_t to_stride,
             PictureSize size, PixelOrder order)
{
    const auto copy = order == PixelOrder::red_first ? libyuv::ABGRToARGB : libyuv::ARGBCopy;
    copy(from, static_cast<int>(from_stride), to, static_cast<int>(to_stride),
         static_cast<int>(size.width), static_cast<int>(size.height));
}

/** The common part, in pixels of `whole`; empty if there is none. */
PictureRectangle common_part(const PictureRectangle& part, const PictureRectangle& whole)
{
    const uint32_t left = std::max(part.x, whole.x);
    const uint32_t top = std::max(part.y, whole.y);
    const uint32_t right = std::min(part.x + part.size.width, whole.x + whole.size.width);
    const uint32_t bottom = std::min(part.y + part.size.height, whole.y + whole.size.height);
    if (left >= right || top >= bottom)
        return {};
    return {left - whole.x, top - whole.y, {right - left, bottom - top}};
}

/** Lines `top` to `bottom` of the shown part of a buffer; null if they cannot be read. */
const uint8_t* shown_lines(StreamMemory& memory, const FrameLayout& layout, uint32_t top,
                           uint32_t bottom)
{
    const uint64_t first = layout.offset +
                           uint64_t{layout.stride} * (uint64_t{layout.shown.y} + top) +
                           uint64_t{4} * layout.shown.x;
    return memory.bytes(first, uint64_t{layout.stride} * (bottom - top - 1) +
                                   uint64_t{4} * layout.shown.size.width);
}

} // namespace

bool ScreenCanvas::take(StreamMemory& memory, const FrameLayout& layout, const StreamFormat& format,
                        std::span<const PictureRectangle> damage)
{
    const bool same_place = has_picture() && layout.shown.x == layout_.shown.x &&
                            layout.shown.y == layout_.shown.y &&
                            layout.shown.size == layout_.shown.size && layout.turn == layout_.turn;
    const bool all = damage.empty() || !same_place || !layout.turn.identity();
    return all ? take_all(memory, layout, format.order)
               : take_parts(memory, layout, format.order, damage);
}

bool ScreenCanvas::take_all(StreamMemory& memory, const FrameLayout& layout, PixelOrder order)
{
    const uint8_t* const lines = shown_lines(memory, layout, 0, layout.shown.size.height);
    if (!lines)
        return false;
    fit(layout);
    if (layout.turn.identity())
        convert(lines, layout.stride, pixels_.data(), stride(), size_, order);
    else
        put_turned(lines, layout.stride, layout, order);
    // The new picture has no pointer drawn into it.
    pointer_.lifted = true;
    all_news_ = true;
    return true;
}

bool ScreenCanvas::take_parts(StreamMemory& memory, const FrameLayout& layout, PixelOrder order,
                              std::span<const PictureRectangle> damage)
{
    uint32_t top = layout.shown.size.height;
    uint32_t bottom = 0;
    for (const PictureRectangle& part : damage) {
        const PictureRectangle seen = common_part(part, layout.shown);
        if (seen.size.height == 0)
            continue;
        top = std::min(top, seen.y);
        bottom = std::max(bottom, seen.y + seen.size.height);
    }
    if (top >= bottom)
        return true;
    const uint8_t* const lines = shown_lines(memory, layout, top, bottom);
    if (!lines)
        return false;
    lift();
    for (const PictureRectangle& part : damage) {
        const PictureRectangle seen = common_part(part, layout.shown);
        if (seen.size.height == 0)
            continue;
        convert(lines + size_t{layout.stride} * (seen.y - top) + size_t{4} * seen.x, layout.stride,
                pixel(seen.x, seen.y), stride(), seen.size, order);
        note_change(seen);
    }
    layout_ = layout;
    return true;
}

void ScreenCanvas::fit(const FrameLayout& layout)
{
    layout_ = layout;
    const PictureSize size = turned_size(layout);
    if (size == size_)
        return;
    size_ = size;
    pixels_.resize(size_t{stride()} * size_.height);
}

void ScreenCanvas::put_turned(const uint8_t* upright, uint32_t from_stride,
                              const FrameLayout& layout, PixelOrder order)
{
    const PictureSize from = layout.shown.size;
    if (order != PixelOrder::blue_first) {
        turning_.resize(size_t{4} * from.width * from.height);
        convert(upright, from_stride, turning_.data(), from.width * 4, from, order);
        upright = turning_.data();
        from_stride = from.width * 4;
    }
    uint8_t* to = pixels_.data();
    if (layout.turn.mirrored) {
        mirroring_.resize(pixels_.size());
        to = mirroring_.data();
    }
    // The buffer was mirrored and then rotated counterclockwise, so rotate clockwise first.
    constexpr libyuv::RotationMode clockwise[] = {libyuv::kRotate0, libyuv::kRotate90,
                                                  libyuv::kRotate180, libyuv::kRotate270};
    const auto line = static_cast<int>(stride());
    libyuv::ARGBRotate(upright, static_cast<int>(from_stride), to, line,
                       static_cast<int>(from.width), static_cast<int>(from.height),
                       clockwise[layout.turn.quarters % 4]);
    if (layout.turn.mirrored)
        libyuv::ARGBMirror(to, line, pixels_.data(), line, static_cast<int>(size_.width),
                           static_cast<int>(size_.height));
}

void ScreenCanvas::point(const Cursor* cursor)
{
    const bool wanted = cursor && cursor->visible && has_picture();
    const uint64_t key = wanted ? cursor->changes : 0;
    if (key == pointer_.key && !(pointer_.lifted && key != 0))
        return;
    lift();
    if (key != pointer_.key && pointer_.key != 0)
        note_change(pointer_.at);
    const uint64_t before = std::exchange(pointer_.key, key);
    pointer_.at = {};
    if (wanted)
        draw(*cursor);
    if (key != before)
        note_change(pointer_.at);
}

void ScreenCanvas::draw(const Cursor& cursor)
{
    const bool upright = layout_.turn.identity();
    const int64_t x = int64_t{cursor.x} - cursor.image.hot_x - (upright ? layout_.shown.x : 0);
    const int64_t y = int64_t{cursor.y} - cursor.image.hot_y - (upright ? layout_.shown.y : 0);
    const int64_t left = std::max<int64_t>(x, 0);
    const int64_t top = std::max<int64_t>(y, 0);
    const int64_t right = std::min<int64_t>(x + cursor.image.size.width, size_.width);
    const int64_t bottom = std::min<int64_t>(y + cursor.image.size.height, size_.height);
    if (left >= right || top >= bottom)
        return;
    pointer_.at = {static_cast<uint32_t>(left),
                   static_cast<uint32_t>(top),
                   {static_cast<uint32_t>(right - left), static_cast<uint32_t>(bottom - top)}};
    const PictureSize size = pointer_.at.size;
    uint8_t* const below = pixel(pointer_.at.x, pointer_.at.y);
    pointer_.under.resize(size_t{4} * size.width * size.height);
    convert(below, stride(), pointer_.under.data(), size.width * 4, size, PixelOrder::blue_first);
    pointer_.lifted = false;
    const uint32_t line = cursor.image.size.width * 4;
    const uint8_t* const look = cursor.image.pixels.data() +
                                size_t{line} * static_cast<size_t>(top - y) +
                                size_t{4} * static_cast<size_t>(left - x);
    // Both have colors premultiplied by alpha.
    libyuv::ARGBBlend(look, static_cast<int>(line), below, static_cast<int>(stride()), below,
                      static_cast<int>(stride()), static_cast<int>(size.width),
                      static_cast<int>(size.height));
}

void ScreenCanvas::lift()
{
    if (pointer_.lifted)
        return;
    pointer_.lifted = true;
    const PictureSize size = pointer_.at.size;
    convert(pointer_.under.data(), size.width * 4, pixel(pointer_.at.x, pointer_.at.y), stride(),
            size, PixelOrder::blue_first);
}

void ScreenCanvas::note_change(const PictureRectangle& part)
{
    if (part.size.width && part.size.height)
        news_.push_back(part);
}

BgraImage ScreenCanvas::image()
{
    if (all_news_ || !news_.empty()) {
        since_ = all_news_ ? 0 : serial_;
        serial_ = next_serial_();
        if (all_news_)
            news_.clear();
        changed_.swap(news_);
        news_.clear();
        all_news_ = false;
    }
    return {pixels_.data(), stride(), size_, serial_, {since_, changed_}};
}

} // namespace zu3host
