#include <memmanager/platform.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

namespace {

constexpr std::size_t kAlignment = 16;

// Large pools are hit at random: where the system has large pages, it need not look up each small one. A system that
// has none answers an error that changes nothing.
void prefer_large_pages(void *block, std::size_t size) noexcept
{
    constexpr std::uintptr_t kLargePage = 2U << 20;
    const auto begin = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t first = (begin + kLargePage - 1) & ~(kLargePage - 1);
    const std::uintptr_t end = (begin + size) & ~(kLargePage - 1);
    if (first < end) {
        madvise(reinterpret_cast<void *>(first), end - first, MADV_HUGEPAGE);
    }
}

// calloc aligns so on most targets, and leaves the zeroing of large blocks to the kernel until they are used.
void *zeroed_and_aligned(std::size_t size) noexcept
{
    void *block = std::calloc(1, size);
    if (block == nullptr || reinterpret_cast<std::uintptr_t>(block) % kAlignment == 0) {
        prefer_large_pages(block, size);
        return block;
    }
    std::free(block);
    if (posix_memalign(&block, kAlignment, size) != 0) {
        return nullptr;
    }
    return std::memset(block, 0, size);
}

unsigned hand_over(void *memory, void **block) noexcept
{
    *block = memory;
    return memory != nullptr ? 0 : ENOMEM;
}

// 0 bytes give a block too, so that null always means failure.
std::size_t at_least_one(unsigned size) noexcept { return size != 0 ? size : 1; }

}  // namespace

extern "C" {

// Pool memory is never given back, so its label is of use only to a platform that keeps account of it.
[[gnu::weak]] unsigned xm_alloc(const char * /*label*/, int /*option*/, unsigned size, void **block)
{
    return block != nullptr ? hand_over(zeroed_and_aligned(at_least_one(size)), block) : EINVAL;
}

[[gnu::weak]] unsigned xm_getmem(unsigned size, void **block)
{
    return block != nullptr ? hand_over(std::malloc(at_least_one(size)), block) : EINVAL;
}

[[gnu::weak]] unsigned xm_retmem(void *block)
{
    std::free(block);
    return 0;
}
}
