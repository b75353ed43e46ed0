#include "capture/cropped_source.h"

#include "base/host_log.h"

#include <utility>

namespace zu3host {

std::optional<BgraImage> CroppedSource::grab(const GrabRequest& request)
{
    auto image = whole_->grab(request);
    if (!image)
        return std::nullopt;
    const auto inside = common::overlap(region_, {0, 0, image->size});
    if (!inside) {
        note_outside(image->size);
        return nothing_there();
    }
    if (*inside != region_)
        note_clipped(*inside);
    const auto x = static_cast<uint32_t>(inside->x);
    const auto y = static_cast<uint32_t>(inside->y);
    changed_ = PartList(inside->size);
    for (const PictureRectangle& part : image->changed.parts) {
        const auto seen = common::overlap(
            {static_cast<int32_t>(part.x), static_cast<int32_t>(part.y), part.size}, *inside);
        if (seen)
            changed_.add({static_cast<uint32_t>(seen->x) - x, static_cast<uint32_t>(seen->y) - y,
                          seen->size});
    }
    image->pixels += size_t{image->stride} * y + size_t{4} * x;
    image->size = inside->size;
    const bool same_place = std::exchange(shown_, *inside) == *inside;
    image->changed = {same_place ? image->changed.since : 0, changed_.parts()};
    return image;
}

std::optional<BgraImage> CroppedSource::nothing_there()
{
    const PictureSize size = shown_.size;
    const size_t bytes = size_t{4} * size.width * size.height;
    if (bytes == 0)
        return std::nullopt;
    if (black_.size() != bytes) {
        black_.assign(bytes, 0);
        black_serial_ = next_image_serial();
    }
    return BgraImage{black_.data(), 4 * size.width, size, black_serial_};
}

void CroppedSource::note_outside(PictureSize image)
{
    if (!std::exchange(told_of_outside_, true))
        HOST_LOGW("The region %s lies outside of the screen, which has %ux%u pixels.",
                  common::region_text(region_).c_str(), image.width, image.height);
}

void CroppedSource::note_clipped(const common::ScreenRegion& inside)
{
    if (!std::exchange(told_of_clipped_, true))
        HOST_LOGW("The region %s reaches beyond the screen; only %s is captured.",
                  common::region_text(region_).c_str(), common::region_text(inside).c_str());
}

} // namespace zu3host
