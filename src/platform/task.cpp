#include "base/format.h"
#include "platform/no_cancel.h"

#include <memmanager/platform.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::size_t kNameLength = 4;

// The bytes read, or -1.
ssize_t read_file(const char *path, char *buffer, std::size_t size) noexcept
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    const ssize_t count = read(file, buffer, size);
    close(file);
    return count;
}

}  // namespace

extern "C" {

// Asked anew each time: a thread that forks is another task in the child.
[[gnu::weak]] unsigned vemo_t_ident(int, int, int *id)
{
    if (id == nullptr) {
        return EINVAL;
    }
    *id = gettid();
    return 0;
}

[[gnu::weak]] unsigned xt_getname(int id, char *name)
{
    if (name == nullptr) {
        return EINVAL;
    }
    const memm::NoCancel no_cancel;
    const int saved_errno = errno;
    char path[48], text[32];  // the kernel keeps 15 characters and ends them with a newline
    memm::format_to(path, sizeof path, "/proc/self/task/%d/comm", id);
    const ssize_t count = read_file(path, text, sizeof text);
    errno = saved_errno;
    if (count <= 0) {
        return ESRCH;
    }
    const std::size_t length = std::min(static_cast<std::size_t>(count) - 1, kNameLength);
    std::memset(name, ' ', kNameLength);
    std::memcpy(name, text, length);
    return 0;
}
}
