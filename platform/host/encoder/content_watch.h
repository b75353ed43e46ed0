#pragma once

#include "encoder/pixel_motion.h"
#include "encoder/unchanged_macroblocks.h"

#include <cstdint>

namespace zu3host {

/** The kinds of content with separate x264 settings. */
enum class Content { screens, film };

/** How x264 encoded the macroblocks of a picture. */
struct MacroblockCounts {
    uint32_t intra = 0;
    uint32_t inter = 0;
    uint32_t skipped = 0;
};

/**
 * Distinguishes screens from films, games and other content that changes everywhere. On a screen,
 * text and windows stand still or move by whole pixels, so x264 skips most macroblocks even while a
 * page scrolls; in a film it cannot. In a scrolling region or window it skips few as well, but the
 * previous picture has the same content in another place. A new picture that looks like a film
 * counts as one up to the next key frame. Not thread-safe.
 */
class ContentWatch {
public:
    ContentWatch(uint32_t frame_rate, PictureLayout layout)
        : frame_rate_(frame_rate), layout_(layout), motion_(layout)
    {
    }

    /** Notes a picture that x264 predicted from the last one. */
    void note(MacroblockCounts counts);
    /** Notes a picture equal to the last one. Films have them too: 24 per second shown as 60. */
    void note_unchanged();
    /**
     * The content for the next picture. It changes to film at any picture, but back only when a key
     * frame is due, so that quiet moments of a film add no key frames.
     * @param luma of that picture, in the layout
     * @param changed since the picture before
     */
    Content content(bool key_due, const uint8_t* luma, ChangedRectangles changed);

private:
    void look_for_film(const uint8_t* luma, ChangedRectangles changed);
    void look_for_screens(const uint8_t* luma);
    bool starts_to_look_like_film(const uint8_t* luma, ChangedRectangles changed);
    bool is_new(ChangedRectangles changed) const;
    bool is_film(const uint8_t* luma);

    const uint32_t frame_rate_;
    const PictureLayout layout_;
    // once x264 has skipped few macroblocks, remembers the first of two pictures to compare
    PixelMotion motion_;
    // pictures whose content was not found in the one before
    uint32_t jumps_ = 0;
    Content content_ = Content::screens;
    // a picture looked like a film, and no key frame has been due since
    bool by_look_ = false;
    // false once a picture looked like a film and was a photograph that stood still, for example
    bool trusts_looks_ = true;
    // of the last new picture
    bool looked_like_film_ = false;
    // share of macroblocks that were not skipped, over the last pictures
    double busy_ = 0;
    // pictures in that share since the first one
    double noted_ = 0;
    uint32_t unchanged_ = 0;
};

} // namespace zu3host
