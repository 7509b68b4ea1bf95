#include "base/wide.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

namespace memm {

namespace {

// Subtracts 255, which is adding 1, where a byte is zero.
template <typename Bytes> [[gnu::always_inline]] inline void add_zeros(Bytes &sum, const char *from) noexcept
{
    Bytes bytes;
    std::memcpy(&bytes, from, sizeof bytes);
    sum -= reinterpret_cast<Bytes>(bytes == 0);
}

// The same where `mask` has a byte of ones.
template <typename Bytes>
[[gnu::always_inline]] inline void add_zeros(Bytes &sum, const char *from, const unsigned char *mask) noexcept
{
    Bytes bytes;
    Bytes counted;
    std::memcpy(&bytes, from, sizeof bytes);
    std::memcpy(&counted, mask, sizeof counted);
    sum -= reinterpret_cast<Bytes>(bytes == 0) & counted;
}

// The mask that begins n bytes further on has ones for the last n bytes of a block.
template <std::ptrdiff_t Block> struct Masks {
    unsigned char bytes[2 * Block] = {};
    constexpr Masks() noexcept { std::fill(bytes + Block, bytes + 2 * Block, static_cast<unsigned char>(255)); }
};
template <std::ptrdiff_t Block> constexpr Masks<Block> kMasks;

// Blocks of four vectors; the last one is laid against the end, with what it has in common with the one before masked
// out, so that no branch depends on the bytes that are left over.
template <typename Bytes> [[gnu::always_inline]] inline u32 count_zeros_by(const char *from, const char *end) noexcept
{
    constexpr std::ptrdiff_t kVector = sizeof(Bytes);
    constexpr std::ptrdiff_t kBlock = 4 * kVector;
    constexpr std::ptrdiff_t kMost = 254;  // and the last one: a byte of a sum counts up to 255 zeros
    u32 zeros = 0;
    if (end - from < kBlock) {
        for (; from < end; ++from) {
            zeros += *from == '\0' ? 1 : 0;
        }
        return zeros;
    }
    bool is_done = false;
    while (!is_done) {
        Bytes a{};
        Bytes b{};
        Bytes c{};
        Bytes d{};
        const char *const stop = from + std::min((end - from) / kBlock, kMost) * kBlock;
        for (; from < stop; from += kBlock) {
            add_zeros(a, from);
            add_zeros(b, from + kVector);
            add_zeros(c, from + 2 * kVector);
            add_zeros(d, from + 3 * kVector);
        }
        is_done = end - from < kBlock;
        if (is_done) {
            const unsigned char *const mask = kMasks<kBlock>.bytes + (end - from);
            const char *const last = end - kBlock;
            add_zeros(a, last, mask);
            add_zeros(b, last + kVector, mask + kVector);
            add_zeros(c, last + 2 * kVector, mask + 2 * kVector);
            add_zeros(d, last + 3 * kVector, mask + 3 * kVector);
        }
        for (std::size_t i = 0; i < sizeof(Bytes); ++i) {
            zeros += u32{a[i]} + b[i] + c[i] + d[i];
        }
    }
    return zeros;
}

constexpr u32 kShort = 224;

// Most moves are short, and nobody foresees how short: copied as if all had the same length they need no call, and no
// branch that depends on theirs.
template <typename Copy>
[[gnu::always_inline]] inline void move_down_by(const Move *moves, u32 count, const char *end, Copy copy_short) noexcept
{
    for (const Move *move = moves; move != moves + count; ++move) {
        char *const to = move->from - move->down;
        if (move->length <= kShort && move->down >= kShort && end - move->from >= std::ptrdiff_t{kShort}) [[likely]] {
            copy_short(to, move->from);
        } else {
            std::memmove(to, move->from, move->length);
        }
    }
}

#if defined(__x86_64__) || defined(__i386__)
using WideVector [[gnu::vector_size(32)]] = unsigned char;

bool has_wide_vectors() noexcept { return __builtin_cpu_supports("avx2") != 0; }

[[gnu::target("avx2")]] u32 count_zeros_wide(const char *from, const char *end) noexcept
{
    return count_zeros_by<WideVector>(from, end);
}

[[gnu::always_inline]] inline void copy_vector(char *to, const char *from) noexcept
{
    WideVector bytes;
    std::memcpy(&bytes, from, sizeof bytes);
    std::memcpy(to, &bytes, sizeof bytes);
}

template <std::size_t... Number>
[[gnu::always_inline]] inline void copy_vectors(char *to, const char *from,
                                                std::index_sequence<Number...> /*vectors*/) noexcept
{
    (copy_vector(to + Number * sizeof(WideVector), from + Number * sizeof(WideVector)), ...);
}

[[gnu::target("avx2")]] void move_down_wide(const Move *moves, u32 count, const char *end) noexcept
{
    move_down_by(moves, count, end, [](char *to, const char *from) {
        copy_vectors(to, from, std::make_index_sequence<kShort / sizeof(WideVector)>());
    });
}
#endif

}  // namespace

bool has_vectors() noexcept
{
#if defined(__SSE2__) || defined(__ARM_NEON) || defined(__VEC__)
    return true;
#elif defined(__i386__)
    return has_wide_vectors();
#else
    return false;
#endif
}

u32 count_zeros_narrow(const char *from, const char *end) noexcept
{
    using Vector [[gnu::vector_size(16)]] = unsigned char;
    return count_zeros_by<Vector>(from, end);
}

void move_down_narrow(const Move *moves, u32 count, const char *end) noexcept
{
    move_down_by(moves, count, end, [](char *to, const char *from) { std::memcpy(to, from, kShort); });
}

u32 count_zeros(const char *from, const char *end) noexcept
{
#if defined(__x86_64__) || defined(__i386__)
    if (has_wide_vectors()) {
        return count_zeros_wide(from, end);
    }
#endif
    return count_zeros_narrow(from, end);
}

void move_down(const Move *moves, u32 count, const char *end) noexcept
{
#if defined(__x86_64__) || defined(__i386__)
    if (has_wide_vectors()) {
        move_down_wide(moves, count, end);
        return;
    }
#endif
    move_down_narrow(moves, count, end);
}

}  // namespace memm
