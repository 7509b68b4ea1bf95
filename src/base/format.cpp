// A format is read twice with the same reader: once to see that all of it is inside the bounded set, so that nothing is
// written when it is not, and once to print.
//
// Every conversion ends as one field:   blanks | prefix | zeros | body | blanks
// e.g. "%+08d" of 42                            "+"     "00000" "42"
#include "base/format.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

namespace memm {
namespace {

using Number = unsigned long long;

enum class Length : unsigned char { none, hh, h, l, ll };

enum Flag : unsigned char { kLeft = 1, kZero = 2, kPlus = 4, kBlank = 8, kAlternate = 16 };

struct Conversion {
    unsigned flags = 0;
    bool width_is_argument = false, precision_is_argument = false;
    unsigned width = 0;
    int precision = -1;  // none given
    Length length = Length::none;
    char letter = '\0';

    bool has(Flag flag) const noexcept { return (flags & flag) != 0; }
};

unsigned flag_of(char sign) noexcept
{
    return sign == '-'   ? kLeft
           : sign == '0' ? kZero
           : sign == '+' ? kPlus
           : sign == ' ' ? kBlank
           : sign == '#' ? kAlternate
                         : 0;
}

const char *read_flags(const char *at, unsigned &flags) noexcept
{
    for (unsigned flag = 0; (flag = flag_of(*at)) != 0; ++at) {
        flags |= flag;
    }
    return at;
}

// Null when the number does not fit an int: what the C library makes of that is left to it.
const char *read_number(const char *at, int &number) noexcept
{
    number = 0;
    for (; *at >= '0' && *at <= '9'; ++at) {
        const int digit = *at - '0';
        if (number > (INT_MAX - digit) / 10) {
            return nullptr;
        }
        number = number * 10 + digit;
    }
    return at;
}

const char *read_length(const char *at, Length &length) noexcept
{
    static_assert(sizeof(std::size_t) == sizeof(long) && sizeof(std::ptrdiff_t) == sizeof(long));
    static_assert(sizeof(std::intmax_t) == sizeof(long long));
    const bool is_double = (*at == 'h' || *at == 'l') && at[1] == *at;
    switch (*at) {
    case 'h':
        length = is_double ? Length::hh : Length::h;
        break;
    case 'l':
        length = is_double ? Length::ll : Length::l;
        break;
    case 'z':
    case 't':
        length = Length::l;
        break;
    case 'j':
        length = Length::ll;
        break;
    default:
        return at;
    }
    return at + (is_double ? 2 : 1);
}

// Null when a number is too large.
const char *read_width_and_precision(const char *at, Conversion &conversion) noexcept
{
    if (*at == '*') {
        conversion.width_is_argument = true;
        ++at;
    } else {
        int width = 0;
        if ((at = read_number(at, width)) == nullptr) {
            return nullptr;
        }
        conversion.width = static_cast<unsigned>(width);
    }
    if (*at != '.') {
        return at;
    }
    if (*++at == '*') {
        conversion.precision_is_argument = true;
        return at + 1;
    }
    return read_number(at, conversion.precision);
}

// Reads what follows a '%'. Answers the place behind the conversion, or null when it is outside the bounded set.
const char *read_conversion(const char *at, Conversion &conversion) noexcept
{
    const char *const start = at;
    if (*at < 'A') {  // as all flags, digits, '*' and '.' are
        at = read_width_and_precision(read_flags(at, conversion.flags), conversion);
        if (at == nullptr) {
            return nullptr;
        }
    }
    at = read_length(at, conversion.length);
    conversion.letter = *at;
    switch (*at) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
        return at + 1;
    case 'c':
    case 's':
    case 'p':
        return conversion.length == Length::none ? at + 1 : nullptr;
    case '%':
        return at == start ? at + 1 : nullptr;
    default:
        return nullptr;
    }
}

const char *end_of_literal(const char *at) noexcept
{
    while (*at != '\0' && *at != '%') {
        ++at;
    }
    return at;
}

bool is_bounded(const char *at) noexcept
{
    for (at = end_of_literal(at); *at != '\0'; at = end_of_literal(at)) {
        Conversion conversion;
        if ((at = read_conversion(at + 1, conversion)) == nullptr) {
            return false;
        }
    }
    return true;
}

// A copy of the caller's list; in a record of its own, so that functions can move it through a reference.
struct Arguments {
    std::va_list list;

    template <class Signed, class Unsigned, class Passed> long long take(bool is_signed) noexcept
    {
        const Passed value = va_arg(list, Passed);
        return is_signed ? static_cast<long long>(static_cast<Signed>(value))
                         : static_cast<long long>(static_cast<Unsigned>(value));
    }

    // Sign- or zero-extended from its length.
    long long integer(Length length, bool is_signed) noexcept
    {
        switch (length) {
        case Length::hh:
            return take<signed char, unsigned char, int>(is_signed);
        case Length::h:
            return take<short, unsigned short, int>(is_signed);
        case Length::l:
            return take<long, unsigned long, long>(is_signed);
        case Length::ll:
            return take<long long, unsigned long long, long long>(is_signed);
        case Length::none:
            break;
        }
        return take<int, unsigned, int>(is_signed);
    }
};

// Digits are made from the last to the first, to end at `end`; the answer is where they start.
template <unsigned Base, class Unsigned> char *put_digits_of(char *end, Unsigned value, const char *digits) noexcept
{
    do {
        *--end = digits[value % Base];
        value /= Base;
    } while (value != 0);
    return end;
}

template <class Unsigned> char *put_digits_as(char *end, Unsigned value, unsigned base, const char *digits) noexcept
{
    switch (base) {
    case 8:
        return put_digits_of<8>(end, value, digits);
    case 10:
        return put_digits_of<10>(end, value, digits);
    default:
        return put_digits_of<16>(end, value, digits);
    }
}

// A 32-bit target divides 64-bit numbers in software: keep to 32 bits where the value fits.
char *put_digits(char *end, Number value, unsigned base, bool upper) noexcept
{
    const char *const digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    return value <= UINT_MAX ? put_digits_as(end, static_cast<unsigned>(value), base, digits)
                             : put_digits_as(end, value, base, digits);
}

class Printer {
    TextSink sink_;
    Arguments &arguments_;

public:
    Printer(TextSink sink, Arguments &arguments) noexcept : sink_(sink), arguments_(arguments) {}

    void put(std::string_view bytes) const noexcept
    {
        if (!bytes.empty()) {
            sink_.write(sink_.cookie, bytes.data(), bytes.size());
        }
    }

    void print(Conversion &conversion) noexcept
    {
        take_width_and_precision(conversion);
        switch (conversion.letter) {
        case 'd':
        case 'i':
            return print_signed(conversion);
        case 'c':
            return print_character(conversion);
        case 's':
            return print_string(conversion, va_arg(arguments_.list, const char *));
        case 'p':
            return print_pointer(conversion, va_arg(arguments_.list, const void *));
        case '%':
            return put("%");
        default:
            return print_unsigned(conversion);
        }
    }

private:
    void take_width_and_precision(Conversion &conversion) noexcept
    {
        if (conversion.width_is_argument) {
            const int width = va_arg(arguments_.list, int);
            if (width < 0) {
                conversion.flags |= kLeft;
            }
            conversion.width = width < 0 ? 0u - static_cast<unsigned>(width) : static_cast<unsigned>(width);
        }
        if (conversion.precision_is_argument) {
            conversion.precision = std::max(va_arg(arguments_.list, int), -1);
        }
    }

    void repeat(std::string_view pattern, std::size_t count) const noexcept
    {
        for (; count > pattern.size(); count -= pattern.size()) {
            put(pattern);
        }
        put({pattern.data(), count});
    }

    void put_field(const Conversion &conversion, std::string_view prefix, std::size_t zeros,
                   std::string_view body) const noexcept
    {
        const std::size_t used = prefix.size() + zeros + body.size();
        const std::size_t blanks = conversion.width > used ? conversion.width - used : 0;
        repeat("                ", conversion.has(kLeft) ? 0 : blanks);
        put(prefix);
        repeat("0000000000000000", zeros);
        put(body);
        repeat("                ", conversion.has(kLeft) ? blanks : 0);
    }

    void print_signed(const Conversion &conversion) noexcept
    {
        const long long value = arguments_.integer(conversion.length, true);
        const Number magnitude = value < 0 ? 0 - static_cast<Number>(value) : static_cast<Number>(value);
        const std::string_view sign = value < 0 ? "-" : conversion.has(kPlus) ? "+" : conversion.has(kBlank) ? " " : "";
        print_number(conversion, sign, magnitude, 10);
    }

    void print_unsigned(const Conversion &conversion) noexcept
    {
        const auto value = static_cast<Number>(arguments_.integer(conversion.length, false));
        switch (conversion.letter) {
        case 'u':
            return print_number(conversion, "", value, 10);
        case 'o':
            return print_number(conversion, "", value, 8);
        default:
            break;
        }
        const bool is_marked = conversion.has(kAlternate) && value != 0;
        print_number(conversion, !is_marked ? "" : conversion.letter == 'X' ? "0X" : "0x", value, 16);
    }

    // As "%#lx", where the C library keeps '+' and ' ' in effect, or "(nil)", which no precision cuts.
    void print_pointer(Conversion &conversion, const void *pointer) noexcept
    {
        if (pointer == nullptr) {
            return put_field(conversion, "", 0, "(nil)");
        }
        const std::string_view prefix = conversion.has(kPlus) ? "+0x" : conversion.has(kBlank) ? " 0x" : "0x";
        print_number(conversion, prefix, reinterpret_cast<std::uintptr_t>(pointer), 16);
    }

    void print_number(const Conversion &conversion, std::string_view prefix, Number value, unsigned base) const noexcept
    {
        char digits[(sizeof(Number) * CHAR_BIT + 2) / 3];
        char *const end = std::end(digits);
        char *start = end;
        if (value != 0 || conversion.precision != 0) {
            start = put_digits(end, value, base, conversion.letter == 'X');
        }
        const auto count = static_cast<std::size_t>(end - start);

        std::size_t zeros = 0;
        if (conversion.precision >= 0) {
            const auto wanted = static_cast<std::size_t>(conversion.precision);
            zeros = wanted > count ? wanted - count : 0;
        } else if (conversion.has(kZero) && !conversion.has(kLeft)) {
            const std::size_t used = prefix.size() + count;
            zeros = conversion.width > used ? conversion.width - used : 0;
        }
        if (base == 8 && conversion.has(kAlternate) && zeros == 0 && (value != 0 || count == 0)) {
            zeros = 1;
        }
        put_field(conversion, prefix, zeros, {start, count});
    }

    void print_character(const Conversion &conversion) noexcept
    {
        const auto byte = static_cast<char>(va_arg(arguments_.list, int));
        put_field(conversion, "", 0, {&byte, 1});
    }

    // Deliberate: a null text is "(null)" or nothing at all, never a part of it, as the C library has it.
    void print_string(const Conversion &conversion, const char *text) noexcept
    {
        constexpr std::string_view kNull = "(null)";
        const bool is_limited = conversion.precision >= 0;
        const auto limit = static_cast<std::size_t>(conversion.precision);
        if (text == nullptr) {
            return put_field(conversion, "", 0, is_limited && limit < kNull.size() ? "" : kNull);
        }
        put_field(conversion, "", 0, {text, is_limited ? strnlen(text, limit) : std::strlen(text)});
    }
};

struct Buffer {
    char *bytes;
    std::size_t size;
    std::size_t length;  // of the whole text, what did not fit included

    static void append(void *cookie, const char *bytes, std::size_t count) noexcept
    {
        auto &buffer = *static_cast<Buffer *>(cookie);
        if (buffer.length < buffer.size) {
            std::memcpy(buffer.bytes + buffer.length, bytes, std::min(count, buffer.size - buffer.length));
        }
        buffer.length += count;
    }
};

}  // namespace

bool format(TextSink sink, const char *format, std::va_list arguments) noexcept
{
    if (!is_bounded(format)) {
        return false;
    }
    Arguments copy;
    va_copy(copy.list, arguments);
    Printer printer(sink, copy);
    for (const char *at = format;;) {
        const char *const end = end_of_literal(at);
        printer.put({at, static_cast<std::size_t>(end - at)});
        if (*end == '\0') {
            break;
        }
        Conversion conversion;
        at = read_conversion(end + 1, conversion);
        printer.print(conversion);
    }
    va_end(copy.list);
    return true;
}

std::size_t vformat_to(char *buffer, std::size_t size, const char *format, std::va_list arguments) noexcept
{
    Buffer text{buffer, size, 0};
    if (memm::format({&Buffer::append, &text}, format, arguments)) {
        if (size > 0) {
            buffer[std::min(text.length, size - 1)] = '\0';
        }
        return text.length;
    }
    std::va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(buffer, size, format, copy);
    va_end(copy);
    if (length >= 0) {
        return static_cast<std::size_t>(length);
    }
    if (size > 0) {
        buffer[0] = '\0';
    }
    return 0;
}

std::size_t format_to(char *buffer, std::size_t size, const char *format, ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, format);
    const std::size_t length = vformat_to(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

}  // namespace memm
