#include "base/border.h"

#include <atomic>
#include <new>

// Programs derive from it, so its vtable and type information must be exported.
namespace android {
class HOST_EXPORT RefBase;
}

#include <utils/RefBase.h>

namespace android {

// Until the first reference the count has a value that references alone never reach. So exactly one
// of several threads is the first, and an object without references differs from a new one.
constexpr int32_t no_reference_yet = 1 << 28;

class RefBase::weakref_type {
public:
    std::atomic<int32_t> strong{no_reference_yet};
};

// A caller may be built without exceptions. If memory for its counter runs out, an object is not
// counted and never deleted: a leak is better than an early deletion.
RefBase::RefBase() : mRefs(new (std::nothrow) weakref_type) {}

RefBase::~RefBase()
{
    delete mRefs;
}

void RefBase::incStrong(const void*) const
{
    if (!mRefs || mRefs->strong.fetch_add(1, std::memory_order_relaxed) != no_reference_yet)
        return;
    mRefs->strong.fetch_sub(no_reference_yet, std::memory_order_relaxed);
    const_cast<RefBase*>(this)->onFirstRef();
}

void RefBase::decStrong(const void* id) const
{
    if (!mRefs || mRefs->strong.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    const_cast<RefBase*>(this)->onLastStrongRef(id);
    delete this;
}

int32_t RefBase::getStrongCount() const
{
    if (!mRefs)
        return 0;
    const int32_t count = mRefs->strong.load(std::memory_order_relaxed);
    return count >= no_reference_yet ? count - no_reference_yet : count;
}

void RefBase::onFirstRef() {}

void RefBase::onLastStrongRef(const void*) {}

// Without weak pointers no object is revived, and none outlives its last strong
// reference.
bool RefBase::onIncStrongAttempted(uint32_t, const void*)
{
    return false;
}

void RefBase::onLastWeakRef(const void*) {}

} // namespace android
