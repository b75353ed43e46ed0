#include "movie/module_loader.h"

#include <dlfcn.h>

#include "process/failure.h"

namespace client::movie {
namespace {

const MovieModule& load_module()
{
    void* const library = dlopen("libscreenrecord_movie.so", RTLD_NOW | RTLD_LOCAL);
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
