// The three output channels. Signal handlers write reports through them, so nothing here takes a lock, allocates or
// keeps text between calls: a call collects its text on the stack and hands it to the kernel in one write. Text that
// is longer than the buffer goes out in pieces; nothing is cut. errno is kept and a failing write is no one's concern.
#include "base/format.h"
#include "platform/no_cancel.h"

#include <memmanager/platform.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace {

void write_all(int file, const char *bytes, std::size_t count) noexcept
{
    while (count > 0) {
        const ssize_t written = write(file, bytes, count);
        if (written > 0) {
            bytes += written;
            count -= static_cast<std::size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            return;
        }
    }
}

class Page {
    static constexpr std::size_t kSize = 1024;

    const int file_;
    std::size_t used_ = 0;
    char bytes_[kSize];

    void append(const char *bytes, std::size_t count) noexcept
    {
        while (count > 0) {
            if (used_ == kSize) {
                flush();
            }
            const std::size_t part = std::min(count, kSize - used_);
            std::memcpy(bytes_ + used_, bytes, part);
            used_ += part;
            bytes += part;
            count -= part;
        }
    }

    // What the bounded formatter refuses, floating point above all, is the C library's. Longer texts get memory for the
    // occasion, straight from the kernel; without any they end where the page does.
    void format_by_libc(const char *format, va_list arguments) noexcept
    {
        va_list again;
        va_copy(again, arguments);
        const int length = std::vsnprintf(bytes_, kSize, format, arguments);
        const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 0;
        used_ = std::min(size, kSize - 1);
        if (size >= kSize) {
            void *const block = mmap(nullptr, size + 1, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (block != MAP_FAILED) {
                auto *const text = static_cast<char *>(block);
                std::vsnprintf(text, size + 1, format, again);
                write_all(file_, text, size);
                munmap(block, size + 1);
                used_ = 0;
            }
        }
        va_end(again);
    }

public:
    explicit Page(int file) noexcept : file_(file) {}

    void print(const char *format, va_list arguments) noexcept
    {
        const memm::TextSink sink{[](void *page, const char *bytes, std::size_t count) noexcept {
                                      static_cast<Page *>(page)->append(bytes, count);
                                  },
                                  this};
        if (!memm::format(sink, format, arguments)) {
            format_by_libc(format, arguments);
        }
    }

    void flush() noexcept
    {
        write_all(file_, bytes_, used_);
        used_ = 0;
    }
};

int vprint(int file, const char *format, va_list arguments) noexcept
{
    if (format != nullptr) {
        const int saved_errno = errno;
        const memm::NoCancel no_cancel;
        Page page(file);
        page.print(format, arguments);
        page.flush();
        errno = saved_errno;
    }
    return 0;
}

[[gnu::format(printf, 2, 3)]] int print(int file, const char *format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    vprint(file, format, arguments);
    va_end(arguments);
    return 0;
}

int print_to_stdout(const char *format, va_list arguments) { return vprint(STDOUT_FILENO, format, arguments); }

}  // namespace

extern "C" {

[[gnu::weak]] int (*dbg_vprintf_cb)(const char *format, va_list arguments) = print_to_stdout;

// The sink is exchanged while other threads print. Without one the text goes to standard output.
[[gnu::weak]] int dbg_printf(const char *format, ...)
{
    if (format == nullptr) {
        return 0;
    }
    auto *const sink = __atomic_load_n(&dbg_vprintf_cb, __ATOMIC_ACQUIRE);
    va_list arguments;
    va_start(arguments, format);
    (sink != nullptr ? sink : print_to_stdout)(format, arguments);
    va_end(arguments);
    return 0;
}

[[gnu::weak]] int trc_def_printf(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vprint(STDERR_FILENO, format, arguments);
    va_end(arguments);
    return 0;
}

[[gnu::weak]] int err_printf(unsigned code, int severity, const char *module, const char *file, int line,
                             const char *message)
{
    return print(STDERR_FILENO, "[%s] error 0x%05x, severity %d, %s:%d: %s\r\n", module, code, severity, file, line,
                 message);
}
}
