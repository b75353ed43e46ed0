#pragma once

#include <memory>
#include <utils/StrongPointer.h>

namespace zu3host {

/**
 * The first reference to an object; null when there was no memory for it or for its counter, and
 * then it is gone.
 */
template <typename Object> android::sp<Object> counted(Object* made)
{
    std::unique_ptr<Object> uncounted(made);
    const android::sp<Object> first = made;
    if (!made || made->getStrongCount() == 0)
        return nullptr;
    static_cast<void>(uncounted.release());
    return first;
}

} // namespace zu3host
