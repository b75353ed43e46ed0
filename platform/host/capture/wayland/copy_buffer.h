#pragma once

#include "base/picture_layout.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <wayland-client.h>

namespace zu3host {

/** The layout that a compositor asks for. */
struct CopyLayout {
    /** wl_shm_format */
    uint32_t format = 0;
    PictureSize size{};
    /** bytes per line */
    uint32_t stride = 0;
    bool operator==(const CopyLayout&) const = default;

    /** Whether it can be one: sizes and stride fit each other and no limit is exceeded. */
    bool is_possible() const;
    size_t bytes() const { return size_t{stride} * size.height; }
};

/** Memory that the compositor writes into. It is sealed: no process can shrink it. */
class CopyBuffer {
public:
    /** Null without memory or descriptors. The layout must be possible. */
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
