#pragma once

#include <cstdint>
#include <string>

namespace client {

/** What stands behind the last point of a file's name, in small letters; empty without one. */
std::string ending_of(const std::string& path);

/**
 * Why `command` ("record", ...) is not to write a file of this name, as the end of a sentence that
 * begins with the name, together with the way to what the name asks for; empty when it may. Names
 * that tell of no format say nothing wrong.
 *
 * @param fps pictures per second of a stream, which a raw one does not say
 */
std::string wrong_format(const std::string& command, const std::string& path, uint32_t fps);

} // namespace client
