#ifndef SCREENRECORD_CORE_CROSS_THREAD_H
#define SCREENRECORD_CORE_CROSS_THREAD_H

#include <atomic>

/**
 * A field that one thread writes while another reads it. It has the size of T and can be copied, so that the
 * records that hold such fields are still reset by assignment.
 *
 * Every access is sequentially consistent: the callback gate needs a handle's store and the count of
 * callbacks in one order for all threads, and one picture costs a handful of accesses.
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
    /** Replaces `from` by `to`; false, and nothing replaced, when the value is another one. */
    bool Replace(T from, T to) { return m_value.compare_exchange_strong(from, to); }
    /** Blocks while the value is `value`. */
    void AwaitChangeFrom(T value) const { m_value.wait(value); }
    void WakeWaiters() { m_value.notify_all(); }

private:
    static_assert(std::atomic<T>::is_always_lock_free && sizeof(std::atomic<T>) == sizeof(T));
    std::atomic<T> m_value;
};

/**
 * Lends a field as the output argument of one call: what the call leaves there is in the field behind it,
 * whatever it answers, so that what a failing open left is closed as everything else is. The middleware
 * writes without atomics while callbacks look for their handles, so it writes into a copy.
 *
 *     ZU_VENC_Open(&stParams, OutputArgument(pstTask->u32Handle));
 */
template <typename T> class OutputArgument {
public:
    explicit OutputArgument(CrossThread<T>& field) : m_field(field), m_value(field.Get()) {}
    ~OutputArgument() { m_field = m_value; }
    OutputArgument(const OutputArgument&) = delete;
    OutputArgument& operator=(const OutputArgument&) = delete;

    operator T*() { return &m_value; }

private:
    CrossThread<T>& m_field;
    T m_value;
};

#endif
