#pragma once

#include <string>

namespace zu3host {

/**
 * A module: a shared object beside libzu3.so that links libraries which few programs need. Stays
 * loaded, since threads of those libraries may outlive their use.
 */
struct PrivateModule {
    /** the function of that name; null if the module, or a library that it links, is missing */
    void* entry = nullptr;
    /** why `entry` is null; otherwise empty */
    std::string failure;

    /** Looks for `file` in the folder of libzu3.so. Throws std::bad_alloc. */
    PrivateModule(const char* file, const char* entry_name);
};

} // namespace zu3host
