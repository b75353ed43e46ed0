#include "utils/private_module.h"

#include <dlfcn.h>
#include <filesystem>

namespace zu3host {

namespace {

/** The folder that this code was loaded from; empty if unknown. */
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
    // Beside libzu3.so, or in lib/ for a program in bin/ that contains the host layer.
    for (const char* folder : {".", "../lib"}) {
        const auto path = own_folder() / folder / file;
        // Lazily: libavcodec and its eighty libraries have 25,000 relocations.
        void* const handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL);
        entry = handle ? dlsym(handle, entry_name) : nullptr;
        if (entry) {
            failure.clear();
            return;
        }
        // The error of an existing module names what it lacks, so it counts more than "not found".
        const char* const why = dlerror();
        std::error_code error;
        if (failure.empty() || std::filesystem::exists(path, error))
            failure = why ? why : "it has no entry";
    }
}

} // namespace zu3host
