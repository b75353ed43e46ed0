#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace client {

/** The part of a file name after its last point, in lower case; empty without one. */
std::string ending_of(const std::string& path);

/**
 * Why `command` ("record", ...) should not write a file of this name, as the end of a sentence that
 * begins with the name, with the way to the wanted format. Empty if it may; a name that indicates
 * no format is never wrong.
 *
 * @param fps frame rate of a stream: a raw one does not contain it
 */
std::string wrong_format(const std::string& command, const std::string& path, uint32_t fps);

/** The containers that the client writes itself. */
enum class Container { mp4, matroska, transport_stream };

/**
 * The container of an output by its ending, MP4 if it has no name yet; nullopt for a
 * transport-stream file, which the library records.
 * @param format of standard output: "ts"; any other text means Matroska
 */
std::optional<Container> container_of(const std::string& output, const std::string& format);

/** The user's videos folder with a slash at its end; "" = the current folder. */
std::string folder_for_videos();

/** A name by date and time, without an ending. */
std::string dated_name();

/**
 * A new name by date and time in the user's videos folder, or in the current folder without one.
 */
std::string new_movie_name();

} // namespace client
