#include "platform/probe.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#define MEMM_UNCHECKED __attribute__((no_sanitize("address"), no_sanitize("thread"), noinline))

namespace memm {

namespace {

// Both calls see protection as the process itself does, and need no right that a process has not over itself.
bool copy_by_kernel(long call, std::uintptr_t address, std::uint32_t &word) noexcept
{
    iovec here{&word, sizeof word};
    iovec there{reinterpret_cast<void *>(address), sizeof word};
    return syscall(call, getpid(), &here, 1UL, &there, 1UL, 0UL) == static_cast<long>(sizeof word);
}

bool call_is_missing() noexcept { return errno == ENOSYS || errno == EPERM; }

// Where these calls are missing (emulators, strict sandboxes), others tell whether the address can be used: changing
// the signal mask in an impossible way reads a mask first, and asking for the processor writes a word.
constexpr int kNoSuchHow = -1;
constexpr std::uintptr_t kMaskBytes = 8;

bool mask_is_readable(std::uintptr_t address) noexcept
{
    return address != 0 &&
           (syscall(SYS_rt_sigprocmask, kNoSuchHow, address, nullptr, kMaskBytes) == 0 || errno != EFAULT);
}

bool word_is_readable(std::uintptr_t address) noexcept
{
    const std::uintptr_t first = address & ~(kMaskBytes - 1);
    const std::uintptr_t last = (address + sizeof(std::uint32_t) - 1) & ~(kMaskBytes - 1);
    return first <= last && mask_is_readable(first) && (first == last || mask_is_readable(last));
}

bool word_is_writable(std::uintptr_t address) noexcept
{
    return address != 0 && syscall(SYS_getcpu, address, nullptr, nullptr) == 0;
}

// Unaligned, and not a sanitizer's business: the caller asks about memory that is not the library's.
struct [[gnu::packed, gnu::may_alias]] AnyWord { std::uint32_t word; };

MEMM_UNCHECKED std::uint32_t read_directly(std::uintptr_t address) noexcept
{
    return reinterpret_cast<const volatile AnyWord *>(address)->word;
}

MEMM_UNCHECKED void write_directly(std::uintptr_t address, std::uint32_t word) noexcept
{
    reinterpret_cast<volatile AnyWord *>(address)->word = word;
}

class KeepErrno {
    int saved_ = errno;

public:
    ~KeepErrno() { errno = saved_; }
};

}  // namespace

bool read_word(std::uintptr_t address, std::uint32_t &word) noexcept
{
    const KeepErrno keep;
    if (copy_by_kernel(SYS_process_vm_readv, address, word)) {
        return true;
    }
    if (!call_is_missing() || !word_is_readable(address)) {
        return false;
    }
    word = read_directly(address);
    return true;
}

bool write_word(std::uintptr_t address, std::uint32_t word) noexcept
{
    const KeepErrno keep;
    if (copy_by_kernel(SYS_process_vm_writev, address, word)) {
        return true;
    }
    if (!call_is_missing() || !word_is_writable(address)) {
        return false;
    }
    write_directly(address, word);
    return true;
}

}  // namespace memm
