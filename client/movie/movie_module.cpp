#include "movie/movie_module.h"

#include <dlfcn.h>
#include <filesystem>
#include <string>

#include "process/messages.h"

namespace client::movie {
namespace {

constexpr const char* module_file = "libscreenrecord_movie.so";

/**
 * The module's path beside the host layer's library; its bare name on a platform without that. The
 * program's own search path does not apply to a dlopen that a sanitizer calls for us.
 */
std::string module_path()
{
    void* const neighbour = dlsym(RTLD_DEFAULT, "zu3_host_platform");
    Dl_info found{};
    if (!neighbour || dladdr(neighbour, &found) == 0 || !found.dli_fname)
        return module_file;
    std::error_code error;
    return std::filesystem::canonical(found.dli_fname, error).parent_path() / module_file;
}

const MovieModule& load_module()
{
    // Lazily: the eighty libraries below it have 25,000 relocations, which take 20 ms.
    void* const library = dlopen(module_path().c_str(), RTLD_LAZY | RTLD_LOCAL);
    void* const function = library ? dlsym(library, module_function) : nullptr;
    if (!function) {
        const char* const reason = dlerror();
        throw Failure("cannot write MP4 or Matroska, but a .ts file can be recorded: " +
                      std::string(reason ? reason : "the module has no entry"));
    }
    return *reinterpret_cast<GetModule>(function)();
}

} // namespace

const MovieModule& movie_module()
{
    static const MovieModule& module = load_module();
    return module;
}

} // namespace client::movie
