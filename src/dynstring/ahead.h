#pragma once

#include <memmanager/dynstring.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

// A compaction follows the list of a buffer, whose records lie anywhere in their pool: it would wait for each of them.
// So a record tells how far off the one lies that stands a few places behind it, for the walk to fetch. On a 64-bit
// target that takes the bytes that its members leave over; on a 32-bit one they leave none, and nothing is told.
//
// What a record tells may be out of date. It is fetched, never read through.
namespace memm::strings {

class Ahead {
    using Distance = std::int32_t;  // in bytes; pools of more than 2 GB have some that do not fit
    static constexpr std::size_t kAt = offsetof(dynstr, info) + sizeof(dynstr::info);

public:
    static constexpr bool kHasRoom = kAt + sizeof(Distance) <= offsetof(dynstr, prev);
    static constexpr int kPlaces = 8;

    static void tell(dynstr &record, const dynstr &of) noexcept
    {
        if constexpr (kHasRoom) {
            const auto distance = static_cast<Distance>(address(of) - address(record));
            std::memcpy(reinterpret_cast<char *>(&record) + kAt, &distance, sizeof distance);
        }
    }

    // The end of that record, where the walk finds the next one. (It may lie in two cache lines; to fetch both was not
    // faster.)
    static void fetch(const dynstr &record) noexcept
    {
        if constexpr (kHasRoom) {
            Distance distance;
            std::memcpy(&distance, reinterpret_cast<const char *>(&record) + kAt, sizeof distance);
            const std::uintptr_t ahead = address(record) + static_cast<std::uintptr_t>(std::intptr_t{distance});
            __builtin_prefetch(reinterpret_cast<const char *>(ahead) + offsetof(dynstr, next), 1);
        }
    }

private:
    static std::uintptr_t address(const dynstr &record) noexcept { return reinterpret_cast<std::uintptr_t>(&record); }
};

static_assert(Ahead::kHasRoom == (sizeof(void *) == 8));

// Follows the end of a growing list, Ahead::kPlaces behind, and tells each record that it passes of the new last one.
template <bool HasRoom> class BasicTrail {
    dynstr *record_ = nullptr;

public:
    // Takes its place behind the last record of a list. A list that is too short has none.
    void begin(dynstr *last) noexcept
    {
        record_ = last;
        for (int places = 1; record_ != nullptr && places < Ahead::kPlaces; ++places) {
            record_ = record_->prev;
        }
    }

    void append(const dynstr &record) noexcept
    {
        if (record_ != nullptr) {
            Ahead::tell(*record_, record);
            record_ = record_->next;
        }
    }

    // Null without a place.
    const dynstr *record() const noexcept { return record_; }

    // Another record takes the place of this one in the list.
    void replace(const dynstr &record, dynstr &by) noexcept
    {
        if (record_ == &record) {
            record_ = &by;
        }
    }
};

template <> class BasicTrail<false> {
public:
    void begin(dynstr * /*last*/) noexcept {}
    void append(const dynstr & /*record*/) noexcept {}
    const dynstr *record() const noexcept { return nullptr; }
    void replace(const dynstr & /*record*/, dynstr & /*by*/) noexcept {}
};

using Trail = BasicTrail<Ahead::kHasRoom>;

}  // namespace memm::strings
