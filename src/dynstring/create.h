#pragma once

#include "dynstring/edit.h"

namespace memm::strings {

// A new record of the pool, or null. Gives it back when `fill(record)` fails, and answers null then.
template <typename Fill> dynstr *create_with(Held held, void *record, Fill fill) noexcept
{
    if (record == nullptr) {
        return nullptr;
    }
    if (fill(*static_cast<dynstr *>(record)) != Result::ok) {
        static_cast<void>(release(held, record));
        return nullptr;
    }
    return static_cast<dynstr *>(record);
}

// A new string made of a text, or null. The record may come from the pool's reserve.
dynstr *create(Held, TextPool &pool, const Source &source, int offset, int length) noexcept;

// As dynstr_fromstring_nolock() and dynstr_fromsubdynstr_nolock(), messages included.
dynstr *create_from_text(Held, PoolId id, const char *text) noexcept;
dynstr *copy_part(Held, const dynstr *source, int offset, int length) noexcept;

}  // namespace memm::strings
