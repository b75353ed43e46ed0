/** Android's shared-memory interface, the part that this system uses. */
#ifndef ANDROID_BINDER_IMEMORY_H
#define ANDROID_BINDER_IMEMORY_H

#include <stddef.h>

#include "utils/RefBase.h"

namespace android {

/** A piece of shared memory; use it through sp<IMemory>. */
class IMemory : public virtual RefBase {
public:
    /** Start of the piece in this process; valid while the object lives. */
    virtual void* pointer() const = 0;
    /** Its size in bytes. */
    virtual size_t size() const = 0;

protected:
    ~IMemory() override = default;
};

} // namespace android

#endif
