#pragma once

#include "audio/sound_source.h"

#include <functional>
#include <span>

namespace zu3host {

/**
 * Adds `other` to `samples`. A sum up to three quarters of full scale is exact; a greater one is
 * compressed and stays below full scale, so two loud sounds do not clip.
 */
void mix_into(std::span<int16_t> samples, std::span<const int16_t> other);

/** Opens one part of a mix; the timeline outlives it. */
using OpenPart = std::function<std::unique_ptr<SoundSource>(SharedTimeline&)>;

/**
 * Mixes two sources. Each fills a separate timeline of the same start and length as `timeline`,
 * which gets the mix as far as both have sound.
 */
std::unique_ptr<SoundSource> open_mix(const SoundTimeline& timeline, const OpenPart& open_first,
                                      const OpenPart& open_second);

} // namespace zu3host
