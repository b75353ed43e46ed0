#pragma once

#include <cstdint>
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

} // namespace client
