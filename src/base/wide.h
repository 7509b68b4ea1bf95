#pragma once

#include "base/bits.h"

// Work on many bytes, with vectors as wide as the processor has them.
namespace memm {

// Whether the processor is known to have vectors. Where it is not, a search by the C library, which knows the processor
// that it runs on, finds zeros faster than count_zeros() counts them.
bool has_vectors() noexcept;

u32 count_zeros(const char *from, const char *end) noexcept;

// Bytes that go to a lower address; both places may overlap.
struct Move {
    char *from;
    u32 length;
    u32 down;

    char *new_end() const noexcept { return from - down + length; }
};

// In rising order, each at least as far down as the one before. `end` is that of the memory around them. What lies
// between the new end of one and its old end may be overwritten.
void move_down(const Move *moves, u32 count, const char *end) noexcept;

// What both do where the processor has no wider vectors than the library is built for.
u32 count_zeros_narrow(const char *from, const char *end) noexcept;
void move_down_narrow(const Move *moves, u32 count, const char *end) noexcept;

}  // namespace memm
