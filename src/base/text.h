// Bounded text helpers: what the C library offers only from some version on, or not at all.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace memm {

// Copies as much of `source` as fits into `size` bytes, always terminated (a size of 0 writes nothing).
// Answers the length of the source, so that a result of `size` or more tells that the text was cut.
// A null source counts as an empty text.
inline std::size_t copy_bounded(char *destination, const char *source, std::size_t size) noexcept
{
    const std::size_t length = source != nullptr ? std::strlen(source) : 0;
    if (size > 0) {
        const std::size_t kept = std::min(length, size - 1);
        if (kept > 0) {
            std::memcpy(destination, source, kept);
        }
        destination[kept] = '\0';
    }
    return length;
}

// An empty or null prefix begins every text, a null text included.
inline bool begins_with(const char *text, const char *prefix) noexcept
{
    if (prefix == nullptr || *prefix == '\0') {
        return true;
    }
    return text != nullptr && std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// Names of locks and callers that are missing have one in every text.
inline const char *known(const char *name) noexcept { return name == nullptr ? "-unknown-" : name; }

}  // namespace memm
