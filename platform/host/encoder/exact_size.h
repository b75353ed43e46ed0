#pragma once

#include "encoder/open_encoders.h"

namespace zu3host {

/**
 * The size of the stream of an encoder that is being opened with `opened`: what
 * zu3_host_exact_size() asked for, which is used up, where that has the same layout, else `opened`
 * itself.
 */
PictureSize take_exact_size(PictureSize opened);

} // namespace zu3host
