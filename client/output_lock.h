#pragma once

#include <string>

namespace client {

/**
 * Locks an output until its descriptor is closed, so that no second screenrecord writes to it
 * meanwhile; throws Failure, which names the process, if one does. A file system without locks does
 * not keep anybody from recording.
 */
void lock_output(int fd, const std::string& path);

} // namespace client
