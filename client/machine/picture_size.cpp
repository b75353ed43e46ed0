#include "machine/picture_size.h"

#include <algorithm>

namespace client {
namespace {

uint32_t even(double value)
{
    return static_cast<uint32_t>(value) & ~1u;
}

} // namespace

std::string size_problem(Size size)
{
    if (size.width % 2 != 0 || size.height % 2 != 0)
        return "width and height must be even, because colour is kept for blocks of 2x2 pixels";
    if (size.width < smallest_size.width || size.height < smallest_size.height ||
        size.width > greatest_size.width || size.height > greatest_size.height)
        return "sizes go from 64x64 to 3840x2160";
    return {};
}

Size size_for_display(Size display)
{
    const double scale = std::min({1.0, double(greatest_size.width) / std::max(1u, display.width),
                                   double(greatest_size.height) / std::max(1u, display.height)});
    return {std::max(smallest_size.width, even(display.width * scale)),
            std::max(smallest_size.height, even(display.height * scale))};
}

} // namespace client
