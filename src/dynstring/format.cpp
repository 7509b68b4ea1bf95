#include "dynstring/format.h"

#include "dynstring/create.h"
#include "dynstring/place.h"
#include "memmanager/trace.h"

#include <memmanager/platform.h>
#include <algorithm>
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
    if (length < 0 && size > 0) {
        std::memset(room, 0, static_cast<std::size_t>(size));
    }
    return length < 0 ? 0 : static_cast<u64>(length);
}

// The text ends at its first zero, which "%c" can print anywhere; what was printed behind it is cleared.
u32 end_text(char *room, u64 printed) noexcept
{
    const auto *const zero = static_cast<const char *>(std::memchr(room, 0, static_cast<std::size_t>(printed)));
    if (zero == nullptr) {
        return static_cast<u32>(printed + 1);
    }
    const auto length = static_cast<u64>(zero - room);
    std::memset(room + length, 0, static_cast<std::size_t>(printed - length));
    return static_cast<u32>(length + 1);
}

}  // namespace

// Straight into the free space of the current buffer when the text fits there, at its limit at the latest; else a
// second time, into a block of its exact size.
Result print_to(Held held, TextPool &pool, dynstr &record, const char *format, std::va_list arguments) noexcept
{
    Rewrite rewrite(held, pool, record);
    if (!rewrite.set_aside()) {
        return Result::no_memory;
    }
    const u64 max = rewrite.max_size();
    const bool limited = max != 0 && pool.room() >= max;
    const u64 room = limited ? max : pool.room();
    char measured_only = '\0';
    char *text = room == 0 ? &measured_only : pool.fill_position();
    u64 length = print_once(text, std::max<u64>(room, 1), format, arguments);
    if (room != 0 && (length < room || limited)) {
        length = std::min(length, room - 1);
        if (rewrite.make_room(length + 1, length + 1) != nullptr) {
            const u32 size = end_text(text, length);
            rewrite.wrote(size, size);
        } else {
            std::memset(text, 0, static_cast<std::size_t>(length));
        }
        return rewrite.finish();
    }
    if (room != 0) {
        std::memset(text, 0, static_cast<std::size_t>(room));
    }
    if (max != 0) {
        length = std::min(length, max - 1);
    }
    text = rewrite.make_room_outside(length + 1, length + 1);
    if (text != nullptr) {
        print_once(text, length + 1, format, arguments);
        const u32 size = end_text(text, length);
        rewrite.wrote(size, size);
    }
    return rewrite.finish();
}

namespace {

constexpr char kDigits[] = "0123456789abcdef";

void write_digits(char *text, const unsigned char *bytes, u64 count) noexcept
{
    for (u64 i = 0; i < count; ++i) {
        *text++ = kDigits[bytes[i] >> 4];
        *text++ = kDigits[bytes[i] & 15];
    }
    *text = '\0';
}

}  // namespace

// A limit cuts whole bytes, never half of one.
Result write_hex(Held held, TextPool &pool, dynstr &record, const unsigned char *bytes, int count) noexcept
{
    Rewrite rewrite(held, pool, record);
    if (!rewrite.set_aside()) {
        return Result::no_memory;
    }
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

dynstr *create_printed(Held held, unsigned poolid, const char *format, std::va_list arguments) noexcept
{
    const PoolId id{poolid};
    return create_with(held, allocate_without_gc(held, id),
                       [&](dynstr &record) { return print_to(held, *text_pool(id), record, format, arguments); });
}

// Both constructors ask this before they take the lock.
bool may_print(unsigned poolid, const char *format, const char *function) noexcept
{
    if (text_pool(PoolId{poolid}) == nullptr) {
        trace_bad_pool(function);
        return false;
    }
    return format != nullptr;
}

}  // namespace

}  // namespace memm::strings

using namespace memm;
using namespace memm::strings;

extern "C" {

unsigned dynstr_sprintf(dynstr *d, const char *format, ...)
{
    if (d == nullptr || format == nullptr) {
        return to_c(Result::invalid);
    }
    if (!is_string(d)) {
        if (is_traced(2)) {
            trc_def_printf("[DYNSTR] dynstr_sprintf: invalid dynstr passed\r\n");
        }
        return to_c(Result::invalid);
    }
    const ManagerLock lock("dynstr_sprintf");
    TextPool *const pool = changeable(d);
    if (pool == nullptr) {
        return to_c(Result::invalid);
    }
    va_list arguments;
    va_start(arguments, format);
    const Result result = print_to(lock.held(), *pool, *d, format, arguments);
    va_end(arguments);
    return to_c(result);
}

dynstr *dynstr_fromprintf(unsigned poolid, const char *format, ...)
{
    if (!may_print(poolid, format, "dynstr_fromprintf")) {
        return nullptr;
    }
    va_list arguments;
    va_start(arguments, format);
    const ManagerLock lock("dynstr_fromprintf");
    dynstr *const record = create_printed(lock.held(), poolid, format, arguments);
    va_end(arguments);
    return record;
}

dynstr *dynstr_fromvprintf(unsigned poolid, const char *format, va_list arguments)
{
    if (!may_print(poolid, format, "dynstr_fromvprintf")) {
        return nullptr;
    }
    const ManagerLock lock("dynstr_fromvprintf");
    return create_printed(lock.held(), poolid, format, arguments);
}

dynstr *dynstr_hexstringfromdata(unsigned poolid, const unsigned char *bytes, int count)
{
    const PoolId id{poolid};
    if (text_pool(id) == nullptr) {
        trace_bad_pool("dynstr_hexstringfromdata");
        return nullptr;
    }
    const ManagerLock lock("dynstr_hexstringfromdata");
    const Held held = lock.held();
    return create_with(held, allocate_without_gc(held, id),
                       [&](dynstr &record) { return write_hex(held, *text_pool(id), record, bytes, count); });
}
}
