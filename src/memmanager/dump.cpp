#include "memmanager/dump.h"

#include "base/format.h"
#include "memmanager/report.h"
#include "memmanager/trace.h"
#include "platform/no_cancel.h"
#include "platform/write_all.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// One file is written at a time, under the manager lock, and its text gathers in one static buffer. The files' names
// are known to everybody and their directories open to everybody, so nothing is trusted that stands there: only a plain
// file of our own is written over; anything else is removed and a new file made.
namespace memm {

namespace {

constexpr const char *kUsagePrefix = "/var/tmp/memm_";
constexpr const char *kContentsPrefix = "/tmp/memm_dump_";
constexpr const char *kOrders = "/etc/config/memm_dump_pools";

constexpr int kOpenFlags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

bool is_own_plain_file(int file) noexcept
{
    struct stat status {};
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

int open_own(const char *name) noexcept
{
    const int file = open(name, kOpenFlags, kOwnerOnly);
    if (file >= 0 && !(is_own_plain_file(file) && ftruncate(file, 0) == 0)) {
        close(file);
        return -1;
    }
    return file;
}

// Somebody who puts things there again and again can keep us from writing, not make us write elsewhere.
int open_dump(const char *name) noexcept
{
    int file = open_own(name);
    for (int tries = 3; file < 0 && tries > 0; --tries) {
        unlink(name);
        file = open(name, kOpenFlags | O_EXCL, kOwnerOnly);
    }
    return file;
}

// A file-size limit shows as a failed write, not as a signal that ends the process.
class HoldBackSizeSignal {
    sigset_t size_signal_{};
    sigset_t before_{};
    sigset_t pending_{};

public:
    HoldBackSizeSignal() noexcept
    {
        sigpending(&pending_);
        sigaddset(&size_signal_, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &size_signal_, &before_);
    }
    ~HoldBackSizeSignal() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    HoldBackSizeSignal(const HoldBackSizeSignal &) = delete;
    HoldBackSizeSignal &operator=(const HoldBackSizeSignal &) = delete;

    // After a write over the limit: takes the signal that it raised, unless one was there before and is the caller's.
    void forget() noexcept
    {
        constexpr timespec kNoWait{};
        if (sigismember(&pending_, SIGXFSZ) == 0) {
            sigtimedwait(&size_signal_, nullptr, &kNoWait);
        }
    }
};

constinit char buffer[4096];

class Writer {
    int file_ = -1;
    bool over_limit_ = false;
    std::size_t used_ = 0;

    void flush() noexcept
    {
        if (used_ > 0 && !write_all(file_, buffer, used_)) {
            over_limit_ = over_limit_ || errno == EFBIG;
        }
        used_ = 0;
    }

public:
    bool is_open() const noexcept { return file_ >= 0; }
    bool met_size_limit() const noexcept { return over_limit_; }

    void open(int file) noexcept
    {
        file_ = file;
        over_limit_ = false;
        used_ = 0;
    }

    void append(const char *bytes, std::size_t count) noexcept
    {
        while (count > 0) {
            if (used_ == sizeof buffer) {
                flush();
            }
            const std::size_t part = std::min(count, sizeof buffer - used_);
            std::memcpy(buffer + used_, bytes, part);
            used_ += part;
            bytes += part;
            count -= part;
        }
    }

    // Text that only the C library can format: a callback's own business.
    void append_by_libc(const char *text, va_list arguments) noexcept
    {
        flush();
        if (vdprintf(file_, text, arguments) < 0) {
            over_limit_ = over_limit_ || errno == EFBIG;
        }
    }

    void close() noexcept
    {
        if (is_open()) {
            flush();
            ::close(file_);
            file_ = -1;
        }
    }
};

constinit Writer writer;

// --- output that goes into the file ---

int vprint_to_file(const char *text, va_list arguments) noexcept
{
    constexpr TextSink kSink{[](void *, const char *bytes, std::size_t count) noexcept { writer.append(bytes, count); },
                             nullptr};
    if (writer.is_open() && text != nullptr && !format(kSink, text, arguments)) {
        writer.append_by_libc(text, arguments);
    }
    return 0;
}

[[gnu::format(printf, 1, 2)]] int print_to_file(const char *text, ...) noexcept
{
    va_list arguments;
    va_start(arguments, text);
    vprint_to_file(text, arguments);
    va_end(arguments);
    return 0;
}

// --- a dump: from its first line to the closed file ---

using DebugSink = int (*)(const char *, va_list);

constinit std::atomic<const TaskState *> dumping_task{nullptr};
constinit std::atomic<DebugSink> sink_before{nullptr};

// Other threads print while the dump is written: to where they would have printed.
int print_to_file_or_before(const char *text, va_list arguments)
{
    if (dumping_task.load(std::memory_order_relaxed) == &task_state) {
        return vprint_to_file(text, arguments);
    }
    const DebugSink before = sink_before.load(std::memory_order_acquire);
    return before == nullptr ? 0 : before(text, arguments);
}

class RedirectDebugOutput {
    DebugSink before_ = __atomic_load_n(&dbg_vprintf_cb, __ATOMIC_ACQUIRE);

public:
    RedirectDebugOutput() noexcept
    {
        do {
            if (before_ != print_to_file_or_before) {
                sink_before.store(before_, std::memory_order_release);
            }
        } while (!__atomic_compare_exchange_n(&dbg_vprintf_cb, &before_, &print_to_file_or_before, false,
                                              __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE));
    }
    ~RedirectDebugOutput() { __atomic_store_n(&dbg_vprintf_cb, before_, __ATOMIC_RELEASE); }
    RedirectDebugOutput(const RedirectDebugOutput &) = delete;
    RedirectDebugOutput &operator=(const RedirectDebugOutput &) = delete;
};

class Dump {
    NoCancel no_cancel_;
    HoldBackSizeSignal hold_back_;

public:
    Dump(const char *prefix, const char *reason) noexcept
    {
        dumping_task.store(&task_state, std::memory_order_relaxed);
        char name[32];
        format_to(name, sizeof name, "%s%d", prefix, static_cast<int>(getpid()));
        writer.open(open_dump(name));
        if (writer.is_open()) {
            print_to_file("\r\n\r\nReason: %s\r\n", reason);
        } else if (is_traced(1)) {
            trc_def_printf("Could not open '%s' stats file\r\n", name);
        }
    }
    ~Dump()
    {
        writer.close();
        if (writer.met_size_limit()) {
            hold_back_.forget();
        }
        dumping_task.store(nullptr, std::memory_order_relaxed);
    }
    Dump(const Dump &) = delete;
    Dump &operator=(const Dump &) = delete;

    static void statistics(Held held) noexcept { print_statistics(held, nullptr, print_to_file); }

    static void objects(Held held, const char *prefix) noexcept
    {
        const RedirectDebugOutput redirect;
        print_objects(held, prefix, kDumpLevel);
    }
};

// --- what SIGUSR2 writes ---

void follow_order(Held held, const char *line) noexcept
{
    if (*line == '\0' || *line == '#') {
        return;
    }
    if (std::strcmp(line, "stats") == 0) {
        Dump::statistics(held);
    } else {
        Dump::objects(held, std::strcmp(line, "all") == 0 ? nullptr : line);
    }
}

// Lines of at most 63 characters; what is longer goes on as a further line.
class Orders {
    static constexpr std::size_t kMaxBytes = 65536;

    char line_[64] = {};
    std::size_t length_ = 0;

    void end_line(Held held) noexcept
    {
        line_[length_] = '\0';
        length_ = 0;
        follow_order(held, line_);
    }

    void take(Held held, char character) noexcept
    {
        if (character == '\n') {
            end_line(held);
            return;
        }
        line_[length_++] = character;
        if (length_ == sizeof line_ - 1) {
            end_line(held);
        }
    }

public:
    void follow(Held held, int file) noexcept
    {
        struct stat status {};
        if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
            return;
        }
        char piece[512];
        for (std::size_t left = kMaxBytes; left > 0;) {
            const ssize_t got = read(file, piece, std::min(left, sizeof piece));
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                break;
            }
            for (ssize_t i = 0; i < got; ++i) {
                take(held, piece[i]);
            }
            left -= static_cast<std::size_t>(got);
        }
        end_line(held);
    }
};

}  // namespace

void dump_usage(Held held) noexcept
{
    const Dump dump(kUsagePrefix, "SIGUSR1");
    Dump::statistics(held);
}

void dump_on_order(Held held) noexcept
{
    const Dump dump(kContentsPrefix, "SIGUSR2");
    const int file = open(kOrders, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (file >= 0) {
        Orders{}.follow(held, file);
        close(file);
    }
}

void dump_depletion(Held held, const char *pool_name, const char *reason) noexcept
{
    const Dump dump(kContentsPrefix, reason);
    Dump::statistics(held);
    Dump::objects(held, pool_name);
}

bool is_dumping(Held) noexcept { return dumping_task.load(std::memory_order_relaxed) != nullptr; }

}  // namespace memm
