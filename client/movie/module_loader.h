#pragma once

#include "movie/movie_module.h"

namespace client::movie {

/**
 * The module that writes movies, which is loaded by the first call and stays. Throws Failure when
 * it, or what it is built on, is not installed.
 */
const MovieModule& movie_module();

} // namespace client::movie
