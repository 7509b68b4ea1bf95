// Mutexes in a table that only grows. A handle is an index into it and is looked up without a lock.
//
//     chunks:  [0] -> 64 locks   [1] -> 128 locks   [2] -> 256 locks ...   published once each, never moved or freed
//     count_:  indices below it have been handed out, their chunks are published
//
// Index 0 is never handed out: a lock record of zeros, or one whose mutex could not be created, names no mutex.
#include "platform/futex_lock.h"

#include <memmanager/platform.h>

#include <atomic>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

using memm::FutexLock;

constexpr unsigned kTimedOut = 6;
enum Mode { kWait = 0, kTry = 1 };

class MutexTable {
    static constexpr unsigned kFirstChunk = 64;
    static constexpr unsigned kChunks = 26;
    static constexpr unsigned kEnd = UINT_MAX - kFirstChunk + 1;  // what the chunks hold together

    struct Place {
        unsigned chunk, offset;
    };
    std::atomic<FutexLock *> chunks_[kChunks]{};
    std::atomic<unsigned> count_{1};

    // With 64 added, every chunk begins at a power of two.
    static Place place_of(unsigned index) noexcept
    {
        const unsigned shifted = index + kFirstChunk;
        const unsigned power = std::bit_floor(shifted);
        return {static_cast<unsigned>(std::countr_zero(power) - std::countr_zero(kFirstChunk)), shifted - power};
    }

    bool provide_chunk(unsigned chunk) noexcept
    {
        if (chunks_[chunk].load(std::memory_order_acquire) != nullptr) {
            return true;
        }
        const std::size_t locks = std::size_t{kFirstChunk} << chunk;
        if (locks > PTRDIFF_MAX / sizeof(FutexLock)) {
            return false;
        }
        void *const memory = std::malloc(locks * sizeof(FutexLock));
        if (memory == nullptr) {
            return false;
        }
        auto *const made = static_cast<FutexLock *>(memory);
        for (std::size_t i = 0; i < locks; ++i) {
            new (made + i) FutexLock;
        }
        FutexLock *expected = nullptr;
        if (!chunks_[chunk].compare_exchange_strong(expected, made, std::memory_order_acq_rel)) {
            std::free(memory);  // another thread was faster
        }
        return true;
    }

public:
    // 0 when there is no memory. An index is handed out only when its chunk stands, so a failure leaves no gap.
    unsigned add() noexcept
    {
        unsigned index = count_.load(std::memory_order_acquire);
        do {
            if (index == kEnd || !provide_chunk(place_of(index).chunk)) {
                return 0;
            }
        } while (!count_.compare_exchange_weak(index, index + 1, std::memory_order_acq_rel));
        return index;
    }

    FutexLock *find(unsigned index) noexcept
    {
        if (index == 0 || index >= count_.load(std::memory_order_acquire)) {
            return nullptr;
        }
        const Place place = place_of(index);
        return chunks_[place.chunk].load(std::memory_order_acquire) + place.offset;
    }
};

constinit MutexTable mutexes;

}  // namespace

extern "C" {

// Every mutex may be taken again by its holder, as option 1 asks.
[[gnu::weak]] unsigned xmu_create(const char * /*name*/, int /*option*/, unsigned *handle)
{
    if (handle == nullptr) {
        return EINVAL;
    }
    const unsigned index = mutexes.add();
    if (index == 0) {
        return ENOMEM;
    }
    *handle = index;
    return 0;
}

[[gnu::weak]] unsigned xmu_p(unsigned handle, int mode, int timeout)
{
    FutexLock *const lock = mutexes.find(handle);
    if (lock == nullptr || (mode != kTry && mode != kWait)) {
        return EINVAL;
    }
    const bool is_taken = mode == kTry ? lock->try_take() : lock->take_for(timeout);
    return is_taken ? 0 : kTimedOut;
}

[[gnu::weak]] unsigned xmu_v(unsigned handle)
{
    FutexLock *const lock = mutexes.find(handle);
    if (lock == nullptr) {
        return EINVAL;
    }
    return lock->release() ? 0 : EPERM;
}
}
