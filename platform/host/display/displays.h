#pragma once

#include <cstdint>

namespace zu3host {

/**
 * The one display of this platform, "ZU_DISP_HD0": the X11 screen or what ZU3_DISPLAY puts in its
 * place.
 */
inline constexpr uint32_t main_display = 0xD1500000;

} // namespace zu3host
