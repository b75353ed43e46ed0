#include "capture/source_choice.h"

#include "base/host_log.h"
#include "capture/patient_source.h"
#include "capture/x11_source.h"

#include <cstdlib>
#include <string>
#include <string_view>

namespace zu3host {

namespace {

std::unique_ptr<PictureSource> open_x11()
{
    const char* display = secure_getenv("DISPLAY");
    return PatientSource::open(std::string("The X display DISPLAY=\"") + (display ? display : "") +
                                   "\"",
                               [] { return X11Source::open(); });
}

} // namespace

std::unique_ptr<PictureSource> open_picture_source()
{
    const char* choice = secure_getenv("ZU3_DISPLAY");
    const std::string_view name = choice ? choice : "";
    if (name == "testcard")
        return open_test_card();
    if (name == "x11" || name.empty())
        // no test card in place of a screen that is missing: it would pass for one
        return open_x11();
    HOST_LOGE(
        "ZU3_DISPLAY=\"%s\" is not known: it can be \"x11\" (the screen that DISPLAY names) or \"testcard\".",
        choice);
    return nullptr;
}

} // namespace zu3host
