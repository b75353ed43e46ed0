#include "capture/still_picture.h"

#include "base/host_log.h"
#include "base/picture_layout.h"
#include "capture/image_placement.h"
#include "memory/device_memory.h"
#include "memory/memory_register.h"

#include <algorithm>
#include <cstring>
#include <libyuv/convert_from_argb.h>
#include <utility>
#include <vector>

namespace zu3host {

namespace {

/** Bytes per pixel of a one-plane format, 0 for any other. */
uint32_t packed_bytes(uint32_t format)
{
    switch (format) {
    case E_ZU_CAP_FORMAT_YUYV:
    case E_ZU_CAP_FORMAT_RGB565:
        return 2;
    case E_ZU_CAP_FORMAT_BGRA:
        return 4;
    default:
        return 0;
    }
}

/** An image of exactly the target's size; a scaled one lies in `kept`. */
BgraImage composed(BgraImage image, PictureSize size, std::vector<uint8_t>& kept)
{
    image.size = without_odd_edge(image.size, size);
    if (image.size == size)
        return image;
    const Placement placement = fit_into(image.size, size);
    BgraScaler scaler;
    const BgraImage scaled = scaler.scaled(image, placement.image);
    const uint32_t stride = size.width * 4;
    kept.assign(size_t{stride} * size.height, 0);
    // An image of even size is one wider or higher than a box of odd size.
    const size_t columns = std::min(scaled.size.width, size.width - placement.x);
    const uint32_t lines = std::min(scaled.size.height, size.height - placement.y);
    for (uint32_t line = 0; line < lines; ++line)
        std::memcpy(kept.data() + size_t{stride} * (placement.y + line) + size_t{4} * placement.x,
                    scaled.pixels + size_t{scaled.stride} * line, columns * 4);
    return {kept.data(), stride, size, image.serial};
}

void write_bgra(const BgraImage& image, const StillTarget& target)
{
    for (uint32_t line = 0; line < image.size.height; ++line) {
        const uint8_t* from = image.pixels + size_t{image.stride} * line;
        uint8_t* to = target.memory + size_t{target.pitch} * line;
        for (uint32_t column = 0; column < image.size.width; ++column) {
            uint32_t pixel;
            std::memcpy(&pixel, from + size_t{4} * column, 4);
            // the server leaves the fourth byte undefined
            pixel |= 0xFF000000;
            std::memcpy(to + size_t{4} * column, &pixel, 4);
        }
    }
}

void write_yuyv(const BgraImage& image, const StillTarget& target)
{
    const int width = static_cast<int>(image.size.width);
    // Pixels come in pairs: the last of an odd width would reach two bytes past its line.
    std::vector<uint8_t> line((size_t{image.size.width} + 1) / 2 * 4);
    for (uint32_t y = 0; y < image.size.height; ++y) {
        libyuv::ARGBToYUY2(image.pixels + size_t{image.stride} * y, static_cast<int>(image.stride),
                           line.data(), static_cast<int>(line.size()), width, 1);
        std::memcpy(target.memory + size_t{target.pitch} * y, line.data(),
                    size_t{2} * image.size.width);
    }
}

void write_still_nv12(const BgraImage& image, const StillTarget& target)
{
    const size_t width = image.size.width;
    const size_t chroma_stride = (width + 1) & ~size_t{1};
    const size_t chroma_lines = (size_t{image.size.height} + 1) / 2;
    std::vector<uint8_t> chroma(chroma_stride * chroma_lines);
    libyuv::ARGBToNV12(image.pixels, static_cast<int>(image.stride), target.memory,
                       static_cast<int>(width), chroma.data(), static_cast<int>(chroma_stride),
                       static_cast<int>(width), static_cast<int>(image.size.height));
    size_t offset = width * image.size.height;
    for (size_t line = 0; line < chroma_lines && offset < target.capacity; ++line, offset += width)
        std::memcpy(target.memory + offset, chroma.data() + chroma_stride * line,
                    std::min(width, target.capacity - offset));
}

/** A pitch of 0 becomes the format's own; false, with a log line, if it cannot be written. */
bool check_still(StillTarget& target)
{
    const uint32_t pixel_bytes = packed_bytes(target.format);
    const bool planar = target.format == E_ZU_CAP_FORMAT_NV12;
    const PictureSize size = target.size;
    if ((!pixel_bytes && !planar) || !size.width || !size.height ||
        size.width > max_picture_width || size.height > max_picture_height) {
        HOST_LOGE(
            "A single capture cannot be %u x %u pixels of format %u: at most %u x %u of format 0, 1, 2 or 5.",
            size.width, size.height, target.format, max_picture_width, max_picture_height);
        return false;
    }
    const uint32_t line_bytes = planar ? size.width * 3 / 2 : size.width * pixel_bytes;
    if (planar || !target.pitch)
        target.pitch = line_bytes;
    const uint64_t needed = uint64_t{target.pitch} * size.height;
    if (target.pitch >= line_bytes && needed <= target.capacity)
        return true;
    HOST_LOGE(
        "A single capture of %u x %u pixels does not fit: lines of %u bytes need at least %u, the whole %llu, and the buffer has %zu.",
        size.width, size.height, target.pitch, line_bytes, static_cast<unsigned long long>(needed),
        target.capacity);
    return false;
}

} // namespace

std::optional<StillTarget> still_target(const ZU_CAP_Output_t& output)
{
    const auto block = block_of_phys(output.u64PhyAddr);
    auto memory = block ? hold_memory(block->virt) : nullptr;
    if (!memory) {
        HOST_LOGE(
            "A single capture is to write to physical address 0x%llx, which is not in the device's memory.",
            static_cast<unsigned long long>(output.u64PhyAddr));
        return std::nullopt;
    }
    const uint64_t offset = output.u64PhyAddr - block->phys;
    StillTarget target{
        block->virt + offset, std::min<uint64_t>(output.u32OutSize, block->size - offset),
        output.eOutFormat,    {output.u32OutWidth, output.u32OutHeight},
        output.u32Pitch,      std::move(memory)};
    return check_still(target) ? std::optional(std::move(target)) : std::nullopt;
}

void write_still(const BgraImage& image, const StillTarget& target)
{
    std::vector<uint8_t> kept;
    const BgraImage exact = composed(image, target.size, kept);
    switch (target.format) {
    case E_ZU_CAP_FORMAT_YUYV:
        return write_yuyv(exact, target);
    case E_ZU_CAP_FORMAT_RGB565:
        libyuv::ARGBToRGB565(exact.pixels, static_cast<int>(exact.stride), target.memory,
                             static_cast<int>(target.pitch), static_cast<int>(exact.size.width),
                             static_cast<int>(exact.size.height));
        return;
    case E_ZU_CAP_FORMAT_BGRA:
        return write_bgra(exact, target);
    default:
        return write_still_nv12(exact, target);
    }
}

} // namespace zu3host
