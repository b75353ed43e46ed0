#pragma once

#include <string>

namespace client {

/**
 * Shows a desktop notification with the program gdbus, if it is installed and a notification
 * service answers. Waits at most a second.
 */
void notify_desktop(const std::string& title, const std::string& text);

} // namespace client
