#pragma once

#include "support/pools.h"

#include <optional>
#include <span>

// A family of calls is one file of this folder: a decoder, which turns the bytes of a stream into calls, and a model,
// against which it holds the library after each call. Streams may be anything. What one leaves, the next goes on from,
// without end, so pools are made by the first operation and never again. drivers/ has a program for each source of
// streams.

// Hands out the bytes of a stream; zeros follow the last.
class Stream {
    std::span<const unsigned char> rest_;

public:
    explicit Stream(std::span<const unsigned char> bytes) : rest_(bytes) {}

    bool is_empty() const { return rest_.empty(); }
    unsigned next()
    {
        if (rest_.empty())
            return 0;
        const unsigned byte = rest_.front();
        rest_ = rest_.subspan(1);
        return byte;
    }
    unsigned below(unsigned limit) { return next() % limit; }
    int within(int from, int to) { return from + static_cast<int>(below(static_cast<unsigned>(to - from + 1))); }
    bool one_in(unsigned chances) { return below(chances) == 0; }
    auto &one_of(auto &&choices) { return std::data(choices)[next() % std::size(choices)]; }
};

// Those that were held against the model so far, with what a step does many of.
inline unsigned long long operations = 0;

// The next operation, held against the model. The manager has been started, for forty pools, four of them of strings.
void step(Stream &in);

// The first difference, or empty.
inline std::string difference;

// Whatever compares; gtest knows how to print it.
template <typename Is, typename Expected> void same(const Is &is, const Expected &expected, const char *what)
{
    if (difference.empty() && !(is == expected))
        difference = what + (": is " + testing::PrintToString(is)) + ", expected " + testing::PrintToString(expected);
}

inline void *object_at(unsigned pool, int slot)
{
    return slot < 0 ? nullptr : pool_at(pool).slots + static_cast<unsigned>(slot) * pool_at(pool).slot_size + 4;
}
