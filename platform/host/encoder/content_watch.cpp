#include "encoder/content_watch.h"

#include "encoder/picture_look.h"

#include <algorithm>
#include <utility>

namespace zu3host {
namespace {

// Shares of macroblocks that were not skipped. A terminal or page that scrolls has up to 0.25, a
// slow pan and a game from 0.31, film more (docs/measurements/content.md).
constexpr double least_of_film = 0.28;
constexpr double most_of_screens = 0.15;

// Length of the mean, in pictures: short on a screen, to recognize a film after half as many; long
// in a film, which has quiet moments.
constexpr double pictures_of_screens = 8;
constexpr double pictures_of_film = 64;

// Pictures whose content is not found in the one before. A screen has one when its page changes.
constexpr uint32_t jumps_of_film = 2;

// Share of a picture that changes with its scene. A film with black bars changes in three quarters.
constexpr double least_new = 0.5;

} // namespace

void ContentWatch::note(MacroblockCounts counts)
{
    unchanged_ = 0;
    const double busy = static_cast<double>(counts.intra) + counts.inter;
    const double all = busy + counts.skipped;
    ++noted_;
    // a film at the start of a recording is recognized as soon as two of its pictures are compared
    const double pictures =
        content_ == Content::film ? pictures_of_film : std::min(noted_, pictures_of_screens);
    if (all > 0)
        busy_ += (busy / all - busy_) / pictures;
}

void ContentWatch::note_unchanged()
{
    if (++unchanged_ >= frame_rate_)
        busy_ = 0;
}

Content ContentWatch::content(bool key_due, const uint8_t* luma, ChangedRectangles changed)
{
    if (content_ == Content::screens)
        look_for_film(luma, changed);
    else if (key_due)
        look_for_screens(luma);
    return content_;
}

void ContentWatch::look_for_film(const uint8_t* luma, ChangedRectangles changed)
{
    by_look_ = trusts_looks_ && starts_to_look_like_film(luma, changed);
    if (by_look_)
        // the pictures up to the next key frame decide
        busy_ = most_of_screens;
    else if (!is_film(luma))
        return;
    content_ = Content::film;
}

// Only one photograph adds a key frame, and settings do not alternate while photographs are shown.
void ContentWatch::look_for_screens(const uint8_t* luma)
{
    if (busy_ < most_of_screens) {
        content_ = Content::screens;
        trusts_looks_ = !by_look_;
        looked_like_film_ = looks_like_film(luma, layout_);
    }
    by_look_ = false;
}

// Everything may count as changed without being so. A film that pauses is not believed again.
bool ContentWatch::starts_to_look_like_film(const uint8_t* luma, ChangedRectangles changed)
{
    if (!is_new(changed))
        return false;
    const bool looked_like_film = std::exchange(looked_like_film_, looks_like_film(luma, layout_));
    return looked_like_film_ && !looked_like_film;
}

bool ContentWatch::is_new(ChangedRectangles changed) const
{
    if (!changed)
        return true;
    double pixels = 0;
    for (const PictureRectangle& part : *changed)
        pixels += static_cast<double>(part.size.width) * part.size.height;
    return pixels >= least_new * static_cast<double>(layout_.luma_bytes());
}

bool ContentWatch::is_film(const uint8_t* luma)
{
    if (busy_ <= least_of_film) {
        motion_.forget();
        jumps_ = 0;
        return false;
    }
    const PixelMotion::Finding finding =
        motion_.remembers() ? motion_.compare(luma) : PixelMotion::Finding::nothing;
    if (finding == PixelMotion::Finding::whole_pixels) {
        // compared again after as many busy pictures
        busy_ = 0;
        return false;
    }
    if (finding == PixelMotion::Finding::other)
        ++jumps_;
    motion_.remember(luma);
    return jumps_ == jumps_of_film;
}

} // namespace zu3host
