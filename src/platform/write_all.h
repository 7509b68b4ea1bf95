#pragma once

#include <cerrno>
#include <cstddef>
#include <unistd.h>

namespace memm {

// Writes on after short writes and interruptions; false, with errno set, when the rest cannot be written.
inline bool write_all(int file, const char *bytes, std::size_t count) noexcept
{
    while (count > 0) {
        const ssize_t written = write(file, bytes, count);
        if (written > 0) {
            bytes += written;
            count -= static_cast<std::size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace memm
