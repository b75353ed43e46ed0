#include "capture/picture_source.h"

#include "capture/test_card.h"
#include "capture/x11_source.h"
#include "log/host_log.h"

#include <cstdlib>
#include <string_view>

namespace zu3host {

std::unique_ptr<PictureSource> open_picture_source()
{
    const char* choice = std::getenv("ZU3_DISPLAY");
    const std::string_view name = choice ? choice : "";
    if (name == "testcard")
        return std::make_unique<TestCard>();
    if (name == "x11" || name.empty())
        return X11Source::open(); // no test card in place of a screen that is missing: it would pass for one
    HOST_LOGE(
        "ZU3_DISPLAY=\"%s\" is not known: it can be \"x11\" (the screen that DISPLAY names) or \"testcard\".",
        choice);
    return nullptr;
}

} // namespace zu3host
