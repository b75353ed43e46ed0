#pragma once

#include <optional>
#include <string>

namespace client {

/** What frames and sound are joined in by the client, not by the library. */
enum class Container { mp4, matroska, transport_stream };

/**
 * The container that an output is asked for in: by its ending, MP4 where it has no name yet.
 * Nothing for a transport-stream file, which the library records itself.
 * @param format what standard output gets: "ts", else Matroska
 */
std::optional<Container> container_of(const std::string& output, const std::string& format);

/** A new name by date and time in the user's folder for videos, else in the current folder. */
std::string new_movie_name();

} // namespace client
