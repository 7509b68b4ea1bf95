#pragma once

#include <type_traits>

// Words that some callers read or clear without the manager lock. The layout of their records is public C, so they are
// plain words; every access that may meet another one goes through here. The writer holds the lock: its additions need
// no locked operation.
namespace memm {

template <typename T> T load(const T &word) noexcept { return __atomic_load_n(&word, __ATOMIC_RELAXED); }

template <typename T> void store(T &word, std::type_identity_t<T> value) noexcept
{
    __atomic_store(&word, &value, __ATOMIC_RELAXED);
}

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
