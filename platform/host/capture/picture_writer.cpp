#include "capture/picture_writer.h"

#include <algorithm>

namespace zu3host {

void ChangeHistory::note(const BgraImage& image)
{
    const uint64_t last = count_ ? steps_[newest_].serial : 0;
    if (image.serial == last && image.size == size_)
        return;
    if (!image.changed.since || image.changed.since != last || image.size != size_)
        count_ = 0;
    size_ = image.size;
    newest_ = (newest_ + 1) % most;
    count_ = std::min(count_ + 1, most);
    steps_[newest_] = {image.serial, PartList(image.size)};
    steps_[newest_].changed.add(image.changed.parts);
}

void ChangeHistory::add_since(uint64_t serial, PartList& parts) const
{
    for (size_t steps = 0; steps < count_; ++steps) {
        const Step& step = step_back(steps);
        if (step.serial == serial)
            return;
        parts.add(step.changed.parts());
    }
    parts.add_all();
}

void PictureWriter::write(BgraImage image, PicturePool& pool, uint32_t index, PictureSize visible)
{
    image.size = without_odd_edge(image.size, visible);
    const PictureLayout layout = pool.layout();
    PicturePool::Contents& contents = pool.contents(index);
    uint8_t* const picture = pool.picture(index);
    const Placement placement = place_display(image.size, {layout.stride, layout.lines}, visible);
    const bool kept = contents.bordered_for == placement && !contents.drawn_on;
    PartList missed(image.size);
    history_.add_since(kept ? contents.serial : 0, missed);
    // none if an exception ends this early
    contents.serial = 0;
    if (!kept)
        blacken_border(placement, picture, layout);
    const PartList parts = scaled_parts(missed, placement.image);
    // Scales the whole, since scaling a part gives other pixels at its edges.
    const BgraImage placed = parts.empty() ? image : scaler_.scaled(image, placement.image);
    for (const PictureRectangle& part : parts.parts())
        write_nv12(placed, part, placement, picture, layout);
    contents.bordered_for = placement;
    contents.serial = image.serial;
    contents.drawn_on = false;
    note_changes(contents, image.size, layout);
}

void PictureWriter::note_changes(PicturePool::Contents& contents, PictureSize image,
                                 PictureLayout layout)
{
    const Placement& placement = *contents.bordered_for;
    if (placement != placed_)
        written_ = 0;
    placed_ = placement;
    PartList changed(image);
    history_.add_since(written_, changed);
    contents.since = written_;
    contents.changed = PartList({layout.stride, layout.lines});
    const PartList scaled = scaled_parts(changed, placement.image);
    for (const PictureRectangle& part : scaled.parts())
        contents.changed.add({placement.x + part.x, placement.y + part.y, part.size});
    written_ = contents.serial;
}

} // namespace zu3host
