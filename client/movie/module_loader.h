#pragma once

#include "movie/movie_module.h"

namespace client::movie {

/**
 * The module that writes movies; the first call loads it, and it stays loaded. Throws Failure if
 * it, or a library below it, is not installed.
 */
const MovieModule& movie_module();

} // namespace client::movie
