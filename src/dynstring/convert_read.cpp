// Values that stand in texts. A reader writes its result only when the whole of it was read; it reads under the lock,
// never beyond the text, and gives the same on every target and in every locale.
#include "dynstring/edit.h"
#include "dynstring/scanner.h"
#include "platform/probe.h"

#include <memmanager/platform.h>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <string_view>

namespace memm::strings {

namespace {

constexpr char kNoDate[] = "0001-01-01T00:00:00Z";

// What is no record may lie anywhere.
bool has_null_text(const void *pointer) noexcept
{
    if (owner_pool(pointer) != nullptr) {
        return size_of(*static_cast<const dynstr *>(pointer)) == 0;
    }
    for (std::size_t offset = 0; offset < sizeof(dynstr::str); offset += sizeof(u32)) {
        u32 word = 0;
        if (!read_word(reinterpret_cast<std::uintptr_t>(pointer) + offset, word) || word != 0) {
            return false;
        }
    }
    return true;
}

// The checks that come before the lock.
bool may_read_empty(const dynstr *d, const void *output, const char *function) noexcept
{
    if (d == nullptr || output == nullptr) {
        return false;
    }
    if (!is_string(d)) {
        trace_bad_string(function);
        return false;
    }
    return true;
}

// Most readers refuse a string without text, and do so before they complain about what is no string.
bool may_read(const dynstr *d, const void *output, const char *function) noexcept
{
    return d != nullptr && output != nullptr && !has_null_text(d) && may_read_empty(d, output, function);
}

// Another task may have released the string meanwhile.
template <typename Parse> unsigned parse_text(const dynstr *d, const char *tag, Parse parse) noexcept
{
    const ManagerLock lock(tag);
    if (!is_string(d)) {
        return to_c(Result::invalid);
    }
    const Source source = whole_text(*d);
    return to_c(parse(source.text == nullptr ? std::string_view{} : std::string_view{source.text, source.length}));
}

constexpr Result ok_if(bool converted) noexcept { return converted ? Result::ok : Result::invalid; }

// The text of a string is terminated.
bool read_address(std::string_view text, unsigned &address) noexcept
{
    if (text.empty()) {
        address = 0;
        return true;
    }
    in_addr parsed{};
    if (inet_aton(text.data(), &parsed) == 0) {
        return false;
    }
    address = parsed.s_addr;
    return true;
}

// "001122334455", or with any character between two bytes.
bool read_mac(std::string_view text, unsigned char *mac) noexcept
{
    constexpr std::size_t kBytes = 6;
    const bool separated = text.size() == 3 * kBytes - 1;
    if (text.size() != 2 * kBytes && !separated) {
        return false;
    }
    Scanner scanner(text);
    std::array<unsigned char, kBytes> bytes{};
    for (std::size_t i = 0; i < kBytes; ++i) {
        Number number;
        if ((separated && i > 0 && !scanner.any()) || !scanner.hexadecimal(2, number)) {
            return false;
        }
        bytes[i] = static_cast<unsigned char>(number.as_unsigned());
    }
    std::memcpy(mac, bytes.data(), kBytes);
    return true;
}

// "%04d-%02d-%02dT%02d:%02d:%02dZ": no range is checked, and the last character need not be there.
bool read_date(std::string_view text, xtm_date &date) noexcept
{
    struct Field {
        std::size_t width;
        char behind;
    };
    constexpr std::array<Field, 6> kFields{{{4, '-'}, {2, '-'}, {2, 'T'}, {2, ':'}, {2, ':'}, {2, 'Z'}}};
    std::array<int, kFields.size()> values{};
    Scanner scanner(text);
    for (std::size_t i = 0; i < kFields.size(); ++i) {
        Number number;
        if ((i > 0 && !scanner.literal(kFields[i - 1].behind)) || !scanner.decimal(kFields[i].width, number)) {
            return false;
        }
        values[i] = number.as_signed();
    }
    date.years = values[0] - 1900;
    date.month = values[1] - 1;
    date.day = values[2];
    date.hours = values[3];
    date.minutes = values[4];
    date.seconds = values[5];
    return true;
}

// Deliberate: nothing is validated. Every character has the value that the rule for digits gives it, in eight bits.
constexpr std::array<unsigned char, 256> kHexValues = [] {
    std::array<unsigned char, 256> values{};
    for (unsigned c = 0; c < values.size(); ++c) {
        const unsigned lower = c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c;
        values[c] = static_cast<unsigned char>(lower < 'a' ? lower - '0' : lower - 'a' + 10);
    }
    return values;
}();

constexpr std::size_t bytes_in(std::string_view hex) noexcept { return (hex.size() + 1) / 2; }

// The last digit of an odd number stands for a whole byte, in its upper half.
void read_hex(std::string_view hex, unsigned char *bytes) noexcept
{
    const auto *digits = reinterpret_cast<const unsigned char *>(hex.data());
    for (std::size_t i = hex.size() / 2; i > 0; --i, digits += 2) {
        *bytes++ = static_cast<unsigned char>(kHexValues[digits[0]] << 4 | kHexValues[digits[1]]);
    }
    if (hex.size() % 2 != 0) {
        *bytes = static_cast<unsigned char>(kHexValues[*digits] << 4);
    }
}

// Deliberate: both readers take the lock under the name of the unsigned one.
template <typename Value>
unsigned read_number(const dynstr *d, Value *value, const char *function, Value (Number::*as)() const noexcept) noexcept
{
    if (!may_read(d, value, function)) {
        return to_c(Result::invalid);
    }
    return parse_text(d, "dynstr_getulong", [value, as](std::string_view text) {
        Number number;
        const bool converted = Scanner(text).decimal(number);
        if (converted) {
            *value = (number.*as)();
        }
        return ok_if(converted);
    });
}

}  // namespace

}  // namespace memm::strings

using namespace memm;
using namespace memm::strings;

extern "C" {

unsigned dynstr_getulong(const dynstr *d, unsigned *value)
{
    return read_number(d, value, "dynstr_getulong", &Number::as_unsigned);
}

unsigned dynstr_getlong(const dynstr *d, int *value)
{
    return read_number(d, value, "dynstr_getlong", &Number::as_signed);
}

// Deliberate: the first character alone decides. "no" and "FALSE" are true.
unsigned dynstr_getbool(const dynstr *d, unsigned *value)
{
    if (!may_read_empty(d, value, "dynstr_getbool")) {
        return to_c(Result::invalid);
    }
    return parse_text(d, "dynstr_getbool", [value](std::string_view text) {
        *value = text.empty() || text[0] == '0' || text[0] == 'f' ? 0 : 1;
        return Result::ok;
    });
}

unsigned dynstr_getipaddr(const dynstr *d, unsigned *address)
{
    if (!may_read(d, address, "dynstr_getipaddr")) {
        return to_c(Result::invalid);
    }
    return parse_text(d, "dynstr_getipaddr",
                      [address](std::string_view text) { return ok_if(read_address(text, *address)); });
}

unsigned dynstr_getmacaddr(const dynstr *d, unsigned char *mac)
{
    if (!may_read(d, mac, "dynstr_getmacaddr")) {
        return to_c(Result::invalid);
    }
    return parse_text(d, "dynstr_getmacaddr", [mac](std::string_view text) { return ok_if(read_mac(text, mac)); });
}

// The comparison takes the lock by itself; the platform is asked without it.
unsigned dynstr_getutcdatetime(const dynstr *d, unsigned *seconds)
{
    if (!may_read(d, seconds, "dynstr_getutcdatetime")) {
        return to_c(Result::invalid);
    }
    if (dynstr_strcmp2(d, kNoDate) == 0) {
        *seconds = 0;
        return to_c(Result::ok);
    }
    xtm_date date{};
    const unsigned result =
        parse_text(d, "dynstr_getutcdatetime", [&date](std::string_view text) { return ok_if(read_date(text, date)); });
    if (result == to_c(Result::ok)) {
        xtm_getdaylightsaving(&date.daylightsaving);
        xtm_gettimezone(&date.timezone);
        xtm_time_date_struct_to_seconds(seconds, &date);
    }
    return result;
}

// What the text does not fill is cleared.
unsigned dynstr_gethexstring(const dynstr *d, unsigned char *buffer, int size)
{
    if (!may_read_empty(d, buffer, "dynstr_gethexstring")) {
        return to_c(Result::invalid);
    }
    int filled = 0;
    const unsigned result = parse_text(d, "dynstr_gethexstring", [&](std::string_view text) {
        filled = static_cast<int>(bytes_in(text));
        if (size < filled) {
            return Result::too_small;
        }
        read_hex(text, buffer);
        return Result::ok;
    });
    if (result == to_c(Result::ok)) {
        std::memset(buffer + filled, 0, static_cast<std::size_t>(size - filled));
    }
    return result;
}
}
