#pragma once

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
 * page scrolls; in a film it cannot. Not thread-safe.
 */
class ContentWatch {
public:
    explicit ContentWatch(uint32_t frame_rate) : frame_rate_(frame_rate) {}

    /** Notes a picture that x264 predicted from the last one. */
    void note(MacroblockCounts counts);
    /** Notes a picture equal to the last one. Films have them too: 24 per second shown as 60. */
    void note_unchanged();
    /**
     * The content for the next picture. It changes to film at any picture, but back only when a key
     * frame is due, so that quiet moments of a film add no key frames.
     */
    Content content(bool key_due);

private:
    const uint32_t frame_rate_;
    Content content_ = Content::screens;
    // share of macroblocks that were not skipped, over the last pictures
    double busy_ = 0;
    uint32_t unchanged_ = 0;
};

} // namespace zu3host
