#pragma once

#include "audio/sound_source.h"

#include <functional>
#include <span>

namespace zu3host {

/**
 * Adds `other` to `samples`. Up to three quarters of full scale a sum is exact; above, it bends
 * towards full scale and never gets there, so that two loud sounds do not crackle.
 */
void mix_into(std::span<int16_t> samples, std::span<const int16_t> other);

/** Opens one part of a mix; the timeline outlives it. */
using OpenPart = std::function<std::unique_ptr<SoundSource>(SharedTimeline&)>;

/**
 * Two sources as one: each fills its own timeline, which begins with `timeline` and keeps as much,
 * and both are mixed as far as both have got.
 */
std::unique_ptr<SoundSource> open_mix(const SoundTimeline& timeline, const OpenPart& open_first,
                                      const OpenPart& open_second);

} // namespace zu3host
