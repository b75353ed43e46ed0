/** Android's reference-counted base, the part that this system uses. */
#ifndef ANDROID_UTILS_REFBASE_H
#define ANDROID_UTILS_REFBASE_H

#include <stdint.h>

#include "utils/StrongPointer.h"

namespace android {

/**
 * Base of objects in an sp<>: the last strong reference destroys the object. The counters
 * live outside the object, so it is two pointers large. Thread-safe.
 */
class RefBase {
public:
    void incStrong(const void* id) const;
    void decStrong(const void* id) const;
    int32_t getStrongCount() const;

    class weakref_type;

protected:
    RefBase();
    virtual ~RefBase();

    /** Called at the first strong reference. */
    virtual void onFirstRef();
    /** Called when the last strong reference is gone, before the destructor. */
    virtual void onLastStrongRef(const void* id);
    virtual bool onIncStrongAttempted(uint32_t flags, const void* id);
    virtual void onLastWeakRef(const void* id);

private:
    RefBase(const RefBase&);
    RefBase& operator=(const RefBase&);

    weakref_type* const mRefs;
};

} // namespace android

#endif
