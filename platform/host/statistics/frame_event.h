#pragma once

namespace zu3host {

/**
 * Makes zu3_host_frame_event readable; from any thread, and for nothing where nobody asked for the
 * event.
 */
void signal_frame();

} // namespace zu3host
