#include "capture/change_history.h"

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

} // namespace zu3host
