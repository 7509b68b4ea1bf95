#pragma once

#include <memmanager/lock.h>
#include <memmanager/memmanager.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

// What every program here starts with, whatever it measures.
namespace bench {

// The same sequence in every run.
class Random {
    std::uint64_t state_;

public:
    explicit Random(std::uint64_t seed) : state_(seed * 0x9e3779b97f4a7c15U + 1) {}

    std::uint32_t next()
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<std::uint32_t>(state_ >> 32);
    }
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(next()) * limit >> 32; }

    template <class T> void shuffle(std::vector<T> &items)
    {
        for (std::size_t i = items.size(); i > 1; i--) {
            std::swap(items[i - 1], items[below(i)]);
        }
    }
};

[[noreturn]] inline void give_up(const char *reason)
{
    std::fprintf(stderr, "bench: %s\n", reason);
    std::exit(1);
}

inline unsigned id_or_exit(int id)
{
    if (id < 0) {
        give_up("no pool");
    }
    return static_cast<unsigned>(id);
}

inline void start_library()
{
    if (memm_init(200, 32) != MEMM_OK) {
        give_up("the manager does not start");
    }
    lock_settrace("", 0);
}

// Blocks in the kernel for ever.
inline void park_a_thread()
{
    static std::mutex gate;
    gate.lock();
    std::thread([] { gate.lock(); }).detach();
}

}  // namespace bench
