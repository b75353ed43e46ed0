/** Android's strong pointer to a RefBase object. */
#ifndef ANDROID_UTILS_STRONGPOINTER_H
#define ANDROID_UTILS_STRONGPOINTER_H

namespace android {

/** One strong reference. Two threads must not use one pointer at the same time. */
template <typename T> class sp {
public:
    sp() : m_ptr(nullptr) {}
    sp(T* other) : m_ptr(other) // NOLINT: implicit, as on Android
    {
        if (m_ptr)
            m_ptr->incStrong(this);
    }
    sp(const sp& other) : sp(other.m_ptr) {}
    sp(sp&& other) noexcept : m_ptr(other.m_ptr) { other.m_ptr = nullptr; }
    template <typename U>
    sp(const sp<U>& other) : sp(static_cast<T*>(other.get())) {} // NOLINT: implicit
    ~sp()
    {
        if (m_ptr)
            m_ptr->decStrong(this);
    }

    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): copy and swap handles it
    sp& operator=(const sp& other)
    {
        sp copy(other);
        swap(copy);
        return *this;
    }
    sp& operator=(sp&& other) noexcept
    {
        sp moved(static_cast<sp&&>(other));
        swap(moved);
        return *this;
    }

    T& operator*() const { return *m_ptr; }
    T* operator->() const { return m_ptr; }
    T* get() const { return m_ptr; }
    explicit operator bool() const { return m_ptr != nullptr; }
    bool operator==(const sp& other) const { return m_ptr == other.m_ptr; }

    /** Drops the reference. */
    void clear()
    {
        sp none;
        swap(none);
    }

private:
    void swap(sp& other)
    {
        T* const p = m_ptr;
        m_ptr = other.m_ptr;
        other.m_ptr = p;
    }

    T* m_ptr;
};

} // namespace android

#endif
