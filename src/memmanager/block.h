#pragma once

#include "base/bits.h"
#include "base/result.h"

#include <memmanager/platform.h>
#include <cstdint>

namespace memm {

// Memory for good. The platform's failure code passes through; no block, or one that is not aligned for objects, is a
// failure too.
inline Result get_block(const char *label, u32 bytes, unsigned char *&block) noexcept
{
    void *memory = nullptr;
    if (const unsigned code = xm_alloc(label, 1, bytes, &memory); code != 0) {
        return Result{code};
    }
    if (memory == nullptr || reinterpret_cast<std::uintptr_t>(memory) % sizeof(memm_word) != 0) {
        return Result::no_memory;
    }
    block = static_cast<unsigned char *>(memory);
    return Result::ok;
}

}  // namespace memm
