#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <xcb/xcb.h>
#include <xcb/xproto.h>

namespace common {

// xcb's accessors and iterators trust the counts in a reply, whatever its length. These functions
// compare the counts with the length.

/** Whether a reply has `bytes` behind its first 32, which xcb always reads. */
template <typename Reply> bool holds_behind(const Reply& reply, uint64_t bytes)
{
    return uint64_t{reply.length} * 4 >= bytes;
}

/** Walks over records in memory whose contents give the length of the rest. */
class ReplyWalk {
public:
    ReplyWalk(const void* begin, uint64_t bytes)
        : at_(static_cast<const uint8_t*>(begin)), left_(bytes)
    {
    }

    /** The record at this place, if it is complete, and moves past it. */
    template <typename Record> const Record* take()
    {
        const void* const here = at_;
        return skip(sizeof(Record)) ? static_cast<const Record*>(here) : nullptr;
    }
    bool skip(uint64_t bytes)
    {
        if (bytes > left_)
            return false;
        at_ += bytes;
        left_ -= bytes;
        return true;
    }

private:
    const uint8_t* at_;
    uint64_t left_;
};

/** Skips a screen's depths and visuals; false if they are incomplete. */
inline bool skip_depths(ReplyWalk& walk, const xcb_screen_t& screen)
{
    for (unsigned depth = 0; depth < screen.allowed_depths_len; ++depth) {
        const auto* found = walk.take<xcb_depth_t>();
        if (!found || !walk.skip(uint64_t{found->visuals_len} * sizeof(xcb_visualtype_t)))
            return false;
    }
    return true;
}

/**
 * Screen `number` of a server; null if there is none, or if the server's description is incomplete.
 */
inline const xcb_screen_t* find_screen(const xcb_setup_t& setup, int number)
{
    // not counted by the length
    constexpr uint64_t head = 8;
    ReplyWalk walk(&setup, head + uint64_t{setup.length} * 4);
    if (number < 0 || !walk.take<xcb_setup_t>() ||
        !walk.skip((uint64_t{setup.vendor_len} + 3) & ~uint64_t{3}) ||
        !walk.skip(uint64_t{setup.pixmap_formats_len} * sizeof(xcb_format_t)))
        return nullptr;
    const xcb_screen_t* wanted = nullptr;
    for (int index = 0; index < setup.roots_len; ++index) {
        const auto* screen = walk.take<xcb_screen_t>();
        if (!screen || !skip_depths(walk, *screen))
            return nullptr;
        if (index == number)
            wanted = screen;
    }
    return wanted;
}

/** The layout of a screen's pixels in memory, 32 bits each, little-endian. */
enum class PixelFormat {
    /** eight bits a colour: blue in the lowest, then green and red */
    bgrx8,
    /** ten bits a colour: blue in the lowest, then green and red */
    xrgb10,
    /** ten bits a colour: red in the lowest, then green and blue */
    xbgr10,
};

/**
 * The format of a screen of this server; nothing when its pixels lie otherwise, and cannot be
 * captured.
 */
std::optional<PixelFormat> pixel_format(const xcb_setup_t& server, const xcb_screen_t& screen);

/**
 * Why a screen without such a format cannot be captured and what to do, as the end of a sentence.
 */
std::string unknown_pixel_format(const xcb_setup_t& server, const xcb_screen_t& screen);

} // namespace common
