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

/** Order of the four bytes of a pixel; the byte x or A is ignored. */
enum class PixelOrder : uint8_t { blue_first, red_first };

/** The order of a format of SPA; nullopt for all but BGRx, BGRA, RGBx and RGBA. */
std::optional<PixelOrder> pixel_order(uint32_t spa_format);

/** The negotiated format of a stream. */
struct StreamFormat {
    PixelOrder order;
    PictureSize size;
};

/** Whether a picture can have this size: at most 32767 pixels per side and 1 GiB. */
bool is_possible_screen(PictureSize size);

/** The transform of a buffer's pixels, numbered like spa_meta_videotransform_value. */
struct Turn {
    /** first mirrored left to right ... */
    bool mirrored = false;
    /** ... then rotated counterclockwise by this many quarters, 0 to 3 */
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
    /** the visible part; not empty */
    PictureRectangle shown;
    /** to be undone before display */
    Turn turn;
    bool operator==(const FrameLayout&) const;
};

/**
 * The picture of a buffer whose memory has `memory_size` bytes. Nullopt if the buffer has none, for
 * example if only the pointer moved, or if the picture exceeds the memory.
 */
std::optional<FrameLayout> frame_layout(const spa_buffer& buffer, const StreamFormat& format,
                                        uint64_t memory_size);

/**
 * Appends the parts of the buffer that changed since the previous buffer, clipped to its picture.
 * @return false if the buffer has no such list, so all of it may have changed
 */
bool append_damage(const spa_buffer& buffer, const StreamFormat& format,
                   std::vector<PictureRectangle>& parts);

/** A pointer's image. */
struct CursorImage {
    /** empty = invisible */
    PictureSize size{};
    /** the hot spot */
    int32_t hot_x = 0;
    int32_t hot_y = 0;
    /** BGRA, multiplied by alpha */
    std::vector<uint8_t> pixels{};
};

/** The pointer of a stream, according to its buffers so far. */
struct Cursor {
    bool visible = false;
    /** pixels of the buffer, from its top left; may lie outside */
    int32_t x = 0;
    int32_t y = 0;
    CursorImage image{};
    /** counts up with each change */
    uint64_t changes = 0;
};

/** Updates the pointer from a buffer. Missing or invalid metadata change nothing. */
void take_cursor(const spa_buffer& buffer, Cursor& cursor);

/** Most bytes of the metadata of a pointer with an image of that size. */
uint32_t cursor_metadata_bytes(uint32_t width, uint32_t height);
inline constexpr uint32_t greatest_cursor = 512;

} // namespace zu3host
