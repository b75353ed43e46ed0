#pragma once

#include <optional>
#include <string>

namespace client {

/** The containers that the client writes itself. */
enum class Container { mp4, matroska, transport_stream };

/**
 * The container of an output by its ending, MP4 if it has no name yet; nullopt for a
 * transport-stream file, which the library records.
 * @param format of standard output: "ts"; anything else means Matroska
 */
std::optional<Container> container_of(const std::string& output, const std::string& format);

/**
 * A new name by date and time in the user's videos folder, or in the current folder without one.
 */
std::string new_movie_name();

} // namespace client
