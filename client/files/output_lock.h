#pragma once

#include <string>

namespace client {

/** The name of the process that writes a status file. */
inline constexpr const char* status_writer_name = "status writer";

/**
 * Locks an output until its descriptor is closed, so that no second screenrecord writes to it
 * meanwhile; throws Failure, which names the process, if one does. A file system without locks does
 * not keep anybody from recording.
 */
void lock_output(int fd, const std::string& path);

} // namespace client
