#pragma once

#include "capture/part_list.h"
#include "capture/picture_source.h"

#include <common/screen_part.h>
#include <memory>
#include <vector>

namespace zu3host {

/**
 * A region of another source's image. The other source fetches the whole; only the region is
 * converted and encoded. One thread at a time.
 */
class CroppedSource : public PictureSource {
public:
    CroppedSource(std::unique_ptr<PictureSource> whole, const common::ScreenRegion& region)
        : whole_(std::move(whole)), region_(region)
    {
    }

    /**
     * With a line in the log once, black while the region lies outside of the image: a recording's
     * time and sound go on. Nullopt if it was never inside.
     */
    std::optional<BgraImage> grab(const GrabRequest& request) override;
    bool awaits_changes() const override { return whole_->awaits_changes(); }

private:
    std::optional<BgraImage> nothing_there();
    void note_outside(PictureSize image);
    void note_clipped(const common::ScreenRegion& inside);

    const std::unique_ptr<PictureSource> whole_;
    const common::ScreenRegion region_;
    PartList changed_;
    // of the last image, within the other source's
    common::ScreenRegion shown_{};
    std::vector<uint8_t> black_;
    uint64_t black_serial_ = 0;
    bool told_of_outside_ = false;
    bool told_of_clipped_ = false;
};

} // namespace zu3host
