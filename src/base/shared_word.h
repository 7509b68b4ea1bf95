#pragma once

#include <type_traits>

// Words that some callers read or clear without the manager lock. The layout of their records is public C, so they are
// plain words; every access that may meet another one goes through here. The writer holds the lock: its additions need
// no locked operation.
namespace memm {

template <typename T> T load(const T &word) noexcept
{
    T value;
    __atomic_load(const_cast<T *>(&word), &value, __ATOMIC_RELAXED);
    return value;
}

template <typename T> void store(T &word, std::type_identity_t<T> value) noexcept
{
    __atomic_store(&word, &value, __ATOMIC_RELAXED);
}

// A pointer or index through which other words are then read: what its writer wrote before it is seen. The machines
// order loads that depend on each other by themselves; only the checker of data races wants to be told.
template <typename T> T load_published(const T &word) noexcept
{
#if defined(__SANITIZE_THREAD__)
    constexpr int kOrder = __ATOMIC_ACQUIRE;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    constexpr int kOrder = __ATOMIC_ACQUIRE;
#else
    constexpr int kOrder = __ATOMIC_RELAXED;
#endif
#else
    constexpr int kOrder = __ATOMIC_RELAXED;
#endif
    return __atomic_load_n(&word, kOrder);
}

template <typename T> void publish(T &word, std::type_identity_t<T> value) noexcept
{
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// The same where the words read next do not depend on this one by their addresses.
template <typename T> T load_acquired(const T &word) noexcept { return __atomic_load_n(&word, __ATOMIC_ACQUIRE); }

template <typename T> T add(T &word, std::type_identity_t<T> step) noexcept
{
    const T sum = load(word) + step;
    store(word, sum);
    return sum;
}

template <typename T> void raise_to(T &word, std::type_identity_t<T> value) noexcept
{
    if (load(word) < value) {
        store(word, value);
    }
}

}  // namespace memm
