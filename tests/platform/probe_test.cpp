#include "platform/probe.h"

#include <cerrno>
#include <cstddef>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace {

// From now on this process may not copy through the kernel. Emulators have neither the copies nor this order.
void refuse_copies()
{
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_writev, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(steps), steps};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

TEST(probe, tells_what_can_be_read_and_written_with_and_without_copies_by_the_kernel)
{
    const std::size_t page = 65536;
    void *const pages = mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const auto closed = reinterpret_cast<std::uintptr_t>(pages) + page, constant = closed + page;
    mprotect(reinterpret_cast<void *>(closed), page, PROT_NONE);
    mprotect(reinterpret_cast<void *>(constant), page, PROT_READ);
    for (const bool refused : {false, true}) {
        if (refused)
            refuse_copies();
        errno = 4711;
        std::uint32_t word = 0;
        for (const unsigned below : {4U, 5U, 7U, 8U}) {
            EXPECT_TRUE(memm::write_word(closed - below, below) && memm::read_word(closed - below, word));
            EXPECT_EQ(word, below);
        }
        EXPECT_TRUE(memm::read_word(constant, word) && word == 0);
        for (const std::uintptr_t unreadable :
             {std::uintptr_t{0}, closed - 3, closed, constant - 1, ~std::uintptr_t{0}})
            EXPECT_FALSE(memm::read_word(unreadable, word) || memm::write_word(unreadable, 1)) << unreadable;
        EXPECT_FALSE(memm::write_word(constant, 1));
        EXPECT_EQ(errno, 4711);
    }
}

}  // namespace
