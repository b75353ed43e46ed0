#include "utils/private_module.h"

#include <dlfcn.h>
#include <filesystem>

namespace zu3host {

namespace {

/** The folder that this code was loaded from; empty if the system does not tell. */
std::filesystem::path own_folder()
{
    static const char here = 0;
    Dl_info found{};
    if (dladdr(&here, &found) == 0 || !found.dli_fname)
        return {};
    std::error_code error;
    return std::filesystem::canonical(found.dli_fname, error).parent_path();
}

} // namespace

PrivateModule::PrivateModule(const char* file, const char* entry_name)
{
    // Beside libzu3.so; a program that contains the host layer lies in bin/ beside lib/.
    for (const char* folder : {".", "../lib"}) {
        const auto path = own_folder() / folder / file;
        // Lazily: libavcodec and its eighty libraries have 25,000 relocations.
        void* const handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL);
        entry = handle ? dlsym(handle, entry_name) : nullptr;
        if (entry) {
            failure.clear();
            return;
        }
        // A module that is there says what it lacks; another place cannot know better.
        const char* const why = dlerror();
        std::error_code error;
        if (failure.empty() || std::filesystem::exists(path, error))
            failure = why ? why : "it has no entry";
    }
}

} // namespace zu3host
