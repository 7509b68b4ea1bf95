#include "dynstring/quick_print.h"

#include <charconv>
#include <cstring>
#include <string_view>

namespace memm::strings {

namespace {

struct Conversion {
    bool left = false, zeros = false;
    unsigned width = 0;
    unsigned longs = 0;  // how many 'l'
    char letter = '\0';
};

// Reads what follows a '%'. The letter may be anything: whoever prints finds out.
const char *read_conversion(const char *at, Conversion &conversion) noexcept
{
    constexpr unsigned kWidest = 1000;
    for (; *at == '-' || *at == '0'; ++at) {
        (*at == '-' ? conversion.left : conversion.zeros) = true;
    }
    for (; *at >= '0' && *at <= '9' && conversion.width < kWidest; ++at) {
        conversion.width = conversion.width * 10 + static_cast<unsigned>(*at - '0');
    }
    for (; *at == 'l' && conversion.longs < 2; ++at) {
        ++conversion.longs;
    }
    conversion.letter = *at;
    return at + 1;
}

// A copy of the caller's list; in a record of its own, so that it can be handed on.
struct Arguments {
    std::va_list list;

    long long signed_number(unsigned longs) noexcept
    {
        return longs == 0 ? va_arg(list, int) : longs == 1 ? va_arg(list, long) : va_arg(list, long long);
    }
    unsigned long long unsigned_number(unsigned longs) noexcept
    {
        return longs == 0   ? va_arg(list, unsigned)
               : longs == 1 ? va_arg(list, unsigned long)
                            : va_arg(list, unsigned long long);
    }
};

// Every step answers false when it has to give up.
class QuickPrinter {
    char *at_;
    char *const end_;  // where the terminating zero must stand at the latest
    Arguments &arguments_;

    std::size_t room() const noexcept { return static_cast<std::size_t>(end_ - at_); }

    void fill(char c, std::size_t count) noexcept
    {
        std::memset(at_, c, count);
        at_ += count;
    }
    void copy(std::string_view bytes) noexcept
    {
        std::memcpy(at_, bytes.data(), bytes.size());
        at_ += bytes.size();
    }

    // Most fields are as wide as what stands in them.
    bool put_field(const Conversion &conversion, std::string_view body) noexcept
    {
        if (body.size() < conversion.width) {
            return put_padded(conversion, body, conversion.width - body.size());
        }
        if (body.size() > room()) {
            return false;
        }
        copy(body);
        return true;
    }

    // Zeros go behind a sign.
    bool put_padded(const Conversion &conversion, std::string_view body, std::size_t padding) noexcept
    {
        if (conversion.width > room()) {
            return false;
        }
        if (conversion.left) {
            copy(body);
            fill(' ', padding);
        } else if (conversion.zeros && body.front() == '-') {
            *at_++ = '-';
            fill('0', padding);
            copy({body.data() + 1, body.size() - 1});
        } else {
            fill(conversion.zeros ? '0' : ' ', padding);
            copy(body);
        }
        return true;
    }

    bool put_text(const Conversion &conversion) noexcept
    {
        const char *const text = va_arg(arguments_.list, const char *);
        return text != nullptr && put_field(conversion, text);
    }

    bool put_character(const Conversion &conversion) noexcept
    {
        const auto c = static_cast<char>(va_arg(arguments_.list, int));
        return c != '\0' && put_field(conversion, {&c, 1});
    }

    // A 32-bit target divides 64-bit numbers in software: keep to 32 bits where the value fits.
    template <int Base> bool put_number(const Conversion &conversion, unsigned long long value, bool negative) noexcept
    {
        char digits[21];
        *digits = '-';
        char *const start = digits + 1;
        char *const end = value <= 0xffffffffU
                              ? std::to_chars(start, std::end(digits), static_cast<unsigned>(value), Base).ptr
                              : std::to_chars(start, std::end(digits), value, Base).ptr;
        const char *const body = negative ? digits : start;
        return put_field(conversion, {body, static_cast<std::size_t>(end - body)});
    }

    bool put_signed(const Conversion &conversion) noexcept
    {
        const long long value = arguments_.signed_number(conversion.longs);
        const auto bits = static_cast<unsigned long long>(value);
        return put_number<10>(conversion, value < 0 ? 0 - bits : bits, value < 0);
    }

public:
    QuickPrinter(char *room, std::size_t size, Arguments &arguments) noexcept
        : at_(room), end_(room + size - 1), arguments_(arguments)
    {
    }

    char *end_text() noexcept
    {
        *at_ = '\0';
        return at_;
    }

    // Up to a '%' or the end of the format; anything else where it stops is what the room does not hold.
    const char *put_literal(const char *from) noexcept
    {
        char *to = at_;
        while (*from != '%' && *from != '\0' && to != end_) {
            *to++ = *from++;
        }
        at_ = to;
        return from;
    }

    bool put(const Conversion &conversion) noexcept
    {
        const bool is_plain = conversion.longs == 0 && !conversion.zeros;
        if (conversion.left && conversion.zeros) {
            return false;
        }
        switch (conversion.letter) {
        case 'd':
        case 'i':
            return put_signed(conversion);
        case 'u':
            return put_number<10>(conversion, arguments_.unsigned_number(conversion.longs), false);
        case 'x':
            return put_number<16>(conversion, arguments_.unsigned_number(conversion.longs), false);
        case 's':
            return is_plain && put_text(conversion);
        case 'c':
            return is_plain && put_character(conversion);
        case '%':
            return is_plain && !conversion.left && conversion.width == 0 && put_field(conversion, "%");
        default:
            return false;
        }
    }
};

}  // namespace

std::optional<std::size_t> quick_print(char *room, std::size_t size, const char *format,
                                       std::va_list arguments) noexcept
{
    Arguments copy;
    va_copy(copy.list, arguments);
    QuickPrinter printer(room, size, copy);
    bool goes_on = true;
    for (;;) {
        format = printer.put_literal(format);
        if (*format != '%') {
            break;
        }
        Conversion conversion;
        format = read_conversion(format + 1, conversion);
        if (!printer.put(conversion)) {
            goes_on = false;
            break;
        }
    }
    va_end(copy.list);
    return goes_on && *format == '\0' ? std::optional(static_cast<std::size_t>(printer.end_text() - room))
                                      : std::nullopt;
}

}  // namespace memm::strings
