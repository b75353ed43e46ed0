#pragma once

#include "capture/picture_source.h"
#include "capture/portal/stream_frame.h"
#include "capture/portal/stream_memory.h"

#include <cstdint>
#include <span>
#include <vector>

namespace zu3host {

/**
 * The screen's picture, composed from the buffers of a stream and the pointer. Copies and converts
 * only changed parts. One thread at a time.
 *
 * To update it, call take() if there is a new buffer, then point(), then image().
 */
class ScreenCanvas {
public:
    using NextSerial = uint64_t (*)();
    explicit ScreenCanvas(NextSerial next_serial) : next_serial_(next_serial) {}

    /**
     * Copies the picture of a buffer.
     * @param damage the parts of the buffer's picture that changed; empty = all of it
     * @return false, without a change, if the memory cannot be read
     */
    bool take(StreamMemory& memory, const FrameLayout& layout, const StreamFormat& format,
              std::span<const PictureRectangle> damage);
    /** Draws the pointer, or removes it if `cursor` is null or invisible. */
    void point(const Cursor* cursor);
    /** Whether there is a picture: take() has succeeded once. */
    bool has_picture() const { return !pixels_.empty(); }
    /** The picture, until the next update; only with has_picture(). */
    BgraImage image();

private:
    struct Pointer {
        // Cursor::changes of the drawn pointer; 0 = none is drawn
        uint64_t key = 0;
        PictureRectangle at{};
        std::vector<uint8_t> under{};
        // whether the canvas shows the pixels below it instead
        bool lifted = true;
    };

    uint32_t stride() const { return size_.width * 4; }
    uint8_t* pixel(uint32_t x, uint32_t y)
    {
        return pixels_.data() + size_t{stride()} * y + size_t{4} * x;
    }
    bool take_all(StreamMemory& memory, const FrameLayout& layout, PixelOrder order);
    bool take_parts(StreamMemory& memory, const FrameLayout& layout, PixelOrder order,
                    std::span<const PictureRectangle> damage);
    void fit(const FrameLayout& layout);
    void put_turned(const uint8_t* upright, uint32_t from_stride, const FrameLayout& layout,
                    PixelOrder order);
    void draw(const Cursor& cursor);
    void lift();
    void note_change(const PictureRectangle& part);

    const NextSerial next_serial_;
    PictureSize size_{};
    std::vector<uint8_t> pixels_;
    std::vector<uint8_t> turning_;
    std::vector<uint8_t> mirroring_;
    FrameLayout layout_{};
    Pointer pointer_;
    // since the last image()
    bool all_news_ = false;
    std::vector<PictureRectangle> news_;
    uint64_t serial_ = 0;
    // of that serial
    uint64_t since_ = 0;
    std::vector<PictureRectangle> changed_;
};

} // namespace zu3host
