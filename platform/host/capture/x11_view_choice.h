#pragma once

#include "capture/x11_view.h"

#include <common/screen_part.h>
#include <memory>

namespace zu3host {

/** Null, with a log line, if the display has no such part. */
std::unique_ptr<X11View> open_x11_view(X11Connection& connection, const common::ScreenPart& part);

} // namespace zu3host
