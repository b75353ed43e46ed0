#ifndef SCREENRECORD_BASE_CROSS_THREAD_H
#define SCREENRECORD_BASE_CROSS_THREAD_H

#include <atomic>

/**
 * A field that one thread writes while another reads it. It has the size of T and can be copied, so
 * assignment still resets a record with such fields.
 *
 * Every access is sequentially consistent: the callback gate needs all threads to see the store of
 * a handle and the count of callbacks in one order. A picture costs a handful of accesses.
 */
template <typename T> class CrossThread {
public:
    CrossThread(T value = T{}) : m_value(value) {}
    CrossThread(const CrossThread& other) : m_value(other.Get()) {}
    CrossThread& operator=(const CrossThread& other) { return *this = other.Get(); }
    CrossThread& operator=(T value)
    {
        m_value.store(value);
        return *this;
    }

    operator T() const { return Get(); }
    T Get() const { return m_value.load(); }
    T Exchange(T value) { return m_value.exchange(value); }
    /** Replaces `from` by `to`. False, and no change, if the value differs from `from`. */
    bool Replace(T from, T to) { return m_value.compare_exchange_strong(from, to); }
    /** Blocks until the value differs from `value`. */
    void AwaitChangeFrom(T value) const { m_value.wait(value); }
    void WakeWaiters() { m_value.notify_all(); }
    /**
     * The field as an output argument of a middleware call. The result is in the record at once,
     * even if the call fails or calls back before it returns. The middleware stores an aligned
     * value of this size in one piece.
     */
    T* OutputArgument() { return reinterpret_cast<T*>(&m_value); }

private:
    // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer
    static_assert(std::atomic<T>::is_always_lock_free && sizeof(std::atomic<T>) == sizeof(T));
    std::atomic<T> m_value;
};

#endif
