#pragma once

#include "base/picture_layout.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <wayland-client.h>

namespace zu3host {

/** The layout that a compositor requests. */
struct CopyLayout {
    /** wl_shm_format */
    uint32_t format = 0;
    PictureSize size{};
    /** bytes per line */
    uint32_t stride = 0;
    bool operator==(const CopyLayout&) const = default;

    /** Whether sizes and stride are consistent and within limits. */
    bool is_possible() const;
    size_t bytes() const { return size_t{stride} * size.height; }
};

/** Memory that the compositor writes into, sealed so that no process can shrink it. */
class CopyBuffer {
public:
    /** Null if memory or descriptors run out. The layout must be possible. */
    static std::unique_ptr<CopyBuffer> make(wl_shm* shm, const CopyLayout& layout);
    ~CopyBuffer();
    CopyBuffer(const CopyBuffer&) = delete;
    CopyBuffer& operator=(const CopyBuffer&) = delete;

    wl_buffer* proxy() const { return proxy_; }
    const CopyLayout& layout() const { return layout_; }
    const uint8_t* pixels() const { return memory_; }

private:
    CopyBuffer(const CopyLayout& layout, uint8_t* memory) : layout_(layout), memory_(memory) {}

    const CopyLayout layout_;
    uint8_t* const memory_;
    wl_buffer* proxy_ = nullptr;
};

} // namespace zu3host
