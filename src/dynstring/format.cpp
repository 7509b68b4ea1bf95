// A format may do all that the C library knows: "%n" into a format that lies in writable memory must not end the
// process, as the checking variant of vsnprintf would.
#undef _FORTIFY_SOURCE

#include "dynstring/format.h"

#include "dynstring/create.h"
#include "dynstring/place.h"
#include "dynstring/quick_print.h"
#include "memmanager/trace.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace memm::strings {

namespace {

// vsnprintf with an argument list that can be used again; a failure is an empty text.
u64 print_once(char *room, u64 size, const char *format, std::va_list arguments) noexcept
{
    std::va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(room, static_cast<std::size_t>(size), format, copy);
    va_end(copy);
    if (length < 0) {
        std::memset(room, 0, static_cast<std::size_t>(size));
        return 0;
    }
    return static_cast<u64>(length);
}

// The size of a text of that many printed characters. It ends at its first zero, which "%c" can print anywhere; what
// was printed behind it is cleared.
u32 end_text(char *text, u64 printed) noexcept
{
    auto *const zero = static_cast<char *>(std::memchr(text, 0, static_cast<std::size_t>(printed)));
    if (zero == nullptr) {
        return static_cast<u32>(printed + 1);
    }
    std::memset(zero, 0, static_cast<std::size_t>(text + printed - zero));
    return static_cast<u32>(zero - text + 1);
}

Result finish_with(Rewrite &rewrite, u32 size) noexcept
{
    rewrite.wrote(size, size);
    return rewrite.finish();
}

// A text of that length, into a block of its exact size.
Result print_outside(Rewrite &rewrite, u64 length, const char *format, std::va_list arguments) noexcept
{
    if (const u64 max = rewrite.max_size(); max != 0) {
        length = std::min(length, max - 1);
    }
    char *const text = rewrite.make_room_outside(length + 1, length + 1);
    if (text == nullptr) {
        return rewrite.finish();
    }
    print_once(text, length + 1, format, arguments);
    return finish_with(rewrite, end_text(text, length));
}

}  // namespace

// Straight into the free space of the current buffer when the text fits there, or is cut there by its limit; else what
// stands there only tells the length.
Result print_to(Held held, TextPool &pool, dynstr &record, const char *format, std::va_list arguments) noexcept
{
    Rewrite rewrite(held, pool, record);
    if (!rewrite.set_aside()) {
        return Result::no_memory;
    }
    if (pool.room() == 0) {
        char no_room = '\0';
        return print_outside(rewrite, print_once(&no_room, 1, format, arguments), format, arguments);
    }
    const u64 max = rewrite.max_size();
    const bool limited = max != 0 && pool.room() >= max;
    const u64 room = limited ? max : std::min(pool.room(), kMaxTextSize);
    char *const text = rewrite.make_room(room, room);
    if (const auto length = quick_print(text, static_cast<std::size_t>(room), format, arguments)) {
        return finish_with(rewrite, static_cast<u32>(*length + 1));
    }
    const u64 length = print_once(text, room, format, arguments);
    if (limited || length < room) {
        return finish_with(rewrite, end_text(text, std::min(length, room - 1)));
    }
    std::memset(text, 0, static_cast<std::size_t>(room));
    return print_outside(rewrite, length, format, arguments);
}

Result place_text(Held held, TextPool &pool, dynstr &record, std::string_view text) noexcept
{
    Rewrite rewrite(held, pool, record);
    if (!rewrite.set_aside()) {
        return Result::no_memory;
    }
    const u64 whole = u64{text.size()} + 1;
    const u64 size = rewrite.max_size() != 0 ? std::min<u64>(whole, rewrite.max_size()) : whole;
    if (char *const room = rewrite.make_room(size, size); room != nullptr) {
        const auto length = static_cast<std::size_t>(size) - 1;
        std::memcpy(room, text.data(), length);
        room[length] = '\0';
        rewrite.wrote(static_cast<u32>(size), static_cast<u32>(size));
    }
    return rewrite.finish();
}

namespace {

struct DigitPair {
    char digits[2];
};

constexpr std::array<DigitPair, 256> kPairs = [] {
    constexpr char kDigits[] = "0123456789abcdef";
    std::array<DigitPair, 256> pairs{};
    for (unsigned byte = 0; byte < pairs.size(); ++byte) {
        pairs[byte] = {{kDigits[byte >> 4], kDigits[byte & 15]}};
    }
    return pairs;
}();

void write_digits(char *text, const unsigned char *bytes, u64 count) noexcept
{
    for (const unsigned char *const end = bytes + count; bytes != end; ++bytes) {
        std::memcpy(text, &kPairs[*bytes], sizeof(DigitPair));
        text += sizeof(DigitPair);
    }
    *text = '\0';
}

}  // namespace

// A limit cuts whole bytes, never half of one.
Result write_hex(Rewrite &rewrite, const unsigned char *bytes, int count) noexcept
{
    if (bytes != nullptr && count > 0) {
        u64 size = u64{2} * static_cast<u32>(count) + 1;
        if (const u64 max = rewrite.max_size(); max != 0 && max < size) {
            size = (max - 1) / 2 * 2 + 1;
        }
        if (char *const room = rewrite.make_room(size, size); room != nullptr) {
            write_digits(room, bytes, size / 2);
            rewrite.wrote(static_cast<u32>(size), static_cast<u32>(size));
        }
    }
    return rewrite.finish();
}

namespace {

// What dynstr_sprintf() does, whatever writes the text.
template <typename Write> Result set_by(dynstr *d, Write write) noexcept
{
    if (d == nullptr) {
        return Result::invalid;
    }
    if (!is_string(d)) {
        if (is_traced(2)) {
            trc_def_printf("[DYNSTR] dynstr_sprintf: invalid dynstr passed\r\n");
        }
        return Result::invalid;
    }
    const ManagerLock lock("dynstr_sprintf");
    TextPool *const pool = changeable(d);
    return pool == nullptr ? Result::invalid : write(lock.held(), *pool);
}

// The constructors ask for their pool before they take the lock.
TextPool *pool_for(const char *function, unsigned poolid) noexcept
{
    TextPool *const pool = text_pool(PoolId{poolid});
    if (pool == nullptr) {
        trace_bad_pool(function);
    }
    return pool;
}

// The lock's tag is the function.
template <typename Write> dynstr *create_by(const char *function, TextPool &pool, Write write) noexcept
{
    const ManagerLock lock(function);
    const Held held = lock.held();
    return create_with(held, allocate_without_gc(held, PoolId{pool.poolid}),
                       [&](dynstr &record) { return write(held, record); });
}

}  // namespace

Result set_printed(dynstr *d, std::string_view text) noexcept
{
    return set_by(d, [&](Held held, TextPool &pool) { return place_text(held, pool, *d, text); });
}

dynstr *create_printed(unsigned poolid, std::string_view text) noexcept
{
    TextPool *const pool = pool_for("dynstr_fromprintf", poolid);
    if (pool == nullptr) {
        return nullptr;
    }
    const ManagerLock lock("dynstr_fromprintf");
    return create(lock.held(), *pool, {Source::Kind::text, text.data(), text.size()}, 0, -1);
}

}  // namespace memm::strings

using namespace memm;
using namespace memm::strings;

extern "C" {

unsigned dynstr_sprintf(dynstr *d, const char *format, ...)
{
    if (format == nullptr) {
        return to_c(Result::invalid);
    }
    va_list arguments;
    va_start(arguments, format);
    const Result result =
        set_by(d, [&](Held held, TextPool &pool) { return print_to(held, pool, *d, format, arguments); });
    va_end(arguments);
    return to_c(result);
}

dynstr *dynstr_fromprintf(unsigned poolid, const char *format, ...)
{
    TextPool *const pool = pool_for("dynstr_fromprintf", poolid);
    if (pool == nullptr || format == nullptr) {
        return nullptr;
    }
    va_list arguments;
    va_start(arguments, format);
    dynstr *const printed = create_by("dynstr_fromprintf", *pool, [&](Held held, dynstr &record) {
        return print_to(held, *pool, record, format, arguments);
    });
    va_end(arguments);
    return printed;
}

dynstr *dynstr_fromvprintf(unsigned poolid, const char *format, va_list arguments)
{
    TextPool *const pool = pool_for("dynstr_fromvprintf", poolid);
    if (pool == nullptr || format == nullptr) {
        return nullptr;
    }
    return create_by("dynstr_fromvprintf", *pool,
                     [&](Held held, dynstr &record) { return print_to(held, *pool, record, format, arguments); });
}

dynstr *dynstr_hexstringfromdata(unsigned poolid, const unsigned char *bytes, int count)
{
    TextPool *const pool = pool_for("dynstr_hexstringfromdata", poolid);
    return pool == nullptr ? nullptr : create_by("dynstr_hexstringfromdata", *pool, [&](Held held, dynstr &record) {
        Rewrite rewrite(held, *pool, record);  // of a new string: there is no old text to set aside
        return write_hex(rewrite, bytes, count);
    });
}
}
