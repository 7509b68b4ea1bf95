// Formatted output against the C library's: flags, widths, lengths and letters in any mixture, also such as mean
// nothing, into strings with and without a limit and in a pool whose buffer is nearly full; and as in reports.
#include "base/format.h"
#include "dynstring/text_pool.h"
#include "models/family.h"
#include "support/recording_platform.h"

constexpr const char *kFlags[] = {"", "", "0", "-", "00", "-0", "+", " ", "#"};
constexpr const char *kWidths[] = {"", "", "1", "7", "12", "40", "300", ".3", "9.5", "."};
constexpr const char *kLengths[] = {"", "", "l", "ll", "h", "hh", "z", "j", "t"};
constexpr const char *kTails[] = {"", "", "%*.*o%p", "%*.*X%p%.2f"};
constexpr const char *kWords[] = {"", "ab", "a longer word than most", nullptr};
constexpr long long kValues[] = {0, 1, -1, 42, -100, 65, INT_MAX, INT_MIN, 4294967295, LLONG_MAX, LLONG_MIN};

struct Target {
    const unsigned pool = make_strings(400, 1, 100);  // more records than texts find room
    const memm::strings::TextPool &texts = *memm::strings::text_pool(memm::PoolId{pool});
    dynstr *const string = dynstr_calloc(pool);
    dynstr *filler = nullptr;  // takes a part of the buffer
};

void print(Target &target, Stream &in, const std::string &format, auto... values)
{
    auto &[pool, texts, string, filler] = target;
    if (in.one_in(4)) {
        memm_free(filler);
        filler = dynstr_fromprintf(pool, "%*s", in.within(0, 250), "");
    }
    const unsigned max = in.one_in(2) ? 0 : in.below(50);
    same(dynstr_reset(string) + dynstr_setmaxsize(string, max), 0U, "set-up");
    char printed[700];
    const auto size = static_cast<std::size_t>(std::snprintf(printed, sizeof printed, format.c_str(), values...));
    char reported[700];
    const auto most = in.next() % sizeof reported;
    same(memm::format_to(reported, most, format.c_str(), values...), size, "length in a report");
    same(most == 0 || reported == std::string(printed).substr(0, most - 1), true, format.c_str());
    const unsigned room = texts.room();
    const bool has_no_block = in.one_in(4);
    bool asks = false;
    fault = [&](Op op) { return op == Op::getmem && (asks = true) && has_no_block ? 7 : 0; };
    const unsigned result = dynstr_sprintf(string, format.c_str(), values...);
    fault = nullptr;
    const std::size_t length = max == 0 ? size : std::min<std::size_t>(size, max - 1);
    const std::string expected = std::string(printed, length).c_str();  // there may be a zero in its midst
    // Without room at the end a text waits outside while the buffer is compacted, where only the other one stays.
    const bool fits = length < room;
    const unsigned beside = filler == nullptr ? 0 : dynstr_strlen(filler) + 1;
    const bool fits_then = !has_no_block && expected.size() + 1 + beside <= texts.bufsize;
    same(asks, !fits, "a block from outside");
    same(result, fits || fits_then ? 0U : unsigned{MEMM_E_NO_MEMORY}, "result");
    same(std::string(dynstr_getstring(string)), result == 0 ? expected : "", format.c_str());
    same(string->str == nullptr, result != 0, "an address");
    same(dynstr_integrity_check(pool, 0), 1, "integrity_check");
}

void step(Stream &in)
{
    static Target target;
    const char letter = in.one_of(std::string_view("diuxdxXoc%"));
    const std::string length = letter == 'c' || letter == '%' ? "" : in.one_of(kLengths);
    const char *const tail = letter == '%' ? "" : in.one_of(kTails);
    const std::string format = text("<%%%%> %%%s%ss|%%%s%s%s%c%s", in.one_in(2) ? "-" : "", in.one_of(kWidths),
                                    in.one_of(kFlags), in.one_of(kWidths), length.c_str(), letter, tail);
    const char *const word = in.one_of(kWords);
    const long long value = in.one_of(kValues);
    const int width = in.within(-20, 40), precision = in.within(-2, 20);
    const auto print_as = [&](auto number) {
        print(target, in, format, word, number, width, precision, width, in.one_in(2) ? nullptr : word, 0.5);
    };
    if (length == "ll" || length == "j")
        print_as(value);
    else if (length == "l" || length == "z" || length == "t")
        print_as(static_cast<long>(value));
    else
        print_as(static_cast<int>(value));
}
