#pragma once

#include "movie/movie_module.h"

namespace client::movie {

/** See MovieModule::copy(). */
void copy_movie(const CopyJob& job);

} // namespace client::movie
