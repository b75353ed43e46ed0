#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "android/log.h"
#include "middleware/contract_call.h"
#include "srglworker/SrGlWorker.h"

using namespace middleware;

namespace {

std::atomic<int> objects_alive = 0;

/** "[f][123](f 123)": a line that names its function twice must give the same number. */
void check_line_numbers(const std::string& line)
{
    const size_t bracket = line.find("][");
    if (!line.starts_with('[') || bracket == std::string::npos)
        return;
    const std::string name = line.substr(1, bracket - 1);
    const size_t again = line.find(name, bracket);
    if (again == std::string::npos)
        return;
    const size_t number = again + name.size() + 1;
    if (number < line.size() && std::isdigit(line[number]) &&
        std::atoi(&line[number]) != std::atoi(&line[bracket + 2]))
        problem("a log line gives two line numbers: " + line);
}

/** "[SCREENRECORD_Open][123]text" without "[123]", which changes with every edit of the library. */
std::string without_line_number(std::string line)
{
    const size_t bracket = line.find("][");
    const size_t end = bracket == std::string::npos ? bracket : line.find(']', bracket + 1);
    if (line.starts_with('[') && end != std::string::npos)
        line.erase(bracket + 1, end - bracket);
    while (line.ends_with('\n'))
        line.pop_back();
    return line;
}

} // namespace

int middleware::renderer_objects_left()
{
    return objects_alive;
}

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...)
{
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    return call(__func__, text(priority, ", ", line), [&](Context&) {
        const char letter = "??VDIWEFS"[std::clamp(priority, 0, 8)];
        check_line_numbers(line);
        state().log.push_back(std::string(1, letter) + " " + without_line_number(line));
        if (std::string_view(tag) != "screenrecord")
            problem(text("a log line has the tag ", tag));
        return 1;
    });
}

namespace android {

class RefBase::weakref_type {
public:
    std::atomic<int32_t> strong = 0;
};

RefBase::RefBase() : mRefs(new weakref_type)
{
    objects_alive++;
}

RefBase::~RefBase()
{
    if (mRefs->strong != 0) {
        const Lock lock(state().mutex);
        problem("a reference-counted object is destroyed while it is referred to");
    }
    delete mRefs;
    objects_alive--;
}

void RefBase::incStrong(const void*) const
{
    mRefs->strong++;
}

void RefBase::decStrong(const void*) const
{
    if (--mRefs->strong == 0)
        delete this;
}

void RefBase::onFirstRef() {}
void RefBase::onLastStrongRef(const void*) {}
bool RefBase::onIncStrongAttempted(uint32_t, const void*)
{
    return true;
}
void RefBase::onLastWeakRef(const void*) {}

} // namespace android
