#pragma once

#include "base/picture_layout.h"
#include "capture/picture_source.h"

#include <cstdint>
#include <optional>
#include <spa/buffer/buffer.h>
#include <vector>

namespace zu3host {

/**
 * Readers of a PipeWire buffer's description: its picture, damage and pointer. Another process
 * writes it and may change it at any time, so each record is copied, then checked, then used.
 */

/** Order of the four bytes of a pixel; a fourth beside the colours is ignored. */
enum class PixelOrder : uint8_t { blue_first, red_first };

/** The order of a format of SPA; nullopt for all but BGRx, BGRA, RGBx and RGBA. */
std::optional<PixelOrder> pixel_order(uint32_t spa_format);

/** The format of a stream, as it was negotiated. */
struct StreamFormat {
    PixelOrder order;
    PictureSize size;
};

/** Whether a picture has such a size: at most 32767 pixels a side and 1 GiB in all. */
bool is_possible_screen(PictureSize size);

/** How the pixels of a buffer were turned, in the order of spa_meta_videotransform_value. */
struct Turn {
    /** first mirrored left to right ... */
    bool mirrored = false;
    /** ... then turned counterclockwise by so many quarters, 0 to 3 */
    uint32_t quarters = 0;
    bool operator==(const Turn&) const = default;
    bool identity() const { return !mirrored && quarters == 0; }
};

/** A picture within a buffer. */
struct FrameLayout {
    /** of its first line, bytes from the start of the buffer's memory */
    uint64_t offset;
    /** bytes per line, at least 4 per pixel */
    uint32_t stride;
    /** the part that is to be shown; not empty */
    PictureRectangle shown;
    /** before it is shown, this is undone */
    Turn turn;
    bool operator==(const FrameLayout&) const;
};

/**
 * The picture of a buffer whose memory is `memory_size` bytes; nullopt if it has none, as if only
 * the pointer moved, or if the picture does not lie within the memory.
 */
std::optional<FrameLayout> frame_layout(const spa_buffer& buffer, const StreamFormat& format,
                                        uint64_t memory_size);

/**
 * Appends the parts of the buffer that changed since the buffer before it, within its picture.
 * @return false if the buffer does not tell: all of it may have changed
 */
bool append_damage(const spa_buffer& buffer, const StreamFormat& format,
                   std::vector<PictureRectangle>& parts);

/** A pointer's look. */
struct CursorImage {
    /** empty: there is nothing to see */
    PictureSize size{};
    /** the point in it that the pointer points to */
    int32_t hot_x = 0;
    int32_t hot_y = 0;
    /** BGRA, multiplied by alpha */
    std::vector<uint8_t> pixels{};
};

/** The pointer of a stream, as its buffers told so far. */
struct Cursor {
    bool visible = false;
    /** pixels of the buffer, from its top left; may lie outside */
    int32_t x = 0;
    int32_t y = 0;
    CursorImage image{};
    /** counts up with each change */
    uint64_t changes = 0;
};

/** Updates the pointer from a buffer. Without metadata, or with impossible ones, it stays. */
void take_cursor(const spa_buffer& buffer, Cursor& cursor);

/** Bytes of the metadata of a pointer whose image has at most that size. */
uint32_t cursor_metadata_bytes(uint32_t width, uint32_t height);
inline constexpr uint32_t greatest_cursor = 512;

} // namespace zu3host
