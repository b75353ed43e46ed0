#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "android/log.h"
#include "middleware/state.h"
#include "srglworker/SrGlWorker.h"

using namespace middleware;

namespace {

std::atomic<int> objects_alive = 0;

/** "[SCREENRECORD_Open][123]text" without "[123]", which changes with every edit of the library. */
std::string without_line_number(const LogLine& line)
{
    const char letter = "??VDIWEFS"[std::clamp(line.priority, 0, 8)];
    std::string result = line.text;
    const size_t bracket = result.find("][");
    const size_t end = bracket == std::string::npos ? bracket : result.find(']', bracket + 1);
    if (result.starts_with('[') && end != std::string::npos)
        result.erase(bracket + 1, end - bracket);
    while (result.ends_with('\n'))
        result.pop_back();
    return std::string(1, letter) + " " + result;
}

} // namespace

namespace middleware {

std::vector<std::string> Middleware::logs() const
{
    const Lock lock(state().mutex);
    std::vector<std::string> result;
    for (const LogLine& line : state().log)
        result.push_back(without_line_number(line));
    return result;
}

std::vector<std::string> Middleware::take_logs()
{
    std::vector<std::string> result = logs();
    const Lock lock(state().mutex);
    state().log.clear();
    return result;
}

int renderer_objects_left()
{
    return objects_alive;
}

} // namespace middleware

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...)
{
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    return static_cast<int>(
        perform(false, "__android_log_print", "", text(priority, ", ", line), [&](Context&) {
            state().log.push_back({priority, tag, line});
            if (std::string_view(tag) != "screenrecord")
                problem(text("a log line has the tag ", tag));
            return 1;
        }));
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
        problem("a reference-counted object is destroyed while somebody refers to it");
    }
    delete mRefs;
    objects_alive--;
}

void RefBase::incStrong(const void*) const
{
    if (mRefs->strong.fetch_add(1) == 0)
        const_cast<RefBase*>(this)->onFirstRef();
}

void RefBase::decStrong(const void* id) const
{
    if (mRefs->strong.fetch_sub(1) != 1)
        return;
    const_cast<RefBase*>(this)->onLastStrongRef(id);
    delete this;
}

int32_t RefBase::getStrongCount() const
{
    return mRefs->strong;
}

void RefBase::onFirstRef() {}
void RefBase::onLastStrongRef(const void*) {}
bool RefBase::onIncStrongAttempted(uint32_t, const void*)
{
    return true;
}
void RefBase::onLastWeakRef(const void*) {}

} // namespace android
