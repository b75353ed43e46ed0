#pragma once

#include <string>

namespace client {

/**
 * Shows a desktop notification by the program gdbus, if that is installed and a notification
 * service answers. Waits for it at most a second.
 */
void notify_desktop(const std::string& title, const std::string& text);

} // namespace client
