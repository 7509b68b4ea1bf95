#pragma once

#include <gtest/gtest.h>
#include <iterator>
#include <span>
#include <string>

// A family of calls is one file of this folder: a decoder, which turns the bytes of a stream into calls, and a model,
// against which it holds the library after each call. Streams may be anything. What one leaves, the next goes on from,
// without end, so pools are made by the first stream and never again. drivers/ has a program for each source of
// streams.

// Empty, or the first difference.
std::string run_family(std::span<const unsigned char> bytes);

// Calls that were held against the model so far.
inline unsigned long long operations = 0;

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
    const auto &one_of(const auto &choices) { return std::data(choices)[next() % std::size(choices)]; }
};

// Keeps the first difference.
class Difference {
    std::string first_;

public:
    bool is_none() const { return first_.empty(); }
    const std::string &first() const { return first_; }
    void note(const std::string &what)
    {
        if (is_none())
            first_ = what;
    }
    void expect(bool holds, const char *what)
    {
        if (!holds)
            note(what);
    }
    // Whatever compares; gtest knows how to print it.
    template <typename Is, typename Expected> void same(const Is &is, const Expected &expected, const char *what)
    {
        if (!(is == expected))
            note(what + (": is " + testing::PrintToString(is)) + ", expected " + testing::PrintToString(expected));
    }
};
