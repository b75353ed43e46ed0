#include "common/x11_screen.h"

namespace common {
namespace {

const xcb_visualtype_t* root_visual(const xcb_screen_t& screen)
{
    for (auto depths = xcb_screen_allowed_depths_iterator(&screen); depths.rem;
         xcb_depth_next(&depths))
        for (auto visuals = xcb_depth_visuals_iterator(depths.data); visuals.rem;
             xcb_visualtype_next(&visuals))
            if (visuals.data->visual_id == screen.root_visual)
                return visuals.data;
    return nullptr;
}

uint32_t bits_per_pixel(const xcb_setup_t& server, const xcb_screen_t& screen)
{
    auto formats = xcb_setup_pixmap_formats_iterator(&server);
    for (; formats.rem; xcb_format_next(&formats))
        if (formats.data->depth == screen.root_depth)
            return formats.data->bits_per_pixel;
    return 0;
}

bool lowest_byte_first(const xcb_setup_t& server)
{
    return server.image_byte_order == XCB_IMAGE_ORDER_LSB_FIRST;
}

} // namespace

std::optional<PixelFormat> pixel_format(const xcb_setup_t& server, const xcb_screen_t& screen)
{
    struct Layout {
        PixelFormat format;
        uint32_t red, green, blue;
    };
    static constexpr Layout layouts[] = {
        {PixelFormat::bgrx8, 0xFF0000, 0xFF00, 0xFF},
        {PixelFormat::xrgb10, 0x3FF00000, 0xFFC00, 0x3FF},
        {PixelFormat::xbgr10, 0x3FF, 0xFFC00, 0x3FF00000},
    };
    const xcb_visualtype_t* visual = root_visual(screen);
    if (!visual || bits_per_pixel(server, screen) != 32 || !lowest_byte_first(server))
        return std::nullopt;
    for (const Layout& layout : layouts)
        if (visual->red_mask == layout.red && visual->green_mask == layout.green &&
            visual->blue_mask == layout.blue)
            return layout.format;
    return std::nullopt;
}

std::string unknown_pixel_format(const xcb_setup_t& server, const xcb_screen_t& screen)
{
    return "it has " + std::to_string(bits_per_pixel(server, screen)) + " bits a pixel at depth " +
           std::to_string(screen.root_depth) + (lowest_byte_first(server) ? "" : ", big-endian") +
           "; run it at depth 24 or 30, with 8 or 10 bits each of red, green and blue in a pixel of 32";
}

} // namespace common
